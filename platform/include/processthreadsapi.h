// Threads and the current process.
//
// A thread handle is waitable: it becomes signalled when the thread function returns or the
// thread calls ExitThread. It may be closed before or after the thread ends.
//
// TerminateThread cannot stop a thread safely on POSIX (locks it holds, memory it owns). Here
// it is cooperative:
//   - the target is marked cancelled and its exit code is recorded (it wins over the value the
//     thread function later returns);
//   - a target blocked in Sleep, SleepEx, WaitForSingleObject or WaitForMultipleObjects of the
//     stand-in wakes at once; from then on its Sleeps return at once and its waits return
//     WAIT_FAILED with ERROR_OPERATION_ABORTED, so a well-behaved thread function runs to its end;
//   - a thread still held by CREATE_SUSPENDED never runs its function;
//   - the handle becomes signalled, and GetExitCodeThread stops answering STILL_ACTIVE, once the
//     thread function has returned;
//   - TerminateThread of the calling thread itself is ExitThread.
//
// ExitThread unwinds the calling thread's stack (destructors run) and ends it.
//
// SuspendThread works on a thread that has not started running its function (created
// suspended) and on the calling thread itself (it sleeps until another thread resumes it).
// Suspending another running thread is not supported: (DWORD)-1 with ERROR_NOT_SUPPORTED.
//
// Thread priorities are recorded and reported back; they have no effect on scheduling.
// dwStackSize of CreateThread is accepted; threads get the default stack.
#pragma once
#include "winnt.h"

#define STILL_ACTIVE 259
#define CREATE_SUSPENDED 0x00000004
#define STACK_SIZE_PARAM_IS_A_RESERVATION 0x00010000

#define THREAD_PRIORITY_IDLE (-15)
#define THREAD_PRIORITY_LOWEST (-2)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_ABOVE_NORMAL 1
#define THREAD_PRIORITY_HIGHEST 2
#define THREAD_PRIORITY_TIME_CRITICAL 15
#define THREAD_PRIORITY_ERROR_RETURN 0x7FFFFFFF
#define THREAD_MODE_BACKGROUND_BEGIN 0x00010000
#define THREAD_MODE_BACKGROUND_END 0x00020000

#define THREAD_TERMINATE 0x0001
#define THREAD_SUSPEND_RESUME 0x0002
#define THREAD_QUERY_INFORMATION 0x0040
#define THREAD_SET_INFORMATION 0x0020
#define THREAD_ALL_ACCESS 0x1FFFFF

typedef DWORD(WINAPI* PTHREAD_START_ROUTINE)(LPVOID lpThreadParameter);
typedef PTHREAD_START_ROUTINE LPTHREAD_START_ROUTINE;

extern "C" {

HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES lpThreadAttributes, SIZE_T dwStackSize,
                           LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter, DWORD dwCreationFlags,
                           LPDWORD lpThreadId);
// Both return the previous suspend count, or (DWORD)-1 on failure.
DWORD WINAPI ResumeThread(HANDLE hThread);
DWORD WINAPI SuspendThread(HANDLE hThread);
BOOL WINAPI GetExitCodeThread(HANDLE hThread, LPDWORD lpExitCode);
[[noreturn]] void WINAPI ExitThread(DWORD dwExitCode);
BOOL WINAPI TerminateThread(HANDLE hThread, DWORD dwExitCode);
BOOL WINAPI SwitchToThread();

// The kernel's thread ID: nonzero, stable for the thread's life, unique among live threads.
DWORD WINAPI GetCurrentThreadId();
DWORD WINAPI GetThreadId(HANDLE Thread);
// Pseudo handles for the caller; they need no CloseHandle.
HANDLE WINAPI GetCurrentThread();
HANDLE WINAPI GetCurrentProcess();
DWORD WINAPI GetCurrentProcessId();

BOOL WINAPI SetThreadPriority(HANDLE hThread, int nPriority);
int WINAPI GetThreadPriority(HANDLE hThread);

}  // extern "C"
