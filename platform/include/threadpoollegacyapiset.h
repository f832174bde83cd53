// Timer queues. Each queue has one thread of its own on which its callbacks run, one at a time;
// the default queue (TimerQueue NULL) is made on first use and lives for the process. Due times
// and periods are system milliseconds on the stand-in's scaled clock (see adplatform.h).
//
// Period 0 is a one-shot timer, as published: once it has fired, ChangeTimerQueueTimer leaves
// it alone. Period 0xFFFFFFFF (as this system passes "-1") fires once per arming too, but stays
// re-armable: ChangeTimerQueueTimer arms it again, also after it has fired. Any other period
// repeats. WT_EXECUTEONLYONCE makes any timer one-shot; the other WT_ flags are accepted.
//
// Deleting a timer whose callback is running: with CompletionEvent NULL the call returns FALSE
// with ERROR_IO_PENDING and the timer goes when the callback ends; INVALID_HANDLE_VALUE waits
// for the callback, except on the queue's own thread (a callback deleting its own timer), which
// cannot wait for itself and is answered as for NULL; an event handle is signalled once the
// timer is gone. The same holds for DeleteTimerQueueEx and all the callbacks of its queue.
#pragma once
#include "winnt.h"

#define WT_EXECUTEDEFAULT 0x00000000
#define WT_EXECUTEINIOTHREAD 0x00000001
#define WT_EXECUTEINUITHREAD 0x00000002
#define WT_EXECUTEINWAITTHREAD 0x00000004
#define WT_EXECUTEONLYONCE 0x00000008
#define WT_EXECUTELONGFUNCTION 0x00000010
#define WT_EXECUTEINTIMERTHREAD 0x00000020
#define WT_EXECUTEINPERSISTENTIOTHREAD 0x00000040
#define WT_EXECUTEINPERSISTENTTHREAD 0x00000080
#define WT_TRANSFER_IMPERSONATION 0x00000100

typedef VOID(CALLBACK* WAITORTIMERCALLBACK)(PVOID lpParameter, BOOLEAN TimerOrWaitFired);
typedef WAITORTIMERCALLBACK WAITORTIMERCALLBACKFUNC;

extern "C" {

HANDLE WINAPI CreateTimerQueue();
BOOL WINAPI CreateTimerQueueTimer(PHANDLE phNewTimer, HANDLE TimerQueue, WAITORTIMERCALLBACK Callback,
                                  PVOID Parameter, DWORD DueTime, DWORD Period, ULONG Flags);
BOOL WINAPI ChangeTimerQueueTimer(HANDLE TimerQueue, HANDLE Timer, ULONG DueTime, ULONG Period);
BOOL WINAPI DeleteTimerQueueTimer(HANDLE TimerQueue, HANDLE Timer, HANDLE CompletionEvent);
// DeleteTimerQueue(q) is DeleteTimerQueueEx(q, NULL).
BOOL WINAPI DeleteTimerQueue(HANDLE TimerQueue);
BOOL WINAPI DeleteTimerQueueEx(HANDLE TimerQueue, HANDLE CompletionEvent);

}  // extern "C"
