// What synch.cpp, thread.cpp and timerqueue.cpp share: deadlines on the scaled clock, waitable
// objects, and the cooperative cancellation that stands in for TerminateThread.
#pragma once
#include <chrono>
#include <cstdint>

#include "adplatform.h"
#include "win32/handle.h"

namespace adp {

// A wait's end in wall time, from a timeout in system milliseconds (INFINITE: never).
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;
  explicit Deadline(DWORD systemMs)
      : m_infinite(systemMs == INFINITE),
        m_when(Clock::now() + std::chrono::microseconds(m_infinite ? 0 : WallMicrosecondsFor(systemMs))) {}
  // A wall-clock interval, for the stand-in's own pauses.
  explicit Deadline(std::chrono::microseconds wall) : m_infinite(false), m_when(Clock::now() + wall) {}
  bool Infinite() const { return m_infinite; }
  bool Passed() const { return !m_infinite && Clock::now() >= m_when; }
  Clock::time_point When() const { return m_when; }
  // Wall time left, at most cap (the whole cap when infinite).
  std::chrono::microseconds Remaining(std::chrono::microseconds cap) const {
    if (m_infinite) return cap;
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(m_when - Clock::now());
    if (left.count() < 0) return std::chrono::microseconds(0);
    return left < cap ? left : cap;
  }

 private:
  bool m_infinite;
  Clock::time_point m_when;
};

// A kernel object that WaitForSingleObject/WaitForMultipleObjects can wait on.
class Waitable : public KernelObject {
 public:
  // Takes the object if it is signalled, without blocking: WAIT_OBJECT_0, WAIT_ABANDONED,
  // WAIT_TIMEOUT, or WAIT_FAILED with the last error set.
  virtual DWORD TryWait() = 0;
  // Gives back what a successful TryWait took (all-or-nothing waits roll back with this).
  virtual void UndoWait() {}
  // Whether TryWait would succeed now; takes nothing.
  virtual bool LooksSignalled() = 0;
};

// Cooperative cancellation. TerminateThread marks its target cancelled and calls the interrupt
// the target registered for the wait it is blocked in; the stand-in's Sleep and waits of a
// cancelled thread return at once.
bool CurrentThreadCancelled();
// Whether the calling thread is being unwound by ExitThread (catch (...) blocks must rethrow).
bool CurrentThreadExiting();
// Sets ERROR_OPERATION_ABORTED and returns WAIT_FAILED: how a cancelled thread's waits end.
DWORD CancelledWaitResult();

// While alive, TerminateThread of the calling thread runs fn(context) (on the terminating
// thread) to wake the calling thread's blocked wait. fn must not block.
class WaitInterrupt {
 public:
  WaitInterrupt(void (*fn)(void*), void* context);
  ~WaitInterrupt();
  WaitInterrupt(const WaitInterrupt&) = delete;
  WaitInterrupt& operator=(const WaitInterrupt&) = delete;
};

// Blocks the calling thread until the deadline, or until it is cancelled. Returns false when
// cancelled.
bool PauseCurrentThread(const Deadline& deadline);

// Releases every mutex the calling thread owns, marked abandoned, before its handle signals.
void AbandonMutexesOfCurrentThread();

// Timer queues signal completion events they were given (null or foreign objects are ignored).
void SignalEventObject(KernelObject* event);

// Number of threads (in any process) blocked in a wait on the event behind h, or -1 for a
// handle that is not an event. For tests that must know a wait has begun.
__attribute__((visibility("default"))) LONG EventWaiterCount(HANDLE h);

}  // namespace adp
