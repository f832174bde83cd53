// Synchronisation: critical sections, interlocked operations, mutexes, events, waits, Sleep.
//
// Mutexes and events are kernel objects closed with CloseHandle. Named ones are shared by every
// process that runs with the same state directory ($ARCHIVEDEPOT_HOME); "Global\" and "Local\"
// prefixes are accepted and ignored. A named object lives while some process has a handle to it,
// as on Windows: once the last handle is closed (or the last process holding one has died) the
// next CreateMutexA/CreateEventA of that name makes a fresh object.
//
// A mutex belongs to a thread and is recursive. When its owner thread ends (or its process
// dies) while holding it, the next wait returns WAIT_ABANDONED and the waiter owns it.
//
// Timeouts are system milliseconds on the stand-in's scaled clock (see adplatform.h): under a
// time scale of 1000 a 60000 ms wait lasts 60 ms. 0 is a single try; INFINITE never times out.
// A thread cancelled by TerminateThread (see processthreadsapi.h) gets WAIT_FAILED with
// ERROR_OPERATION_ABORTED from every wait, at once.
//
// WaitForMultipleObjects polls its handles (events, mutexes, threads) when there is more than
// one, so a PulseEvent reaches it only through a single-handle wait.
#pragma once
#include "winnt.h"

#define INFINITE 0xFFFFFFFF
#define WAIT_OBJECT_0 0x00000000L
#define WAIT_ABANDONED 0x00000080L
#define WAIT_ABANDONED_0 0x00000080L
#define WAIT_IO_COMPLETION 0x000000C0L
#define WAIT_TIMEOUT 258L
#define WAIT_FAILED ((DWORD)0xFFFFFFFF)
#define MAXIMUM_WAIT_OBJECTS 64

#define MUTEX_MODIFY_STATE 0x0001
#define MUTEX_ALL_ACCESS 0x1F0001
#define EVENT_MODIFY_STATE 0x0002
#define EVENT_ALL_ACCESS 0x1F0003
#define CREATE_MUTEX_INITIAL_OWNER 0x00000001
#define CREATE_EVENT_MANUAL_RESET 0x00000001
#define CREATE_EVENT_INITIAL_SET 0x00000002

// A recursive lock for the threads of one process. The published fields are kept for
// debuggers (OwningThread holds the owner's thread ID); the lock itself lives in Reserved.
typedef struct _RTL_CRITICAL_SECTION {
  PVOID DebugInfo;
  LONG LockCount;
  LONG RecursionCount;
  HANDLE OwningThread;
  HANDLE LockSemaphore;
  ULONG_PTR SpinCount;
  alignas(8) BYTE Reserved[64];
} RTL_CRITICAL_SECTION, *PRTL_CRITICAL_SECTION;
typedef RTL_CRITICAL_SECTION CRITICAL_SECTION;
typedef PRTL_CRITICAL_SECTION PCRITICAL_SECTION;
typedef PRTL_CRITICAL_SECTION LPCRITICAL_SECTION;

extern "C" {

void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
BOOL WINAPI InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount);
BOOL WINAPI InitializeCriticalSectionEx(LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount, DWORD Flags);
DWORD WINAPI SetCriticalSectionSpinCount(LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount);
void WINAPI EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
BOOL WINAPI TryEnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection);
void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection);

// lpMutexAttributes (and its security descriptor) is accepted and ignored.
HANDLE WINAPI CreateMutexA(LPSECURITY_ATTRIBUTES lpMutexAttributes, BOOL bInitialOwner, LPCSTR lpName);
HANDLE WINAPI OpenMutexA(DWORD dwDesiredAccess, BOOL bInheritHandle, LPCSTR lpName);
BOOL WINAPI ReleaseMutex(HANDLE hMutex);

HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset, BOOL bInitialState,
                           LPCSTR lpName);
HANDLE WINAPI OpenEventA(DWORD dwDesiredAccess, BOOL bInheritHandle, LPCSTR lpName);
BOOL WINAPI SetEvent(HANDLE hEvent);
BOOL WINAPI ResetEvent(HANDLE hEvent);
// Releases the threads waiting at this moment (all of them for a manual-reset event, one for
// an auto-reset event) and leaves the event non-signalled.
BOOL WINAPI PulseEvent(HANDLE hEvent);

DWORD WINAPI WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);
DWORD WINAPI WaitForSingleObjectEx(HANDLE hHandle, DWORD dwMilliseconds, BOOL bAlertable);
DWORD WINAPI WaitForMultipleObjects(DWORD nCount, const HANDLE* lpHandles, BOOL bWaitAll, DWORD dwMilliseconds);
DWORD WINAPI WaitForMultipleObjectsEx(DWORD nCount, const HANDLE* lpHandles, BOOL bWaitAll, DWORD dwMilliseconds,
                                      BOOL bAlertable);

// Sleep(0) yields the processor. There are no APCs here, so SleepEx returns 0.
void WINAPI Sleep(DWORD dwMilliseconds);
DWORD WINAPI SleepEx(DWORD dwMilliseconds, BOOL bAlertable);

// Interlocked operations: full barriers, as published.
inline LONG InterlockedIncrement(LONG volatile* Addend) { return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedDecrement(LONG volatile* Addend) { return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedExchange(LONG volatile* Target, LONG Value) {
  return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedExchangeAdd(LONG volatile* Addend, LONG Value) {
  return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comperand) {
  __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return Comperand;  // the initial value, whether or not it was replaced
}
inline LONGLONG InterlockedIncrement64(LONGLONG volatile* Addend) {
  return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
inline LONGLONG InterlockedDecrement64(LONGLONG volatile* Addend) {
  return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
inline LONGLONG InterlockedExchange64(LONGLONG volatile* Target, LONGLONG Value) {
  return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
inline LONGLONG InterlockedExchangeAdd64(LONGLONG volatile* Addend, LONGLONG Value) {
  return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
inline LONGLONG InterlockedCompareExchange64(LONGLONG volatile* Destination, LONGLONG Exchange, LONGLONG Comperand) {
  __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return Comperand;
}
inline PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value) {
  return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
inline PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange, PVOID Comperand) {
  __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return Comperand;
}

}  // extern "C"

// This system is built without UNICODE.
#define CreateMutex CreateMutexA
#define OpenMutex OpenMutexA
#define CreateEvent CreateEventA
#define OpenEvent OpenEventA
