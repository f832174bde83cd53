// Critical sections, mutexes, events, waits and Sleep over POSIX.
//
// A mutex is a robust pthread mutex (process-shared when named). Recursion and ownership are kept
// per thread here, so ReleaseMutex by a non-owner is refused. A thread that ends while owning
// mutexes releases them marked abandoned; when a whole process dies the kernel marks them
// (EOWNERDEAD). Either way the next owner gets WAIT_ABANDONED.
// An event is a few counters under a robust pthread mutex, with a futex word that sleepers
// wait on; every change that may release a waiter bumps the word.
//
// Lock order: registry lock -> a region's file lock -> a mutex object's own lock (try only).
// An event's internal lock is innermost and never held while blocking.
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#include "win32/kernel_wait.h"
#include "win32/synch_shared.h"

namespace adp {
namespace {

// ---- critical sections ----------------------------------------------------------------------

static_assert(sizeof(pthread_mutex_t) <= sizeof(CRITICAL_SECTION::Reserved));
static_assert(alignof(pthread_mutex_t) <= 8);

pthread_mutex_t* SectionLock(LPCRITICAL_SECTION cs) { return reinterpret_cast<pthread_mutex_t*>(cs->Reserved); }

HANDLE CurrentThreadIdAsHandle() { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(GetCurrentThreadId())); }

// Owner-only bookkeeping, written while the section is held.
void NoteEntered(LPCRITICAL_SECTION cs) {
  if (cs->RecursionCount++ == 0) cs->OwningThread = CurrentThreadIdAsHandle();
}

// ---- helpers --------------------------------------------------------------------------------

constexpr std::chrono::microseconds kMutexSlice{20000};      // how often a blocked mutex wait looks for cancellation
constexpr std::chrono::microseconds kLongestSleep{10000000};  // one futex sleep; infinite waits loop
constexpr std::chrono::microseconds kLongestPoll{8000};       // WaitForMultipleObjects' slowest poll

void InitRobustMutex(pthread_mutex_t* m, bool shared) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  if (shared) pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutex_init(m, &attr);
  pthread_mutexattr_destroy(&attr);
}

// Holds a robust internal lock; a lock left by a dead process is taken over as it stands.
class RobustGuard {
 public:
  explicit RobustGuard(pthread_mutex_t* m) : m_lock(m) { lock(); }
  ~RobustGuard() {
    if (m_held) unlock();
  }
  RobustGuard(const RobustGuard&) = delete;
  RobustGuard& operator=(const RobustGuard&) = delete;
  void lock() {
    if (pthread_mutex_lock(m_lock) == EOWNERDEAD) pthread_mutex_consistent(m_lock);
    m_held = true;
  }
  void unlock() {
    m_held = false;
    pthread_mutex_unlock(m_lock);
  }

 private:
  pthread_mutex_t* m_lock;
  bool m_held = false;
};

timespec RealtimeAfter(std::chrono::microseconds wall) {
  timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  int64_t ns = now.tv_nsec + static_cast<int64_t>(wall.count()) * 1000;
  now.tv_sec += static_cast<time_t>(ns / 1000000000);
  now.tv_nsec = static_cast<long>(ns % 1000000000);
  return now;
}

uint32_t* FutexWord(std::atomic<uint32_t>* word) { return reinterpret_cast<uint32_t*>(word); }

void FutexWait(std::atomic<uint32_t>* word, uint32_t expected, std::chrono::microseconds timeout) {
  timespec relative {static_cast<time_t>(timeout.count() / 1000000), static_cast<long>(timeout.count() % 1000000) * 1000};
  syscall(SYS_futex, FutexWord(word), FUTEX_WAIT, expected, &relative, nullptr, 0);
}

void FutexWakeAll(std::atomic<uint32_t>* word) {
  syscall(SYS_futex, FutexWord(word), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

bool IsPseudoHandle(HANDLE h) { return h == GetCurrentProcess() || h == GetCurrentThread(); }

// ---- object state shared by the handles of one object ---------------------------------------

struct MutexBody {
  pthread_mutex_t lock;
  uint32_t abandoned;  // guarded by lock: the last owner thread ended without releasing it
};

struct EventBody {
  pthread_mutex_t lock;             // guards the fields below
  std::atomic<uint32_t> wakeSeq;    // futex word, bumped by every change that may release waiters
  uint32_t manualReset;
  uint32_t signalled;
  uint32_t waiters;                 // threads inside a blocking wait
  uint32_t eligible;                // of those, the ones that were waiting at the last pulse
  uint32_t tickets;                 // auto-reset pulses that no eligible waiter has taken yet
  uint64_t pulses;                  // pulses so far; a waiter that saw fewer was waiting at one
};
static_assert(sizeof(MutexBody) <= SharedRegion::kBodySize);
static_assert(sizeof(EventBody) <= SharedRegion::kBodySize);

// The state behind one mutex or event, shared by all of its handles in this process. Named
// cores are listed in the registry by region path and destroyed under its lock, so a lookup
// never meets a dying core and a name is never mapped twice in one process.
class Core {
 public:
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;
  void AddRef() { m_refs.fetch_add(1, std::memory_order_relaxed); }
  void Release();
  SharedKind Kind() const { return m_kind; }
  void DetachFromRegion() {
    if (m_region) m_region->Detach();
  }

 protected:
  Core(SharedKind kind, std::string name, std::unique_ptr<SharedRegion> region)
      : m_kind(kind), m_name(std::move(name)), m_region(std::move(region)) {}
  virtual ~Core() = default;
  void* SharedBody() const { return m_region ? m_region->Body() : nullptr; }

 private:
  std::atomic<LONG> m_refs{1};
  SharedKind m_kind;
  std::string m_name;
  std::unique_ptr<SharedRegion> m_region;
};

std::mutex& RegistryLock() {
  static auto* lock = new std::mutex;  // outlives static destructors
  return *lock;
}
std::unordered_map<std::string, Core*>& Registry() {
  static auto* registry = new std::unordered_map<std::string, Core*>;
  return *registry;
}

// A process that ends lets go of its named objects, as Windows closes its handles; threads still
// running during exit keep working on the mappings, which stay.
struct DetachAtExit {
  ~DetachAtExit() {
    std::lock_guard<std::mutex> guard(RegistryLock());
    for (auto& [path, core] : Registry()) core->DetachFromRegion();
  }
} g_detachAtExit;

void Core::Release() {
  if (m_name.empty()) {
    if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    return;
  }
  std::lock_guard<std::mutex> guard(RegistryLock());
  if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    Registry().erase(m_name);
    delete this;  // unmaps, and unlinks when this was the last process
  }
}

class MutexCore;
void AbandonAll(std::unordered_map<MutexCore*, DWORD> owned);

// Recursion depth of each mutex the calling thread owns. A thread that ends while owning some
// abandons them on its way out; the kernel's robust list covers a process that dies.
struct OwnedSet {
  std::unordered_map<MutexCore*, DWORD> depth;
  ~OwnedSet() { AbandonAll(std::move(depth)); }
};

std::unordered_map<MutexCore*, DWORD>& OwnedMutexes() {
  thread_local OwnedSet owned;
  return owned.depth;
}

class MutexCore : public Core {
 public:
  MutexCore() : Core(SharedKind::kMutex, {}, nullptr), m_local(new MutexBody()), m_body(m_local.get()) {
    InitRobustMutex(&m_body->lock, false);
  }
  MutexCore(std::string name, std::unique_ptr<SharedRegion> region)
      : Core(SharedKind::kMutex, std::move(name), std::move(region)), m_body(static_cast<MutexBody*>(SharedBody())) {}
  ~MutexCore() override {
    if (m_local) pthread_mutex_destroy(&m_local->lock);
  }

  static void InitShared(void* body, void* context) {
    auto* mutex = new (body) MutexBody();
    InitRobustMutex(&mutex->lock, true);
    // A new object made with an initial owner is taken before any other process can see it.
    if (*static_cast<bool*>(context)) *static_cast<bool*>(context) = pthread_mutex_trylock(&mutex->lock) == 0;
  }

  DWORD Wait(DWORD ms) {
    if (CurrentThreadCancelled()) return CancelledWaitResult();
    auto& owned = OwnedMutexes();
    if (auto it = owned.find(this); it != owned.end()) {
      ++it->second;
      return WAIT_OBJECT_0;
    }
    Deadline deadline(ms);
    int rc = pthread_mutex_trylock(&m_body->lock);
    while (rc == EBUSY && ms != 0) {
      if (CurrentThreadCancelled()) return CancelledWaitResult();
      if (deadline.Passed()) break;
      timespec until = RealtimeAfter(deadline.Remaining(kMutexSlice));
      rc = pthread_mutex_timedlock(&m_body->lock, &until);
      if (rc == ETIMEDOUT) rc = EBUSY;
    }
    return FinishLock(rc);
  }

  BOOL Unlock() {
    auto& owned = OwnedMutexes();
    auto it = owned.find(this);
    if (it == owned.end()) {
      SetLastError(ERROR_NOT_OWNER);
      return FALSE;
    }
    if (--it->second > 0) return TRUE;
    owned.erase(it);
    UnlockAndUnpin();
    return TRUE;
  }

  // The owner thread is ending: the next owner is told by WAIT_ABANDONED.
  void Abandon() {
    m_body->abandoned = 1;
    UnlockAndUnpin();
  }

  // A new unnamed mutex made with an initial owner.
  void TakeNew() {
    if (pthread_mutex_trylock(&m_body->lock) == 0) TookOwnership();
  }

  // The calling thread has just locked the pthread mutex.
  void TookOwnership() {
    OwnedMutexes()[this] = 1;
    // While a thread of this process owns the mutex, the core (and its mapping, which the
    // thread's robust list points into) must stay. An owner that dies leaves the pin to the
    // next owner in this process.
    if (!m_pinned.exchange(true)) AddRef();
  }

 private:
  void UnlockAndUnpin() {
    bool pinned = m_pinned.exchange(false);
    pthread_mutex_unlock(&m_body->lock);
    if (pinned) Release();
  }

  DWORD FinishLock(int rc) {
    switch (rc) {
      case 0:
      case EOWNERDEAD: {
        if (rc == EOWNERDEAD) pthread_mutex_consistent(&m_body->lock);
        bool abandoned = rc == EOWNERDEAD || m_body->abandoned;
        m_body->abandoned = 0;
        TookOwnership();
        return abandoned ? WAIT_ABANDONED : WAIT_OBJECT_0;
      }
      case EBUSY:
        return WAIT_TIMEOUT;
      default:
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
  }

  std::unique_ptr<MutexBody> m_local;  // unnamed mutexes only
  MutexBody* m_body;
  std::atomic<bool> m_pinned{false};
};

void AbandonAll(std::unordered_map<MutexCore*, DWORD> owned) {
  for (auto& [core, depth] : owned) core->Abandon();
}

struct EventInit {
  bool manualReset;
  bool initialState;
};

class EventCore : public Core {
 public:
  EventCore(bool manualReset, bool initialState)
      : Core(SharedKind::kEvent, {}, nullptr), m_local(new EventBody()), m_body(m_local.get()) {
    EventInit init{manualReset, initialState};
    Init(m_body, &init, false);
  }
  EventCore(std::string name, std::unique_ptr<SharedRegion> region)
      : Core(SharedKind::kEvent, std::move(name), std::move(region)), m_body(static_cast<EventBody*>(SharedBody())) {}
  ~EventCore() override {
    if (m_local) pthread_mutex_destroy(&m_local->lock);
  }

  static void InitShared(void* body, void* context) { Init(new (body) EventBody(), context, true); }

  DWORD Wait(DWORD ms) {
    if (CurrentThreadCancelled()) return CancelledWaitResult();
    if (TryWait() == WAIT_OBJECT_0) return WAIT_OBJECT_0;
    if (ms == 0) return WAIT_TIMEOUT;
    Deadline deadline(ms);
    WaitInterrupt interrupt(&EventCore::Interrupt, m_body);
    RobustGuard guard(&m_body->lock);
    uint64_t entry = m_body->pulses;
    ++m_body->waiters;
    DWORD result = WAIT_TIMEOUT;
    for (;;) {
      if (TakeSignalLocked() || TakePulseLocked(entry)) {
        result = WAIT_OBJECT_0;
        break;
      }
      // Read the word before looking for cancellation: an interrupt after the look changes it.
      uint32_t seq = m_body->wakeSeq.load();
      if (CurrentThreadCancelled()) {
        result = CancelledWaitResult();
        break;
      }
      if (deadline.Passed()) break;
      guard.unlock();
      FutexWait(&m_body->wakeSeq, seq, deadline.Remaining(kLongestSleep));
      guard.lock();
    }
    LeaveLocked(entry);
    return result;
  }

  DWORD TryWait() {
    RobustGuard guard(&m_body->lock);
    return TakeSignalLocked() ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
  }

  bool LooksSignalled() {
    RobustGuard guard(&m_body->lock);
    return m_body->signalled != 0;
  }

  bool ManualReset() const { return m_body->manualReset != 0; }  // fixed at creation

  void Set() {
    {
      RobustGuard guard(&m_body->lock);
      m_body->signalled = 1;
      m_body->wakeSeq.fetch_add(1);
    }
    FutexWakeAll(&m_body->wakeSeq);
  }

  void Reset() {
    RobustGuard guard(&m_body->lock);
    m_body->signalled = 0;
  }

  void Pulse() {
    {
      RobustGuard guard(&m_body->lock);
      ++m_body->pulses;
      m_body->eligible = m_body->waiters;
      m_body->tickets = m_body->manualReset ? 0 : std::min(m_body->tickets + 1, m_body->eligible);
      m_body->signalled = 0;
      m_body->wakeSeq.fetch_add(1);
    }
    FutexWakeAll(&m_body->wakeSeq);
  }

  LONG Waiters() {
    RobustGuard guard(&m_body->lock);
    return static_cast<LONG>(m_body->waiters);
  }

 private:
  static void Init(EventBody* body, void* context, bool shared) {
    auto* init = static_cast<EventInit*>(context);
    InitRobustMutex(&body->lock, shared);
    body->manualReset = init->manualReset ? 1 : 0;
    body->signalled = init->initialState ? 1 : 0;
  }

  // Runs on the thread that cancels a waiter: wakes every sleeper, each one looks again.
  static void Interrupt(void* context) {
    auto* body = static_cast<EventBody*>(context);
    body->wakeSeq.fetch_add(1);
    FutexWakeAll(&body->wakeSeq);
  }

  bool TakeSignalLocked() {
    if (!m_body->signalled) return false;
    if (!m_body->manualReset) m_body->signalled = 0;
    return true;
  }

  bool TakePulseLocked(uint64_t entry) {
    if (entry >= m_body->pulses) return false;  // no pulse since this waiter began
    if (m_body->manualReset) return true;
    if (m_body->tickets == 0) return false;
    --m_body->tickets;
    return true;
  }

  void LeaveLocked(uint64_t entry) {
    --m_body->waiters;
    if (entry < m_body->pulses) {
      --m_body->eligible;
      m_body->tickets = std::min(m_body->tickets, m_body->eligible);
    }
  }

  std::unique_ptr<EventBody> m_local;  // unnamed events only
  EventBody* m_body;
};

// ---- handles ----------------------------------------------------------------------------------

class MutexObject : public Waitable {
 public:
  explicit MutexObject(MutexCore* core) : m_core(core) {}
  DWORD Wait(DWORD ms) override { return m_core->Wait(ms); }
  DWORD TryWait() override { return m_core->Wait(0); }
  void UndoWait() override { m_core->Unlock(); }
  bool LooksSignalled() override { return true; }  // only a try can tell; it rolls back if need be
  BOOL Unlock() { return m_core->Unlock(); }

 protected:
  ~MutexObject() override { m_core->Release(); }

 private:
  MutexCore* m_core;
};

class EventObject : public Waitable {
 public:
  explicit EventObject(EventCore* core) : m_core(core) {}
  DWORD Wait(DWORD ms) override { return m_core->Wait(ms); }
  DWORD TryWait() override { return m_core->TryWait(); }
  void UndoWait() override {
    if (!m_core->ManualReset()) m_core->Set();
  }
  bool LooksSignalled() override { return m_core->LooksSignalled(); }
  EventCore* GetCore() const { return m_core; }

 protected:
  ~EventObject() override { m_core->Release(); }

 private:
  EventCore* m_core;
};

// Finds the named core in this process, or opens (create: or makes) it in shared memory.
template <class CoreT>
CoreT* OpenNamedCore(const std::string& name, SharedKind kind, bool create, void* initContext, bool* existed,
                     DWORD* error) {
  // Keyed by path: under another state directory the same name is another object.
  std::string path = SharedRegion::PathFor(name);
  std::lock_guard<std::mutex> guard(RegistryLock());
  auto& registry = Registry();
  if (auto it = registry.find(path); it != registry.end()) {
    if (it->second->Kind() != kind) {
      *error = ERROR_INVALID_HANDLE;  // the name belongs to another kind of object
      return nullptr;
    }
    it->second->AddRef();
    *existed = true;
    return static_cast<CoreT*>(it->second);
  }
  auto region = SharedRegion::Open(path, kind, create, &CoreT::InitShared, initContext, existed, error);
  if (!region) return nullptr;
  auto* core = new CoreT(path, std::move(region));
  registry[path] = core;
  return core;
}

// Checks a caller's object name. Returns false (last error set) when it is unusable.
bool ParseName(LPCSTR lpName, std::string* name) {
  *name = KernelObjectName(lpName);
  if (lpName && std::strlen(lpName) > MAX_PATH) {
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return false;
  }
  if (lpName && *lpName && name->empty()) {
    SetLastError(ERROR_INVALID_NAME);  // a bare "Global\" prefix
    return false;
  }
  return true;
}

HANDLE Publish(Waitable* object, bool existed) {
  HANDLE h = RegisterHandle(object);
  SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
  return h;
}

// The current thread or process never ends while it waits for itself.
DWORD WaitForSelf(DWORD ms) {
  if (ms == INFINITE) {
    SetLastError(ERROR_INVALID_HANDLE);  // would never return
    return WAIT_FAILED;
  }
  if (!PauseCurrentThread(Deadline(ms))) return CancelledWaitResult();
  return WAIT_TIMEOUT;
}

// References to the handles of one multiple-object wait, released on scope exit.
class WaitSet {
 public:
  ~WaitSet() {
    for (Waitable* w : m_objects) w->Release();
  }
  bool Add(HANDLE h) {
    Waitable* w = IsPseudoHandle(h) ? nullptr : ReferenceHandleAs<Waitable>(h);
    if (!w) {
      SetLastError(ERROR_INVALID_HANDLE);
      return false;
    }
    m_objects.push_back(w);
    return true;
  }
  DWORD TryAny() {
    for (size_t i = 0; i < m_objects.size(); ++i) {
      DWORD r = m_objects[i]->TryWait();
      if (r == WAIT_OBJECT_0 || r == WAIT_ABANDONED) return r + static_cast<DWORD>(i);
      if (r == WAIT_FAILED) return r;
    }
    return WAIT_TIMEOUT;
  }
  // Takes every object or none.
  DWORD TryAll() {
    for (Waitable* w : m_objects)
      if (!w->LooksSignalled()) return WAIT_TIMEOUT;
    DWORD result = WAIT_OBJECT_0, r = WAIT_OBJECT_0;
    size_t taken = 0;
    for (; taken < m_objects.size(); ++taken) {
      r = m_objects[taken]->TryWait();
      if (r == WAIT_ABANDONED && result == WAIT_OBJECT_0) result = WAIT_ABANDONED_0 + static_cast<DWORD>(taken);
      else if (r != WAIT_OBJECT_0) break;
    }
    if (taken == m_objects.size()) return result;
    while (taken > 0) m_objects[--taken]->UndoWait();
    return r == WAIT_FAILED ? WAIT_FAILED : WAIT_TIMEOUT;
  }

 private:
  std::vector<Waitable*> m_objects;
};

bool HasDuplicates(const HANDLE* handles, DWORD count) {
  std::vector<HANDLE> sorted(handles, handles + count);
  std::sort(sorted.begin(), sorted.end());
  return std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
}

}  // namespace

void AbandonMutexesOfCurrentThread() {
  std::unordered_map<MutexCore*, DWORD> owned;
  owned.swap(OwnedMutexes());
  AbandonAll(std::move(owned));
}

void SignalEventObject(KernelObject* event) {
  if (auto* e = dynamic_cast<EventObject*>(event)) e->GetCore()->Set();
}

LONG EventWaiterCount(HANDLE h) {
  HandleRef<EventObject> event(h);
  return event ? event->GetCore()->Waiters() : -1;
}

}  // namespace adp

using adp::EventObject;
using adp::HandleRef;
using adp::MutexObject;

extern "C" {

// ---- critical sections ----------------------------------------------------------------------

void InitializeCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
  InitializeCriticalSectionAndSpinCount(lpCriticalSection, 0);
}

BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount) {
  if (!lpCriticalSection) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  std::memset(lpCriticalSection, 0, sizeof(*lpCriticalSection));
  lpCriticalSection->LockCount = -1;
  lpCriticalSection->SpinCount = dwSpinCount;
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(adp::SectionLock(lpCriticalSection), &attr);
  pthread_mutexattr_destroy(&attr);
  return TRUE;
}

BOOL InitializeCriticalSectionEx(LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount, DWORD) {
  return InitializeCriticalSectionAndSpinCount(lpCriticalSection, dwSpinCount);
}

DWORD SetCriticalSectionSpinCount(LPCRITICAL_SECTION lpCriticalSection, DWORD dwSpinCount) {
  if (!lpCriticalSection) return 0;
  auto previous = static_cast<DWORD>(lpCriticalSection->SpinCount);
  lpCriticalSection->SpinCount = dwSpinCount;  // no spinning here; kept for the caller
  return previous;
}

void EnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
  if (!lpCriticalSection) return;
  pthread_mutex_lock(adp::SectionLock(lpCriticalSection));
  adp::NoteEntered(lpCriticalSection);
}

BOOL TryEnterCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
  if (!lpCriticalSection || pthread_mutex_trylock(adp::SectionLock(lpCriticalSection)) != 0) return FALSE;
  adp::NoteEntered(lpCriticalSection);
  return TRUE;
}

void LeaveCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
  // Leaving a section the thread does not hold is a caller's bug; it is ignored.
  if (!lpCriticalSection || lpCriticalSection->OwningThread != adp::CurrentThreadIdAsHandle()) return;
  if (--lpCriticalSection->RecursionCount == 0) lpCriticalSection->OwningThread = nullptr;
  pthread_mutex_unlock(adp::SectionLock(lpCriticalSection));
}

void DeleteCriticalSection(LPCRITICAL_SECTION lpCriticalSection) {
  if (!lpCriticalSection) return;
  pthread_mutex_destroy(adp::SectionLock(lpCriticalSection));
  std::memset(lpCriticalSection, 0, sizeof(*lpCriticalSection));
}

// ---- mutexes --------------------------------------------------------------------------------

HANDLE CreateMutexA(LPSECURITY_ATTRIBUTES, BOOL bInitialOwner, LPCSTR lpName) {
  std::string name;
  if (!adp::ParseName(lpName, &name)) return nullptr;
  if (name.empty()) {
    auto* core = new adp::MutexCore();
    if (bInitialOwner) core->TakeNew();
    return adp::Publish(new MutexObject(core), false);
  }
  bool existed = false, owner = bInitialOwner != FALSE;
  DWORD error = 0;
  auto* core = adp::OpenNamedCore<adp::MutexCore>(name, adp::SharedKind::kMutex, true, &owner, &existed, &error);
  if (!core) {
    SetLastError(error);
    return nullptr;
  }
  if (!existed && owner) core->TookOwnership();  // locked by InitShared
  return adp::Publish(new MutexObject(core), existed);
}

HANDLE OpenMutexA(DWORD, BOOL, LPCSTR lpName) {
  std::string name;
  if (!adp::ParseName(lpName, &name)) return nullptr;
  if (name.empty()) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  bool existed = false, owner = false;
  DWORD error = 0;
  auto* core = adp::OpenNamedCore<adp::MutexCore>(name, adp::SharedKind::kMutex, false, &owner, &existed, &error);
  if (!core) {
    SetLastError(error);
    return nullptr;
  }
  return adp::RegisterHandle(new MutexObject(core));
}

BOOL ReleaseMutex(HANDLE hMutex) {
  HandleRef<MutexObject> mutex(hMutex);
  return mutex ? mutex->Unlock() : FALSE;
}

// ---- events ---------------------------------------------------------------------------------

HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL bManualReset, BOOL bInitialState, LPCSTR lpName) {
  std::string name;
  if (!adp::ParseName(lpName, &name)) return nullptr;
  if (name.empty()) return adp::Publish(new EventObject(new adp::EventCore(bManualReset, bInitialState)), false);
  adp::EventInit init{bManualReset != FALSE, bInitialState != FALSE};
  bool existed = false;
  DWORD error = 0;
  auto* core = adp::OpenNamedCore<adp::EventCore>(name, adp::SharedKind::kEvent, true, &init, &existed, &error);
  if (!core) {
    SetLastError(error);
    return nullptr;
  }
  return adp::Publish(new EventObject(core), existed);
}

HANDLE OpenEventA(DWORD, BOOL, LPCSTR lpName) {
  std::string name;
  if (!adp::ParseName(lpName, &name)) return nullptr;
  if (name.empty()) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  adp::EventInit init{};
  bool existed = false;
  DWORD error = 0;
  auto* core = adp::OpenNamedCore<adp::EventCore>(name, adp::SharedKind::kEvent, false, &init, &existed, &error);
  if (!core) {
    SetLastError(error);
    return nullptr;
  }
  return adp::RegisterHandle(new EventObject(core));
}

BOOL SetEvent(HANDLE hEvent) {
  HandleRef<EventObject> event(hEvent);
  if (!event) return FALSE;
  event->GetCore()->Set();
  return TRUE;
}

BOOL ResetEvent(HANDLE hEvent) {
  HandleRef<EventObject> event(hEvent);
  if (!event) return FALSE;
  event->GetCore()->Reset();
  return TRUE;
}

BOOL PulseEvent(HANDLE hEvent) {
  HandleRef<EventObject> event(hEvent);
  if (!event) return FALSE;
  event->GetCore()->Pulse();
  return TRUE;
}

// ---- waits ----------------------------------------------------------------------------------

DWORD WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds) {
  if (adp::IsPseudoHandle(hHandle)) return adp::WaitForSelf(dwMilliseconds);
  adp::KernelObject* object = adp::ReferenceHandle(hHandle);
  if (!object) return WAIT_FAILED;
  DWORD result = object->Wait(dwMilliseconds);
  object->Release();
  return result;
}

DWORD WaitForSingleObjectEx(HANDLE hHandle, DWORD dwMilliseconds, BOOL) {
  return WaitForSingleObject(hHandle, dwMilliseconds);
}

DWORD WaitForMultipleObjects(DWORD nCount, const HANDLE* lpHandles, BOOL bWaitAll, DWORD dwMilliseconds) {
  if (!lpHandles || nCount == 0 || nCount > MAXIMUM_WAIT_OBJECTS || (bWaitAll && adp::HasDuplicates(lpHandles, nCount))) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return WAIT_FAILED;
  }
  if (nCount == 1 && !adp::IsPseudoHandle(lpHandles[0])) return WaitForSingleObject(lpHandles[0], dwMilliseconds);
  adp::WaitSet set;
  for (DWORD i = 0; i < nCount; ++i)
    if (!set.Add(lpHandles[i])) return WAIT_FAILED;
  if (adp::CurrentThreadCancelled()) return adp::CancelledWaitResult();
  adp::Deadline deadline(dwMilliseconds);
  std::chrono::microseconds poll(500);
  for (;;) {
    DWORD result = bWaitAll ? set.TryAll() : set.TryAny();
    if (result != WAIT_TIMEOUT || dwMilliseconds == 0 || deadline.Passed()) return result;
    if (!adp::PauseCurrentThread(adp::Deadline(deadline.Remaining(poll)))) return adp::CancelledWaitResult();
    poll = std::min(poll * 2, adp::kLongestPoll);
  }
}

DWORD WaitForMultipleObjectsEx(DWORD nCount, const HANDLE* lpHandles, BOOL bWaitAll, DWORD dwMilliseconds, BOOL) {
  return WaitForMultipleObjects(nCount, lpHandles, bWaitAll, dwMilliseconds);
}

void Sleep(DWORD dwMilliseconds) {
  if (dwMilliseconds == 0) {
    sched_yield();
    return;
  }
  adp::PauseCurrentThread(adp::Deadline(dwMilliseconds));
}

DWORD SleepEx(DWORD dwMilliseconds, BOOL) {
  Sleep(dwMilliseconds);
  return 0;
}

}  // extern "C"
