#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "adplatform.h"
#include "test_home.h"
#include "windows.h"

namespace adp {
LONG EventWaiterCount(HANDLE h);  // the stand-in's hook: threads blocked on an event
}

namespace {

constexpr double kScale = 1000;              // 1 s of system time per wall millisecond
constexpr DWORD kPatience = 60 * 60 * 1000;  // a wait that must succeed: 3.6 s of wall time

// Polls until cond holds; false after ten seconds of wall time.
bool Eventually(const std::function<bool()>& cond) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Result of one call on another thread.
template <class F> auto OnOtherThread(F f) {
  decltype(f()) result{};
  std::thread([&] { result = f(); }).join();
  return result;
}

DWORD LastErrorOf(BOOL ok) { return ok ? 0 : GetLastError(); }

struct Counter {
  CRITICAL_SECTION cs;
  int value = 0;
};

TEST(CriticalSection, IsRecursiveAndExcludesOtherThreads) {
  Counter counter;
  InitializeCriticalSection(&counter.cs);
  EnterCriticalSection(&counter.cs);
  EnterCriticalSection(&counter.cs);
  EXPECT_FALSE(OnOtherThread([&] { return TryEnterCriticalSection(&counter.cs); }));
  OnOtherThread([&] { LeaveCriticalSection(&counter.cs); return 0; });  // not the owner: ignored
  EXPECT_FALSE(OnOtherThread([&] { return TryEnterCriticalSection(&counter.cs); }));
  LeaveCriticalSection(&counter.cs);
  EXPECT_FALSE(OnOtherThread([&] { return TryEnterCriticalSection(&counter.cs); }));  // still held once
  LeaveCriticalSection(&counter.cs);
  EXPECT_TRUE(OnOtherThread([&] {
    BOOL entered = TryEnterCriticalSection(&counter.cs);
    if (entered) LeaveCriticalSection(&counter.cs);
    return entered;
  }));

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        EnterCriticalSection(&counter.cs);
        ++counter.value;
        LeaveCriticalSection(&counter.cs);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter.value, 80000);
  DeleteCriticalSection(&counter.cs);

  EXPECT_TRUE(InitializeCriticalSectionAndSpinCount(&counter.cs, 4000));
  EXPECT_EQ(SetCriticalSectionSpinCount(&counter.cs, 10), 4000u);
  EXPECT_TRUE(TryEnterCriticalSection(&counter.cs));
  LeaveCriticalSection(&counter.cs);
  DeleteCriticalSection(&counter.cs);
  EXPECT_FALSE(InitializeCriticalSectionAndSpinCount(nullptr, 0));
}

TEST(Interlocked, ReturnPublishedValuesAndAreAtomic) {
  volatile LONG value = 5;
  EXPECT_EQ(InterlockedIncrement(&value), 6);
  EXPECT_EQ(InterlockedDecrement(&value), 5);
  EXPECT_EQ(InterlockedExchangeAdd(&value, 10), 5);
  EXPECT_EQ(InterlockedExchange(&value, -3), 15);
  EXPECT_EQ(InterlockedCompareExchange(&value, 7, 99), -3);  // no match: unchanged
  EXPECT_EQ(value, -3);
  EXPECT_EQ(InterlockedCompareExchange(&value, 7, -3), -3);
  EXPECT_EQ(value, 7);

  int a = 0, b = 0;
  PVOID volatile slot = &a;
  EXPECT_EQ(InterlockedExchangePointer(&slot, &b), &a);
  EXPECT_EQ(InterlockedCompareExchangePointer(&slot, &a, &a), &b);  // no match
  EXPECT_EQ(slot, &b);
  EXPECT_EQ(InterlockedCompareExchangePointer(&slot, nullptr, &b), &b);
  EXPECT_EQ(slot, nullptr);

  volatile LONG shared = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 50000; ++i) {
        InterlockedIncrement(&shared);
        InterlockedExchangeAdd(&shared, 2);
        InterlockedDecrement(&shared);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(shared, 4 * 50000 * 2);
}

TEST(Mutex, IsRecursiveAndOnlyItsOwnerReleasesIt) {
  adtest::TempHome home(kScale);
  SetLastError(1234);
  HANDLE mutex = CreateMutexA(nullptr, TRUE, nullptr);
  ASSERT_NE(mutex, nullptr);
  EXPECT_EQ(GetLastError(), 0u);
  EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);  // owned twice now

  EXPECT_EQ(OnOtherThread([&] { return LastErrorOf(ReleaseMutex(mutex)); }), static_cast<DWORD>(ERROR_NOT_OWNER));
  EXPECT_EQ(OnOtherThread([&] { return WaitForSingleObject(mutex, 0); }), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_EQ(OnOtherThread([&] { return WaitForSingleObject(mutex, 60000); }), static_cast<DWORD>(WAIT_TIMEOUT));

  EXPECT_TRUE(ReleaseMutex(mutex));
  EXPECT_EQ(OnOtherThread([&] { return WaitForSingleObject(mutex, 0); }), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_TRUE(ReleaseMutex(mutex));
  EXPECT_EQ(LastErrorOf(ReleaseMutex(mutex)), static_cast<DWORD>(ERROR_NOT_OWNER));

  // A waiter blocked on the mutex gets it when the owner lets go.
  ASSERT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
  std::atomic<DWORD> waited{WAIT_FAILED};
  std::thread waiter([&] {
    waited = WaitForSingleObject(mutex, kPatience);
    if (waited == WAIT_OBJECT_0) ReleaseMutex(mutex);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_TRUE(ReleaseMutex(mutex));
  waiter.join();
  EXPECT_EQ(waited.load(), static_cast<DWORD>(WAIT_OBJECT_0));
  EXPECT_TRUE(CloseHandle(mutex));
}

DWORD WINAPI TakeAndExit(LPVOID parameter) {
  if (WaitForSingleObject(static_cast<HANDLE>(parameter), 0) == WAIT_OBJECT_0) ExitThread(3);
  return 1;
}

TEST(Mutex, OwnerThreadThatEndsAbandonsIt) {
  adtest::TempHome home(kScale);
  for (const char* name : {static_cast<const char*>(nullptr), "ThreadAbandoned"}) {
    SCOPED_TRACE(name ? name : "unnamed");
    HANDLE mutex = CreateMutexA(nullptr, FALSE, name);
    ASSERT_NE(mutex, nullptr);
    std::thread([&] { EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0); }).join();

    EXPECT_EQ(WaitForSingleObject(mutex, kPatience), WAIT_ABANDONED);
    EXPECT_EQ(OnOtherThread([&] { return WaitForSingleObject(mutex, 0); }), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_TRUE(ReleaseMutex(mutex));
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);  // consistent again
    EXPECT_TRUE(ReleaseMutex(mutex));

    // The same through CreateThread and ExitThread.
    HANDLE thread = CreateThread(nullptr, 0, TakeAndExit, mutex, 0, nullptr);
    ASSERT_NE(thread, nullptr);
    ASSERT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, 3u);
    EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_ABANDONED);
    EXPECT_TRUE(ReleaseMutex(mutex));
    CloseHandle(thread);
    CloseHandle(mutex);
  }
}

TEST(Mutex, NamedMutexesShareOneNamespacePerStateDirectory) {
  adtest::TempHome home(kScale);
  SetLastError(77);
  HANDLE a = CreateMutexA(nullptr, FALSE, "Global\\Shared");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(GetLastError(), 0u);
  HANDLE b = CreateMutexA(nullptr, TRUE, "Local\\Shared");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_EQ(LastErrorOf(ReleaseMutex(b)), static_cast<DWORD>(ERROR_NOT_OWNER));  // initial owner ignored
  ASSERT_EQ(WaitForSingleObject(a, 0), WAIT_OBJECT_0);
  EXPECT_EQ(OnOtherThread([&] { return WaitForSingleObject(b, 0); }), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_TRUE(ReleaseMutex(b));  // one object: b's handle releases what a's took
  HANDLE c = OpenMutexA(SYNCHRONIZE, FALSE, "Shared");
  EXPECT_NE(c, nullptr);

  EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, "Missing"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(CreateEventA(nullptr, TRUE, FALSE, "Shared"), nullptr);  // a mutex has that name
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(OpenEventA(SYNCHRONIZE, FALSE, "Shared"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, nullptr), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

  // Any text makes a name; over MAX_PATH is refused.
  for (std::string name : {std::string("C:\\logs\\Nimbrel log: a/b"), std::string(250, 'x'), std::string("_5F")}) {
    HANDLE odd = CreateMutexA(nullptr, FALSE, name.c_str());
    ASSERT_NE(odd, nullptr) << name;
    EXPECT_EQ(GetLastError(), 0u) << name;  // escaping keeps "_" and "_5F" apart
    HANDLE again = OpenMutexA(SYNCHRONIZE, FALSE, name.c_str());
    EXPECT_NE(again, nullptr) << name;
    CloseHandle(again);
    CloseHandle(odd);
  }
  HANDLE underscore = CreateMutexA(nullptr, FALSE, "_");
  EXPECT_EQ(GetLastError(), 0u);
  CloseHandle(underscore);
  EXPECT_EQ(CreateMutexA(nullptr, FALSE, std::string(300, 'y').c_str()), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILENAME_EXCED_RANGE));
  EXPECT_EQ(CreateMutexA(nullptr, FALSE, "Global\\"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_NAME));

  {
    adtest::TempHome other(kScale);  // another state directory: another namespace
    EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, "Shared"), nullptr);
    HANDLE there = CreateMutexA(nullptr, FALSE, "Shared");
    EXPECT_EQ(GetLastError(), 0u);
    CloseHandle(there);
  }

  CloseHandle(a);
  CloseHandle(b);
  CloseHandle(c);
  EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, "Shared"), nullptr);  // gone with its last handle
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST(Mutex, NamedMutexAcrossProcessesIncludingDeadOwners) {
  adtest::TempHome home(kScale);
  HANDLE mutex = CreateMutexA(nullptr, FALSE, "Global\\TQProvider");
  HANDLE ready = CreateEventA(nullptr, TRUE, FALSE, "ready");
  ASSERT_NE(mutex, nullptr);
  ASSERT_NE(ready, nullptr);
  EXPECT_EQ(adtest::RunChild("synch_child", {"exists", "TQProvider"}), 0);

  adtest::ChildProcess holder("synch_child", {"hold-mutex", "TQProvider", "ready"});
  ASSERT_EQ(WaitForSingleObject(ready, kPatience), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForSingleObject(mutex, 60000), WAIT_TIMEOUT);  // the logon's 60-second wait
  holder.Kill();
  EXPECT_EQ(holder.Wait(), 128 + SIGKILL);
  EXPECT_EQ(WaitForSingleObject(mutex, kPatience), WAIT_ABANDONED);
  EXPECT_EQ(adtest::RunChild("synch_child", {"try-mutex", "TQProvider"}), 1);  // this process owns it now
  EXPECT_TRUE(ReleaseMutex(mutex));
  EXPECT_EQ(adtest::RunChild("synch_child", {"try-mutex", "TQProvider"}), 0);

  // A process that ends normally while holding it abandons it too.
  EXPECT_EQ(adtest::RunChild("synch_child", {"exit-holding", "TQProvider"}), 0);
  EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_ABANDONED);
  EXPECT_TRUE(ReleaseMutex(mutex));

  CloseHandle(mutex);
  CloseHandle(ready);
  EXPECT_EQ(adtest::RunChild("synch_child", {"exists", "TQProvider"}), 1);  // gone with the last handle

  // A process that ends without closing its handles leaves nothing behind either.
  std::string name = "Leftover" + std::to_string(getpid());
  EXPECT_EQ(adtest::RunChild("synch_child", {"exit-holding", name}), 0);
  for (const auto& entry : std::filesystem::directory_iterator("/dev/shm"))
    EXPECT_EQ(entry.path().filename().string().find(name), std::string::npos) << entry.path();
  EXPECT_EQ(OpenMutexA(SYNCHRONIZE, FALSE, name.c_str()), nullptr);
}

TEST(Event, ManualResetReleasesEveryWaiterAndStaysSignalled) {
  adtest::TempHome home(kScale);
  HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForSingleObject(event, 10000), WAIT_TIMEOUT);
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i)
    waiters.emplace_back([&] {
      if (WaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0) ++released;
    });
  ASSERT_TRUE(Eventually([&] { return adp::EventWaiterCount(event) == 3; }));
  EXPECT_TRUE(SetEvent(event));
  for (auto& t : waiters) t.join();
  EXPECT_EQ(released.load(), 3);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  EXPECT_TRUE(ResetEvent(event));
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
  CloseHandle(event);

  HANDLE initiallySet = CreateEventA(nullptr, TRUE, TRUE, nullptr);
  EXPECT_EQ(WaitForSingleObject(initiallySet, 0), WAIT_OBJECT_0);
  CloseHandle(initiallySet);
}

TEST(Event, AutoResetReleasesOneWaiterPerSet) {
  adtest::TempHome home(kScale);
  HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  ASSERT_NE(event, nullptr);
  EXPECT_TRUE(SetEvent(event));
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);  // taken by the first wait

  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 2; ++i)
    waiters.emplace_back([&] {
      if (WaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0) ++released;
    });
  ASSERT_TRUE(Eventually([&] { return adp::EventWaiterCount(event) == 2; }));
  EXPECT_TRUE(SetEvent(event));
  ASSERT_TRUE(Eventually([&] { return released == 1; }));
  EXPECT_EQ(adp::EventWaiterCount(event), 1);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
  EXPECT_TRUE(SetEvent(event));
  for (auto& t : waiters) t.join();
  EXPECT_EQ(released.load(), 2);
  CloseHandle(event);
}

TEST(Event, PulseReleasesOnlyThoseWaitingAndLeavesItReset) {
  adtest::TempHome home(kScale);
  for (BOOL manual : {TRUE, FALSE}) {
    SCOPED_TRACE(manual ? "manual reset" : "auto reset");
    HANDLE event = CreateEventA(nullptr, manual, FALSE, nullptr);
    ASSERT_NE(event, nullptr);
    EXPECT_TRUE(PulseEvent(event));  // nobody waits: nothing happens
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(event));
    EXPECT_TRUE(PulseEvent(event));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);  // a pulse leaves it non-signalled

    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
      waiters.emplace_back([&] {
        if (WaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0) ++released;
      });
    ASSERT_TRUE(Eventually([&] { return adp::EventWaiterCount(event) == 3; }));
    EXPECT_TRUE(PulseEvent(event));
    int expected = manual ? 3 : 1;
    ASSERT_TRUE(Eventually([&] { return released == expected; }));
    EXPECT_EQ(adp::EventWaiterCount(event), 3 - expected);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    if (!manual) {
      EXPECT_TRUE(PulseEvent(event));
      ASSERT_TRUE(Eventually([&] { return released == 2; }));
      EXPECT_TRUE(PulseEvent(event));
    }
    for (auto& t : waiters) t.join();
    EXPECT_EQ(released.load(), 3);
    CloseHandle(event);
  }
}

TEST(Event, NamedEventAcrossProcesses) {
  adtest::TempHome home(kScale);
  SetLastError(5);
  HANDLE event = CreateEventA(nullptr, FALSE, FALSE, "TqArchiveDepotSyncThreadEvent");
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(GetLastError(), 0u);
  HANDLE same = CreateEventA(nullptr, TRUE, TRUE, "TqArchiveDepotSyncThreadEvent");
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  EXPECT_EQ(WaitForSingleObject(same, 0), WAIT_TIMEOUT);  // the existing auto-reset, unsignalled one
  EXPECT_EQ(OpenEventA(SYNCHRONIZE, FALSE, "NoSuchEvent"), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));

  EXPECT_EQ(adtest::RunChild("synch_child", {"set-event", "TqArchiveDepotSyncThreadEvent"}), 0);
  EXPECT_EQ(WaitForSingleObject(event, kPatience), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
  EXPECT_EQ(adtest::RunChild("synch_child", {"wait-event", "TqArchiveDepotSyncThreadEvent", "10000"}), 1);

  adtest::ChildProcess waiter("synch_child", {"wait-event", "TqArchiveDepotSyncThreadEvent", "3600000"});
  ASSERT_TRUE(Eventually([&] { return adp::EventWaiterCount(event) == 1; }));
  EXPECT_TRUE(PulseEvent(event));
  EXPECT_EQ(waiter.Wait(), 0);
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
  CloseHandle(same);
  CloseHandle(event);
}

DWORD WINAPI WaitForEventThenReturn(LPVOID parameter) {
  return WaitForSingleObject(static_cast<HANDLE>(parameter), INFINITE) == WAIT_OBJECT_0 ? 9 : 1;
}

TEST(Wait, MultipleObjectsAnyOrAll) {
  adtest::TempHome home(kScale);
  HANDLE manual = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE automatic = CreateEventA(nullptr, FALSE, TRUE, nullptr);
  HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
  HANDLE pair[] = {manual, automatic};
  EXPECT_EQ(WaitForMultipleObjects(2, pair, FALSE, 0), WAIT_OBJECT_0 + 1);
  EXPECT_EQ(WaitForMultipleObjects(2, pair, FALSE, 0), WAIT_TIMEOUT);  // the auto-reset one was taken
  EXPECT_EQ(WaitForMultipleObjects(2, pair, FALSE, 10000), WAIT_TIMEOUT);

  // All or nothing: the free mutex is not kept while the event is unsignalled.
  HANDLE both[] = {mutex, manual};
  EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_TIMEOUT);
  EXPECT_EQ(LastErrorOf(ReleaseMutex(mutex)), static_cast<DWORD>(ERROR_NOT_OWNER));
  SetEvent(automatic);
  HANDLE mutexAndAuto[] = {automatic, mutex};
  std::thread holder([&] {
    WaitForSingleObject(mutex, 0);
    EXPECT_EQ(WaitForMultipleObjects(2, mutexAndAuto, TRUE, 0), WAIT_OBJECT_0);  // recursion for the owner
    ReleaseMutex(mutex);
    ReleaseMutex(mutex);
    SetEvent(automatic);
  });
  holder.join();
  EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_OBJECT_0);  // rolled back after a failed all-wait
  SetEvent(manual);
  EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, kPatience), WAIT_OBJECT_0);
  EXPECT_EQ(OnOtherThread([&] { return WaitForSingleObject(mutex, 0); }), static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_TRUE(ReleaseMutex(mutex));
  ResetEvent(manual);

  // A thread handle among events; an abandoned mutex reports its index.
  HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE thread = CreateThread(nullptr, 0, WaitForEventThenReturn, go, 0, nullptr);
  HANDLE withThread[] = {manual, thread};
  EXPECT_EQ(WaitForMultipleObjects(2, withThread, FALSE, 0), WAIT_TIMEOUT);
  SetEvent(go);
  EXPECT_EQ(WaitForMultipleObjects(2, withThread, FALSE, kPatience), WAIT_OBJECT_0 + 1);
  std::thread([&] { WaitForSingleObject(mutex, 0); }).join();
  HANDLE withMutex[] = {manual, mutex};
  EXPECT_EQ(WaitForMultipleObjects(2, withMutex, FALSE, kPatience), WAIT_ABANDONED_0 + 1);
  EXPECT_TRUE(ReleaseMutex(mutex));

  // Bad input.
  HANDLE many[MAXIMUM_WAIT_OBJECTS + 1];
  for (auto& h : many) h = manual;
  EXPECT_EQ(WaitForMultipleObjects(0, pair, FALSE, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(WaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS + 1, many, FALSE, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(WaitForMultipleObjects(2, nullptr, FALSE, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(WaitForMultipleObjects(2, many, TRUE, 0), WAIT_FAILED);  // the same handle twice
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  HANDLE withBad[] = {manual, reinterpret_cast<HANDLE>(0x1234)};
  EXPECT_EQ(WaitForMultipleObjects(2, withBad, FALSE, INFINITE), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));

  for (HANDLE h : {manual, automatic, mutex, go, thread}) EXPECT_TRUE(CloseHandle(h));
}

TEST(Wait, BadHandlesFailInsteadOfBlocking) {
  adtest::TempHome home(kScale);
  EXPECT_EQ(WaitForSingleObject(nullptr, INFINITE), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
  EXPECT_EQ(LastErrorOf(SetEvent(mutex)), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(LastErrorOf(PulseEvent(mutex)), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(LastErrorOf(ResetEvent(nullptr)), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(LastErrorOf(ReleaseMutex(event)), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  CloseHandle(event);
  EXPECT_EQ(WaitForSingleObject(event, INFINITE), WAIT_FAILED);  // closed
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(WaitForSingleObject(GetCurrentThread(), 1000), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForSingleObject(GetCurrentThread(), INFINITE), WAIT_FAILED);  // would never end
  CloseHandle(mutex);
}

TEST(Sleep, RunsOnTheScaledClock) {
  adtest::TempHome home(100000);
  ULONGLONG before = GetTickCount64();
  Sleep(120000);  // the dedup cache's two minutes
  EXPECT_GE(GetTickCount64() - before, 120000u);
  before = GetTickCount64();
  EXPECT_EQ(SleepEx(10000, TRUE), 0u);
  EXPECT_GE(GetTickCount64() - before, 10000u);
  Sleep(0);
  DWORD ticks = GetTickCount();
  EXPECT_LE(static_cast<DWORD>(GetTickCount64() - ticks), 60000u);  // the low 32 bits of the same clock
  EXPECT_GE(adp::SystemMilliseconds(), static_cast<uint64_t>(before));
}

}  // namespace
