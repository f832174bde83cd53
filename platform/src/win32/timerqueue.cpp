// Timer queues: one thread per queue runs the callbacks of its timers as they fall due.
//
// A timer handle is the address of its Timer; it is only ever looked up in its queue's table,
// never dereferenced unchecked. The queue's thread holds a reference to the queue and drops it
// when it ends, so a queue deleted without waiting lives until its running callback returns.
//
// Lock order: TimerQueue::m_lock is innermost. It is never held while a callback runs or a
// completion event is signalled.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "win32/kernel_wait.h"

namespace adp {
namespace {

constexpr DWORD kOncePerArming = 0xFFFFFFFF;
// The queue thread reads the clock at least this often, so a change of time scale takes hold.
constexpr std::chrono::microseconds kLongestNap{50000};

struct Timer {
  WAITORTIMERCALLBACK callback = nullptr;
  PVOID parameter = nullptr;
  uint64_t id = 0;      // tells this timer from a later one at the same address
  bool onlyOnce = false;  // WT_EXECUTEONLYONCE
  uint64_t due = 0;     // system milliseconds
  DWORD period = 0;
  bool armed = false;
  bool fired = false;
  bool running = false;
  bool deleted = false;
  KernelObject* completion = nullptr;  // event to signal once the timer is gone

  bool OneShot() const { return onlyOnce || period == 0; }
  void Arm(DWORD dueTime, DWORD newPeriod) {
    due = SystemMilliseconds() + dueTime;
    period = newPeriod;
    armed = true;
  }
};

// What a delete call asked for once its callback has finished.
struct Completion {
  enum Mode { kNoWait, kWait, kSignal } mode = kNoWait;
  KernelObject* event = nullptr;  // a reference, for kSignal
};

// Reads a CompletionEvent argument. Returns false (last error set) for a bad handle.
bool ParseCompletion(HANDLE h, Completion* out) {
  if (!h) return true;
  if (h == INVALID_HANDLE_VALUE) {
    out->mode = Completion::kWait;
    return true;
  }
  out->event = ReferenceHandle(h);
  out->mode = Completion::kSignal;
  return out->event != nullptr;
}

// An exception escaping a callback must not end the queue's thread (and every later timer).
void RunCallback(WAITORTIMERCALLBACK callback, PVOID parameter) {
  try {
    callback(parameter, TRUE);
  } catch (...) {
    if (CurrentThreadExiting()) throw;  // ExitThread in a callback ends the queue's thread
    std::fprintf(stderr, "timer callback ended by an uncaught exception\n");
  }
}

void SignalAndRelease(KernelObject* event) {
  if (!event) return;
  SignalEventObject(event);
  event->Release();
}

class TimerQueue : public KernelObject {
 public:
  // A running queue with one reference for the caller, or nullptr.
  static TimerQueue* Start() {
    auto* queue = new TimerQueue;
    queue->AddRef();  // the thread's
    try {
      std::thread thread([queue] { queue->Run(); });
      std::lock_guard<std::mutex> guard(queue->m_lock);
      queue->m_thread = thread.get_id();
      thread.detach();
    } catch (const std::system_error&) {
      queue->Release();
      queue->Release();
      return nullptr;
    }
    return queue;
  }

  HANDLE Add(WAITORTIMERCALLBACK callback, PVOID parameter, DWORD dueTime, DWORD period, ULONG flags) {
    auto timer = std::make_unique<Timer>();
    timer->callback = callback;
    timer->parameter = parameter;
    timer->onlyOnce = (flags & WT_EXECUTEONLYONCE) != 0;
    Timer* raw = timer.get();
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_stopping) {
      SetLastError(ERROR_INVALID_HANDLE);
      return nullptr;
    }
    timer->id = m_nextId++;
    timer->Arm(dueTime, period);
    m_timers.emplace(raw, std::move(timer));
    m_wake.notify_all();
    return static_cast<HANDLE>(raw);
  }

  BOOL Change(HANDLE handle, DWORD dueTime, DWORD period) {
    std::lock_guard<std::mutex> guard(m_lock);
    Timer* timer = Find(handle);
    if (!timer) return FALSE;
    if (timer->OneShot() && timer->fired) return TRUE;  // an expired one-shot is left alone, as published
    timer->Arm(dueTime, period);
    m_wake.notify_all();
    return TRUE;
  }

  BOOL Delete(HANDLE handle, Completion completion) {
    std::unique_lock<std::mutex> guard(m_lock);
    Timer* timer = Find(handle);
    if (!timer) {
      guard.unlock();
      if (completion.event) completion.event->Release();
      return FALSE;
    }
    timer->deleted = true;
    timer->armed = false;
    if (!timer->running) {
      Erase(timer);
      guard.unlock();
      SignalAndRelease(completion.event);
      return TRUE;
    }
    if (completion.mode == Completion::kSignal) {
      timer->completion = completion.event;
      return TRUE;
    }
    if (completion.mode == Completion::kNoWait || OnQueueThread()) {
      SetLastError(ERROR_IO_PENDING);  // goes when its callback ends
      return FALSE;
    }
    uint64_t id = timer->id;
    m_idle.wait(guard, [&] { return !Holds(timer, id); });
    return TRUE;
  }

  BOOL Shutdown(Completion completion) {
    std::unique_lock<std::mutex> guard(m_lock);
    m_stopping = true;
    bool running = false;
    for (auto it = m_timers.begin(); it != m_timers.end();) {
      Timer* timer = it->first;
      timer->deleted = true;
      timer->armed = false;
      if (timer->running) {
        running = true;
        ++it;
      } else {
        it = m_timers.erase(it);
      }
    }
    m_wake.notify_all();
    if (completion.mode == Completion::kSignal && running) {
      m_completion = completion.event;
      return TRUE;
    }
    if (running && (completion.mode == Completion::kNoWait || OnQueueThread())) {
      SetLastError(ERROR_IO_PENDING);
      return FALSE;
    }
    if (completion.mode == Completion::kWait && !OnQueueThread()) m_idle.wait(guard, [&] { return m_exited; });
    guard.unlock();
    SignalAndRelease(completion.event);
    return TRUE;
  }

 private:
  TimerQueue() = default;
  ~TimerQueue() override = default;

  bool OnQueueThread() const { return std::this_thread::get_id() == m_thread; }

  Timer* Find(HANDLE handle) {
    auto it = m_timers.find(static_cast<Timer*>(handle));
    if (it == m_timers.end() || it->second->deleted) {
      SetLastError(ERROR_INVALID_HANDLE);
      return nullptr;
    }
    return it->second.get();
  }

  bool Holds(Timer* timer, uint64_t id) const {
    auto it = m_timers.find(timer);
    return it != m_timers.end() && it->second->id == id;
  }

  // Drops the timer; returns the event to signal (the caller signals it outside the lock).
  KernelObject* Erase(Timer* timer) {
    KernelObject* completion = timer->completion;
    m_timers.erase(timer);
    return completion;
  }

  Timer* Earliest() const {
    Timer* next = nullptr;
    for (const auto& [raw, timer] : m_timers)
      if (timer->armed && !timer->running && (!next || timer->due < next->due)) next = raw;
    return next;
  }

  void Fire(Timer* timer, std::unique_lock<std::mutex>& guard) {
    timer->running = true;
    timer->fired = true;
    if (timer->OneShot() || timer->period == kOncePerArming)
      timer->armed = false;
    else
      timer->Arm(timer->period, timer->period);
    WAITORTIMERCALLBACK callback = timer->callback;
    PVOID parameter = timer->parameter;
    guard.unlock();
    AfterCallback after{this, timer, guard};
    RunCallback(callback, parameter);  // may re-arm or delete its own timer
  }

  // Settles a timer once its callback has returned, or been unwound by ExitThread.
  struct AfterCallback {
    TimerQueue* queue;
    Timer* timer;
    std::unique_lock<std::mutex>& guard;
    ~AfterCallback() {
      guard.lock();
      queue->Settle(timer, guard);
    }
  };

  void Settle(Timer* timer, std::unique_lock<std::mutex>& guard) {
    timer->running = false;
    if (CurrentThreadExiting()) m_stopping = true;  // the queue has lost its thread
    KernelObject* completion = timer->deleted ? Erase(timer) : nullptr;
    m_idle.notify_all();
    if (completion) {
      guard.unlock();
      SignalAndRelease(completion);
      guard.lock();
    }
  }

  // Ends the queue's thread, whichever way Run is left.
  struct Finisher {
    TimerQueue* queue;
    ~Finisher() { queue->Finish(); }
  };

  void Finish() {
    std::unique_lock<std::mutex> guard(m_lock);
    m_stopping = true;
    std::vector<KernelObject*> completions{m_completion};
    m_completion = nullptr;
    for (auto& [raw, timer] : m_timers) completions.push_back(timer->completion);  // ExitThread in a callback
    m_timers.clear();
    m_exited = true;
    m_idle.notify_all();
    guard.unlock();
    for (KernelObject* completion : completions) SignalAndRelease(completion);
    Release();  // the thread's reference; may destroy the queue
  }

  void Run() {
    Finisher finisher{this};
    std::unique_lock<std::mutex> guard(m_lock);
    while (!m_stopping) {
      Timer* next = Earliest();
      if (!next) {
        m_wake.wait(guard);
        continue;
      }
      uint64_t now = SystemMilliseconds();
      if (next->due > now) {
        auto nap = std::chrono::microseconds(std::max<uint64_t>(1, WallMicrosecondsFor(next->due - now)));
        m_wake.wait_for(guard, std::min(nap, kLongestNap));
        continue;
      }
      Fire(next, guard);
    }
  }

  std::mutex m_lock;               // guards everything below
  std::condition_variable m_wake;  // the queue thread: timers changed, or stop
  std::condition_variable m_idle;  // deleters: a callback ended, or the thread did
  std::unordered_map<Timer*, std::unique_ptr<Timer>> m_timers;
  uint64_t m_nextId = 1;
  bool m_stopping = false;
  bool m_exited = false;
  std::thread::id m_thread;
  KernelObject* m_completion = nullptr;  // DeleteTimerQueueEx's event, while a callback still runs
};

TimerQueue* DefaultQueue() {
  static TimerQueue* queue = TimerQueue::Start();  // lives for the process
  return queue;
}

// The queue a TimerQueue argument stands for (NULL: the default queue), with a reference.
class QueueRef {
 public:
  explicit QueueRef(HANDLE h) {
    if (h) {
      m_queue = ReferenceHandleAs<TimerQueue>(h);
    } else if ((m_queue = DefaultQueue())) {
      m_queue->AddRef();
    } else {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
  }
  ~QueueRef() {
    if (m_queue) m_queue->Release();
  }
  QueueRef(const QueueRef&) = delete;
  QueueRef& operator=(const QueueRef&) = delete;
  TimerQueue* operator->() const { return m_queue; }
  explicit operator bool() const { return m_queue != nullptr; }

 private:
  TimerQueue* m_queue = nullptr;
};

}  // namespace
}  // namespace adp

extern "C" {

HANDLE CreateTimerQueue() {
  adp::TimerQueue* queue = adp::TimerQueue::Start();
  if (!queue) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  return adp::RegisterHandle(queue);
}

BOOL CreateTimerQueueTimer(PHANDLE phNewTimer, HANDLE TimerQueue, WAITORTIMERCALLBACK Callback, PVOID Parameter,
                           DWORD DueTime, DWORD Period, ULONG Flags) {
  if (!phNewTimer || !Callback) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  adp::QueueRef queue(TimerQueue);
  if (!queue) return FALSE;
  *phNewTimer = queue->Add(Callback, Parameter, DueTime, Period, Flags);
  return *phNewTimer != nullptr;
}

BOOL ChangeTimerQueueTimer(HANDLE TimerQueue, HANDLE Timer, ULONG DueTime, ULONG Period) {
  adp::QueueRef queue(TimerQueue);
  return queue ? queue->Change(Timer, DueTime, Period) : FALSE;
}

BOOL DeleteTimerQueueTimer(HANDLE TimerQueue, HANDLE Timer, HANDLE CompletionEvent) {
  adp::QueueRef queue(TimerQueue);
  if (!queue) return FALSE;
  adp::Completion completion;
  if (!adp::ParseCompletion(CompletionEvent, &completion)) return FALSE;
  return queue->Delete(Timer, completion);
}

BOOL DeleteTimerQueue(HANDLE TimerQueue) { return DeleteTimerQueueEx(TimerQueue, nullptr); }

BOOL DeleteTimerQueueEx(HANDLE TimerQueue, HANDLE CompletionEvent) {
  if (!TimerQueue) {
    SetLastError(ERROR_INVALID_HANDLE);  // the default queue is never deleted
    return FALSE;
  }
  adp::QueueRef queue(TimerQueue);
  if (!queue) return FALSE;
  adp::Completion completion;
  if (!adp::ParseCompletion(CompletionEvent, &completion)) return FALSE;
  if (!CloseHandle(TimerQueue)) {  // another caller deleted it first
    if (completion.event) completion.event->Release();
    return FALSE;
  }
  return queue->Shutdown(completion);
}

}  // extern "C"
