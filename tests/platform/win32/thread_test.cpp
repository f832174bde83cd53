#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "adplatform.h"
#include "test_home.h"
#include "windows.h"

namespace adp {
LONG EventWaiterCount(HANDLE h);  // the stand-in's hook: threads blocked on an event
}

namespace {

constexpr double kScale = 1000;
constexpr DWORD kPatience = 60 * 60 * 1000;  // a wait that must succeed: 3.6 s of wall time

bool Eventually(const std::function<bool()>& cond) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

DWORD ExitCodeOf(HANDLE thread) {
  DWORD code = 0;
  return GetExitCodeThread(thread, &code) ? code : 0xDEAD;
}

// What a thread function saw, for the main thread to check.
struct Probe {
  HANDLE go = nullptr;
  std::atomic<bool> ran{false};
  std::atomic<DWORD> threadId{0};
  std::atomic<DWORD> waitResult{0xBAD};  // no wait returns this: not written yet
  std::atomic<DWORD> waitError{0};
  std::atomic<DWORD> laterWait{0};
  std::atomic<DWORD> laterError{0};
  std::atomic<bool> destructed{false};
};

DWORD WINAPI RecordAndWait(LPVOID parameter) {
  auto* probe = static_cast<Probe*>(parameter);
  probe->threadId = GetCurrentThreadId();
  probe->ran = true;
  probe->waitResult = WaitForSingleObject(probe->go, INFINITE);
  return 42;
}

TEST(Thread, RunsWithItsOwnIdAndReportsItsExitCode) {
  adtest::TempHome home(kScale);
  Probe probe;
  probe.go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  DWORD id = 0;
  HANDLE thread = CreateThread(nullptr, 0, RecordAndWait, &probe, 0, &id);
  ASSERT_NE(thread, nullptr);
  EXPECT_NE(id, 0u);
  EXPECT_NE(id, GetCurrentThreadId());
  EXPECT_EQ(GetThreadId(thread), id);
  ASSERT_TRUE(Eventually([&] { return probe.ran.load(); }));
  EXPECT_EQ(probe.threadId.load(), id);
  EXPECT_EQ(ExitCodeOf(thread), static_cast<DWORD>(STILL_ACTIVE));
  EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForSingleObject(thread, 10000), WAIT_TIMEOUT);
  SetEvent(probe.go);
  EXPECT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0);  // stays signalled
  EXPECT_EQ(ExitCodeOf(thread), 42u);
  EXPECT_EQ(probe.waitResult.load(), static_cast<DWORD>(WAIT_OBJECT_0));
  EXPECT_TRUE(CloseHandle(thread));
  CloseHandle(probe.go);

  EXPECT_EQ(GetCurrentThreadId(), GetCurrentThreadId());
  EXPECT_NE(GetCurrentThreadId(), 0u);
  EXPECT_EQ(GetCurrentProcessId(), static_cast<DWORD>(getpid()));
  EXPECT_EQ(ExitCodeOf(GetCurrentThread()), static_cast<DWORD>(STILL_ACTIVE));
  EXPECT_EQ(GetThreadId(GetCurrentThread()), GetCurrentThreadId());
}

TEST(Thread, CreatedSuspendedRunsOnlyWhenResumed) {
  adtest::TempHome home(kScale);
  Probe probe;
  probe.go = CreateEventA(nullptr, TRUE, TRUE, nullptr);
  DWORD id = 0;
  HANDLE thread = CreateThread(nullptr, 0, RecordAndWait, &probe, CREATE_SUSPENDED, &id);
  ASSERT_NE(thread, nullptr);
  EXPECT_NE(id, 0u);  // known before the thread runs
  EXPECT_EQ(SuspendThread(thread), 1u);  // not started yet: it stays put
  Sleep(5000);
  EXPECT_FALSE(probe.ran.load());
  EXPECT_EQ(ResumeThread(thread), 2u);
  EXPECT_EQ(WaitForSingleObject(thread, 1000), WAIT_TIMEOUT);
  EXPECT_FALSE(probe.ran.load());
  EXPECT_EQ(ResumeThread(thread), 1u);
  EXPECT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
  EXPECT_TRUE(probe.ran.load());
  EXPECT_EQ(probe.threadId.load(), id);
  EXPECT_EQ(ExitCodeOf(thread), 42u);
  EXPECT_EQ(ResumeThread(thread), 0u);  // nothing to resume
  CloseHandle(thread);
  CloseHandle(probe.go);
}

DWORD WINAPI SuspendSelfThenReturn(LPVOID parameter) {
  auto* probe = static_cast<Probe*>(parameter);
  probe->ran = true;
  probe->waitResult = SuspendThread(GetCurrentThread());
  return 5;
}

TEST(Thread, SuspendWorksOnItselfButNotOnAnotherRunningThread) {
  adtest::TempHome home(kScale);
  Probe probe;
  probe.go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE running = CreateThread(nullptr, 0, RecordAndWait, &probe, 0, nullptr);
  ASSERT_TRUE(Eventually([&] { return probe.ran.load(); }));
  EXPECT_EQ(SuspendThread(running), static_cast<DWORD>(-1));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
  EXPECT_EQ(ResumeThread(running), 0u);
  SetEvent(probe.go);
  WaitForSingleObject(running, kPatience);
  CloseHandle(running);

  Probe self;
  HANDLE sleeper = CreateThread(nullptr, 0, SuspendSelfThenReturn, &self, 0, nullptr);
  ASSERT_TRUE(Eventually([&] { return self.ran.load(); }));
  ASSERT_TRUE(Eventually([&] { return ResumeThread(sleeper) == 1; }));  // once it has suspended itself
  EXPECT_EQ(WaitForSingleObject(sleeper, kPatience), WAIT_OBJECT_0);
  EXPECT_EQ(self.waitResult.load(), 0u);
  EXPECT_EQ(ExitCodeOf(sleeper), 5u);
  CloseHandle(sleeper);
  CloseHandle(probe.go);
}

struct SetOnDestruction {
  std::atomic<bool>* flag;
  ~SetOnDestruction() { *flag = true; }
};

void ExitFromDeepInside(Probe* probe) {
  SetOnDestruction guard{&probe->destructed};
  ExitThread(17);
}

DWORD WINAPI ExitEarly(LPVOID parameter) {
  ExitFromDeepInside(static_cast<Probe*>(parameter));
  return 1;  // never reached
}

DWORD WINAPI Throw(LPVOID) { throw 7; }

TEST(Thread, ExitThreadEndsTheThreadWithItsCode) {
  adtest::TempHome home(kScale);
  Probe probe;
  HANDLE thread = CreateThread(nullptr, 0, ExitEarly, &probe, 0, nullptr);
  ASSERT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
  EXPECT_EQ(ExitCodeOf(thread), 17u);
  EXPECT_TRUE(probe.destructed.load());  // the stack was unwound
  CloseHandle(thread);

  HANDLE thrower = CreateThread(nullptr, 0, Throw, nullptr, 0, nullptr);
  ASSERT_EQ(WaitForSingleObject(thrower, kPatience), WAIT_OBJECT_0);
  EXPECT_NE(ExitCodeOf(thrower), static_cast<DWORD>(STILL_ACTIVE));
  CloseHandle(thrower);
}

DWORD WINAPI SleepWaitAndSleepAgain(LPVOID parameter) {
  auto* probe = static_cast<Probe*>(parameter);
  probe->ran = true;
  Sleep(INFINITE);  // TerminateThread wakes it
  probe->waitResult = WaitForSingleObject(probe->go, INFINITE);
  probe->waitError = GetLastError();
  Sleep(INFINITE);  // returns at once now
  HANDLE events[] = {probe->go, probe->go};
  probe->laterWait = WaitForMultipleObjects(2, events, FALSE, INFINITE);
  probe->laterError = GetLastError();
  return 7;
}

DWORD WINAPI BlockedWait(LPVOID parameter) {
  auto* probe = static_cast<Probe*>(parameter);
  probe->waitResult = WaitForSingleObject(probe->go, INFINITE);
  probe->waitError = GetLastError();
  return 7;
}

TEST(Thread, TerminateCancelsCooperatively) {
  adtest::TempHome home(kScale);
  Probe probe;
  probe.go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE thread = CreateThread(nullptr, 0, SleepWaitAndSleepAgain, &probe, 0, nullptr);
  ASSERT_TRUE(Eventually([&] { return probe.ran.load(); }));
  EXPECT_TRUE(TerminateThread(thread, 99));
  ASSERT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
  EXPECT_EQ(ExitCodeOf(thread), 99u);  // the terminate code wins over the returned 7
  EXPECT_EQ(probe.waitResult.load(), WAIT_FAILED);
  EXPECT_EQ(probe.waitError.load(), static_cast<DWORD>(ERROR_OPERATION_ABORTED));
  EXPECT_EQ(probe.laterWait.load(), WAIT_FAILED);
  EXPECT_EQ(probe.laterError.load(), static_cast<DWORD>(ERROR_OPERATION_ABORTED));
  EXPECT_TRUE(TerminateThread(thread, 5));  // already ended: no change
  EXPECT_EQ(ExitCodeOf(thread), 99u);
  CloseHandle(thread);

  // Blocked on an event, a mutex, or another thread: each wait ends.
  HANDLE mutex = CreateMutexA(nullptr, TRUE, "TerminateMutex");
  HANDLE never = CreateEventA(nullptr, TRUE, FALSE, "TerminateEvent");
  HANDLE other = CreateThread(nullptr, 0, BlockedWait, &probe, CREATE_SUSPENDED, nullptr);
  for (HANDLE target : {never, mutex, other}) {
    Probe blocked;
    blocked.go = target;
    HANDLE waiter = CreateThread(nullptr, 0, BlockedWait, &blocked, 0, nullptr);
    if (target == never) {
      ASSERT_TRUE(Eventually([&] { return adp::EventWaiterCount(never) == 1; }));
    }
    Sleep(2000);
    EXPECT_EQ(ExitCodeOf(waiter), static_cast<DWORD>(STILL_ACTIVE));
    EXPECT_TRUE(TerminateThread(waiter, 3));
    ASSERT_EQ(WaitForSingleObject(waiter, kPatience), WAIT_OBJECT_0);
    EXPECT_EQ(blocked.waitResult.load(), WAIT_FAILED);
    EXPECT_EQ(blocked.waitError.load(), static_cast<DWORD>(ERROR_OPERATION_ABORTED));
    EXPECT_EQ(ExitCodeOf(waiter), 3u);
    CloseHandle(waiter);
  }

  // A thread still held by CREATE_SUSPENDED never runs.
  Probe suspended;
  HANDLE held = CreateThread(nullptr, 0, RecordAndWait, &suspended, CREATE_SUSPENDED, nullptr);
  EXPECT_TRUE(TerminateThread(held, 8));
  ASSERT_EQ(WaitForSingleObject(held, kPatience), WAIT_OBJECT_0);
  EXPECT_FALSE(suspended.ran.load());
  EXPECT_EQ(ExitCodeOf(held), 8u);
  CloseHandle(held);
  TerminateThread(other, 0);
  WaitForSingleObject(other, kPatience);
  CloseHandle(other);
  ReleaseMutex(mutex);
  CloseHandle(mutex);
  CloseHandle(never);
  CloseHandle(probe.go);
}

TEST(Thread, HandleMayBeClosedBeforeOrAfterTheThreadEnds) {
  adtest::TempHome home(kScale);
  Probe probe;
  probe.go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE thread = CreateThread(nullptr, 0, RecordAndWait, &probe, 0, nullptr);
  EXPECT_TRUE(CloseHandle(thread));  // the thread runs on
  EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_FAILED);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  ASSERT_TRUE(Eventually([&] { return probe.ran.load(); }));
  SetEvent(probe.go);
  ASSERT_TRUE(Eventually([&] { return probe.waitResult.load() == WAIT_OBJECT_0; }));
  CloseHandle(probe.go);
}

TEST(Thread, PrioritiesAreRecordedAndBadInputRefused) {
  adtest::TempHome home(kScale);
  Probe probe;
  probe.go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE thread = CreateThread(nullptr, 0, RecordAndWait, &probe, 0, nullptr);
  EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_NORMAL);
  EXPECT_TRUE(SetThreadPriority(thread, THREAD_PRIORITY_BELOW_NORMAL));
  EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_BELOW_NORMAL);
  EXPECT_FALSE(SetThreadPriority(thread, 7));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_TRUE(SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST));
  EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_HIGHEST);
  SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_NORMAL);
  SetEvent(probe.go);
  WaitForSingleObject(thread, kPatience);

  HANDLE event = probe.go;
  DWORD code = 0;
  EXPECT_EQ(GetThreadPriority(event), THREAD_PRIORITY_ERROR_RETURN);
  EXPECT_EQ(CreateThread(nullptr, 0, nullptr, nullptr, 0, nullptr), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(ResumeThread(nullptr), static_cast<DWORD>(-1));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(SuspendThread(event), static_cast<DWORD>(-1));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(GetExitCodeThread(event, &code));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(GetExitCodeThread(thread, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(TerminateThread(event, 1));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  CloseHandle(thread);
  CloseHandle(event);
}

}  // namespace
