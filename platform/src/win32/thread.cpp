// Threads over pthreads, and the cooperative cancellation behind TerminateThread.
//
// Every thread that uses the stand-in has a ThreadControl: its cancelled flag, the interrupt of
// the wait it is blocked in, and the condition its Sleeps wait on. Threads made by CreateThread
// also have a ThreadState, shared by the thread and its handle, that carries the suspend count
// and the exit code.
//
// Lock order: ThreadControl::lock -> ThreadState::lock (an interrupt may take the state lock of
// the thread being waited for). Neither is held while calling out.
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>

#include "win32/kernel_wait.h"

namespace adp {
namespace {

// Exit code of a thread whose function let a C++ exception escape (the code Windows gives one).
constexpr DWORD kUncaughtExceptionCode = 0xE06D7363;

struct ThreadControl {
  std::mutex lock;                 // guards interrupt; Sleeps wait on wake under it
  std::condition_variable wake;
  std::atomic<bool> cancelled{false};
  std::atomic<int> priority{THREAD_PRIORITY_NORMAL};
  void (*interrupt)(void*) = nullptr;
  void* interruptContext = nullptr;

  void Cancel() {
    std::lock_guard<std::mutex> guard(lock);
    cancelled.store(true);
    if (interrupt) interrupt(interruptContext);
    wake.notify_all();
  }
};

struct ThreadState {
  std::shared_ptr<ThreadControl> control = std::make_shared<ThreadControl>();
  LPTHREAD_START_ROUTINE start = nullptr;
  LPVOID parameter = nullptr;

  std::mutex lock;  // guards the fields below
  std::condition_variable changed;
  DWORD threadId = 0;
  DWORD suspendCount = 0;
  bool running = false;   // the thread function has been entered
  bool finished = false;
  bool terminated = false;
  bool exitRequested = false;
  DWORD exitCode = STILL_ACTIVE;
  DWORD requestedCode = 0;  // from TerminateThread or ExitThread
};

std::shared_ptr<ThreadControl>& CurrentControlSlot() {
  thread_local std::shared_ptr<ThreadControl> control;
  return control;
}

ThreadControl& CurrentControl() {
  auto& slot = CurrentControlSlot();
  if (!slot) slot = std::make_shared<ThreadControl>();
  return *slot;
}

bool& ExitingFlag() {
  thread_local bool exiting = false;
  return exiting;
}

ThreadState*& CurrentState() {
  thread_local ThreadState* state = nullptr;  // set for threads made by CreateThread
  return state;
}

void NotifyState(void* context) {
  auto* state = static_cast<ThreadState*>(context);
  std::lock_guard<std::mutex> guard(state->lock);
  state->changed.notify_all();
}

// Marks the thread finished when its function returns, or when ExitThread unwinds it.
class ExitRecorder {
 public:
  explicit ExitRecorder(ThreadState* state) : m_state(state) {}
  ~ExitRecorder() {
    AbandonMutexesOfCurrentThread();  // waiters on the handle then find them abandoned
    std::lock_guard<std::mutex> guard(m_state->lock);
    m_state->finished = true;
    m_state->exitCode = m_state->terminated || m_state->exitRequested ? m_state->requestedCode : m_returned;
    m_state->changed.notify_all();
    CurrentState() = nullptr;
  }
  ExitRecorder(const ExitRecorder&) = delete;
  ExitRecorder& operator=(const ExitRecorder&) = delete;
  void SetReturned(DWORD code) { m_returned = code; }

 private:
  ThreadState* m_state;
  DWORD m_returned = 0;
};

// Waits out CREATE_SUSPENDED. Returns whether the thread function may run.
bool WaitForStart(ThreadState* state) {
  std::unique_lock<std::mutex> guard(state->lock);
  state->threadId = GetCurrentThreadId();
  state->changed.notify_all();
  state->changed.wait(guard, [&] { return state->suspendCount == 0 || state->control->cancelled.load(); });
  state->running = !state->control->cancelled.load();
  return state->running;
}

DWORD RunThreadFunction(ThreadState* state) {
  try {
    return state->start(state->parameter);
  } catch (...) {
    if (ExitingFlag()) throw;  // ExitThread: let the unwinding finish
    std::fprintf(stderr, "thread %u ended by an uncaught exception\n", static_cast<unsigned>(GetCurrentThreadId()));
    return kUncaughtExceptionCode;
  }
}

void* ThreadMain(void* argument) {
  std::shared_ptr<ThreadState> state(std::move(*static_cast<std::shared_ptr<ThreadState>*>(argument)));
  delete static_cast<std::shared_ptr<ThreadState>*>(argument);
  CurrentControlSlot() = state->control;
  CurrentState() = state.get();
  ExitRecorder recorder(state.get());
  if (WaitForStart(state.get())) recorder.SetReturned(RunThreadFunction(state.get()));
  return nullptr;
}

class ThreadObject : public Waitable {
 public:
  explicit ThreadObject(std::shared_ptr<ThreadState> state) : m_state(std::move(state)) {}
  ThreadState& State() const { return *m_state; }

  DWORD Wait(DWORD ms) override {
    if (CurrentThreadCancelled()) return CancelledWaitResult();
    Deadline deadline(ms);
    WaitInterrupt interrupt(&NotifyState, m_state.get());
    std::unique_lock<std::mutex> guard(m_state->lock);
    while (!m_state->finished) {
      if (CurrentThreadCancelled()) return CancelledWaitResult();
      if (ms == 0 || deadline.Passed()) return WAIT_TIMEOUT;
      if (deadline.Infinite())
        m_state->changed.wait(guard);
      else
        m_state->changed.wait_until(guard, deadline.When());
    }
    return WAIT_OBJECT_0;
  }
  DWORD TryWait() override { return LooksSignalled() ? WAIT_OBJECT_0 : WAIT_TIMEOUT; }
  bool LooksSignalled() override {
    std::lock_guard<std::mutex> guard(m_state->lock);
    return m_state->finished;
  }

 private:
  std::shared_ptr<ThreadState> m_state;
};

// The state a handle stands for: nullptr for a foreign thread (the pseudo handle of a thread
// not made by CreateThread) or a bad handle (last error set).
class ThreadRef {
 public:
  explicit ThreadRef(HANDLE h) {
    if (h == GetCurrentThread()) {
      m_state = CurrentState();
      m_self = true;
    } else if ((m_object = ReferenceHandleAs<ThreadObject>(h))) {
      m_state = &m_object->State();
      m_self = m_state == CurrentState();
    }
  }
  ~ThreadRef() {
    if (m_object) m_object->Release();
  }
  ThreadRef(const ThreadRef&) = delete;
  ThreadRef& operator=(const ThreadRef&) = delete;
  bool Valid() const { return m_self || m_object; }
  bool Self() const { return m_self; }
  ThreadState* State() const { return m_state; }
  ThreadControl& Control() const { return m_state ? *m_state->control : CurrentControl(); }

 private:
  ThreadObject* m_object = nullptr;
  ThreadState* m_state = nullptr;
  bool m_self = false;
};

bool ValidPriority(int priority) {
  switch (priority) {
    case THREAD_PRIORITY_IDLE: case THREAD_PRIORITY_LOWEST: case THREAD_PRIORITY_BELOW_NORMAL:
    case THREAD_PRIORITY_NORMAL: case THREAD_PRIORITY_ABOVE_NORMAL: case THREAD_PRIORITY_HIGHEST:
    case THREAD_PRIORITY_TIME_CRITICAL:
      return true;
    default:
      return false;
  }
}

// SuspendThread of the calling thread: sleeps until resumed (or cancelled).
DWORD SuspendSelf(ThreadState* state) {
  std::unique_lock<std::mutex> guard(state->lock);
  DWORD previous = state->suspendCount++;
  state->changed.wait(guard, [&] { return state->suspendCount == 0 || state->control->cancelled.load(); });
  return previous;
}

}  // namespace

bool CurrentThreadCancelled() { return CurrentControl().cancelled.load(); }

bool CurrentThreadExiting() { return ExitingFlag(); }

DWORD CancelledWaitResult() {
  SetLastError(ERROR_OPERATION_ABORTED);
  return WAIT_FAILED;
}

WaitInterrupt::WaitInterrupt(void (*fn)(void*), void* context) {
  ThreadControl& control = CurrentControl();
  std::lock_guard<std::mutex> guard(control.lock);
  control.interrupt = fn;
  control.interruptContext = context;
}

WaitInterrupt::~WaitInterrupt() {
  ThreadControl& control = CurrentControl();
  std::lock_guard<std::mutex> guard(control.lock);
  control.interrupt = nullptr;
  control.interruptContext = nullptr;
}

bool PauseCurrentThread(const Deadline& deadline) {
  ThreadControl& control = CurrentControl();
  std::unique_lock<std::mutex> guard(control.lock);
  auto cancelled = [&] { return control.cancelled.load(); };
  if (deadline.Infinite())
    control.wake.wait(guard, cancelled);
  else
    control.wake.wait_until(guard, deadline.When(), cancelled);
  return !control.cancelled.load();
}

}  // namespace adp

using adp::ThreadRef;

extern "C" {

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter,
                    DWORD dwCreationFlags, LPDWORD lpThreadId) {
  if (!lpStartAddress) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  auto state = std::make_shared<adp::ThreadState>();
  state->start = lpStartAddress;
  state->parameter = lpParameter;
  state->suspendCount = (dwCreationFlags & CREATE_SUSPENDED) ? 1 : 0;

  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  auto* argument = new std::shared_ptr<adp::ThreadState>(state);
  pthread_t thread;
  int rc = pthread_create(&thread, &attr, &adp::ThreadMain, argument);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    delete argument;
    SetLastError(rc == EAGAIN ? ERROR_NO_SYSTEM_RESOURCES : ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  {
    std::unique_lock<std::mutex> guard(state->lock);
    state->changed.wait(guard, [&] { return state->threadId != 0; });  // so the ID can be handed out
    if (lpThreadId) *lpThreadId = state->threadId;
  }
  return adp::RegisterHandle(new adp::ThreadObject(std::move(state)));
}

DWORD ResumeThread(HANDLE hThread) {
  ThreadRef thread(hThread);
  if (!thread.Valid()) return static_cast<DWORD>(-1);
  adp::ThreadState* state = thread.State();
  if (!state || thread.Self()) return 0;  // the caller is running
  std::lock_guard<std::mutex> guard(state->lock);
  DWORD previous = state->suspendCount;
  if (previous > 0 && --state->suspendCount == 0) state->changed.notify_all();
  return previous;
}

DWORD SuspendThread(HANDLE hThread) {
  ThreadRef thread(hThread);
  if (!thread.Valid()) return static_cast<DWORD>(-1);
  adp::ThreadState* state = thread.State();
  if (state && thread.Self()) return adp::SuspendSelf(state);
  if (state) {
    std::lock_guard<std::mutex> guard(state->lock);
    if (state->finished) {
      SetLastError(ERROR_ACCESS_DENIED);
      return static_cast<DWORD>(-1);
    }
    if (!state->running) return state->suspendCount++;  // not started yet: it simply stays put
  }
  SetLastError(ERROR_NOT_SUPPORTED);
  return static_cast<DWORD>(-1);
}

BOOL GetExitCodeThread(HANDLE hThread, LPDWORD lpExitCode) {
  if (!lpExitCode) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  ThreadRef thread(hThread);
  if (!thread.Valid()) return FALSE;
  adp::ThreadState* state = thread.State();
  if (!state || thread.Self()) {
    *lpExitCode = STILL_ACTIVE;
    return TRUE;
  }
  std::lock_guard<std::mutex> guard(state->lock);
  *lpExitCode = state->exitCode;
  return TRUE;
}

void ExitThread(DWORD dwExitCode) {
  if (adp::ThreadState* state = adp::CurrentState()) {
    std::lock_guard<std::mutex> guard(state->lock);
    if (!state->terminated) {
      state->exitRequested = true;
      state->requestedCode = dwExitCode;
    }
  }
  adp::ExitingFlag() = true;
  pthread_exit(nullptr);
}

BOOL TerminateThread(HANDLE hThread, DWORD dwExitCode) {
  ThreadRef thread(hThread);
  if (!thread.Valid()) return FALSE;
  if (thread.Self()) ExitThread(dwExitCode);
  adp::ThreadState* state = thread.State();
  {
    std::lock_guard<std::mutex> guard(state->lock);
    if (state->finished || state->terminated) return TRUE;
    state->terminated = true;
    state->requestedCode = dwExitCode;
  }
  state->control->Cancel();
  adp::NotifyState(state);  // a thread held by CREATE_SUSPENDED or SuspendThread wakes too
  return TRUE;
}

BOOL SwitchToThread() { return sched_yield() == 0; }

DWORD GetCurrentThreadId() {
  thread_local DWORD id = static_cast<DWORD>(syscall(SYS_gettid));
  return id;
}

DWORD GetThreadId(HANDLE Thread) {
  ThreadRef thread(Thread);
  if (!thread.Valid()) return 0;
  if (thread.Self()) return GetCurrentThreadId();
  std::lock_guard<std::mutex> guard(thread.State()->lock);
  return thread.State()->threadId;
}

HANDLE GetCurrentThread() { return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-2)); }
HANDLE GetCurrentProcess() { return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)); }
DWORD GetCurrentProcessId() { return static_cast<DWORD>(getpid()); }

BOOL SetThreadPriority(HANDLE hThread, int nPriority) {
  ThreadRef thread(hThread);
  if (!thread.Valid()) return FALSE;
  if (nPriority == THREAD_MODE_BACKGROUND_BEGIN || nPriority == THREAD_MODE_BACKGROUND_END) return TRUE;
  if (!adp::ValidPriority(nPriority)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  thread.Control().priority.store(nPriority);
  return TRUE;
}

int GetThreadPriority(HANDLE hThread) {
  ThreadRef thread(hThread);
  if (!thread.Valid()) return THREAD_PRIORITY_ERROR_RETURN;
  return thread.Control().priority.load();
}

}  // extern "C"
