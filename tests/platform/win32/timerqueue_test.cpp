#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "adplatform.h"
#include "test_home.h"
#include "windows.h"

namespace {

constexpr DWORD kOnce = 0xFFFFFFFF;          // the period this system passes ("-1")
constexpr DWORD kPatience = 60 * 60 * 1000;  // a wait that must succeed
constexpr DWORD kFarAway = 24 * 60 * 60 * 1000;

bool Eventually(const std::function<bool()>& cond) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

struct Record {
  std::atomic<DWORD> thread{0};
  std::atomic<ULONGLONG> at{0};
  std::atomic<int> timerFired{-1};
  std::atomic<int> count{0};  // written last, so the fields above are there when it moves
};

VOID CALLBACK Count(PVOID parameter, BOOLEAN timerOrWaitFired) {
  auto* record = static_cast<Record*>(parameter);
  record->thread = GetCurrentThreadId();
  record->at = GetTickCount64();
  record->timerFired = timerOrWaitFired;
  ++record->count;
}

TEST(TimerQueue, TimersFireOnTheQueueThreadAsTheirPeriodSays) {
  adtest::TempHome home(10000);
  HANDLE queue = CreateTimerQueue();
  ASSERT_NE(queue, nullptr);
  Record once, zero, periodic, onlyOnce;
  HANDLE tOnce = nullptr, tZero = nullptr, tPeriodic = nullptr, tOnlyOnce = nullptr;
  ULONGLONG start = GetTickCount64();
  ASSERT_TRUE(CreateTimerQueueTimer(&tOnce, queue, Count, &once, 120000, kOnce, 0));
  ASSERT_TRUE(CreateTimerQueueTimer(&tZero, queue, Count, &zero, 10000, 0, 0));
  ASSERT_TRUE(CreateTimerQueueTimer(&tPeriodic, queue, Count, &periodic, 1000, 1000, 0));
  ASSERT_TRUE(CreateTimerQueueTimer(&tOnlyOnce, queue, Count, &onlyOnce, 1000, 1000, WT_EXECUTEONLYONCE));
  ASSERT_TRUE(Eventually([&] { return once.count == 1 && zero.count == 1 && periodic.count >= 3; }));
  EXPECT_GE(once.at - start, 120000u);
  EXPECT_GE(zero.at - start, 10000u);
  EXPECT_NE(once.thread.load(), GetCurrentThreadId());
  EXPECT_EQ(once.timerFired.load(), TRUE);
  Sleep(300000);
  EXPECT_EQ(once.count.load(), 1);
  EXPECT_EQ(zero.count.load(), 1);
  EXPECT_EQ(onlyOnce.count.load(), 1);
  EXPECT_TRUE(DeleteTimerQueueTimer(queue, tPeriodic, INVALID_HANDLE_VALUE));
  int settled = periodic.count;
  Sleep(100000);
  EXPECT_EQ(periodic.count.load(), settled);
  EXPECT_TRUE(DeleteTimerQueueEx(queue, INVALID_HANDLE_VALUE));
}

TEST(TimerQueue, ReArmingPushesTheRunBackAndWorksAfterFiring) {
  adtest::TempHome home(1000);
  HANDLE queue = CreateTimerQueue();
  Record record;
  HANDLE timer = nullptr;
  // Ten minutes: a wide margin for the re-arm to come first, even on a loaded machine.
  ASSERT_TRUE(CreateTimerQueueTimer(&timer, queue, Count, &record, 600000, kOnce, 0));
  Sleep(1000);
  ULONGLONG changed = GetTickCount64();
  ASSERT_TRUE(ChangeTimerQueueTimer(queue, timer, 600000, kOnce));
  ASSERT_TRUE(Eventually([&] { return record.count == 1; }));
  EXPECT_GE(record.at - changed, 600000u);  // the first arming never fired
  Sleep(130000);
  EXPECT_EQ(record.count.load(), 1);

  EXPECT_TRUE(ChangeTimerQueueTimer(queue, timer, 1000, kOnce));  // fired already: armed again
  ASSERT_TRUE(Eventually([&] { return record.count == 2; }));

  // A period-0 timer that has fired is left alone, as published.
  Record oneShot;
  HANDLE expired = nullptr;
  ASSERT_TRUE(CreateTimerQueueTimer(&expired, queue, Count, &oneShot, 0, 0, 0));
  ASSERT_TRUE(Eventually([&] { return oneShot.count == 1; }));
  EXPECT_TRUE(ChangeTimerQueueTimer(queue, expired, 0, 0));
  Sleep(100000);
  EXPECT_EQ(oneShot.count.load(), 1);
  EXPECT_TRUE(DeleteTimerQueueEx(queue, INVALID_HANDLE_VALUE));
}

TEST(TimerQueue, DeletedTimersNeverFire) {
  adtest::TempHome home(1000);
  HANDLE queue = CreateTimerQueue();
  HANDLE other = CreateTimerQueue();
  HANDLE done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  Record record;
  HANDLE waited = nullptr, unwaited = nullptr, signalled = nullptr, inQueue = nullptr, onDefault = nullptr;
  ASSERT_TRUE(CreateTimerQueueTimer(&waited, queue, Count, &record, kFarAway, kOnce, 0));
  ASSERT_TRUE(CreateTimerQueueTimer(&unwaited, queue, Count, &record, kFarAway, kOnce, 0));
  ASSERT_TRUE(CreateTimerQueueTimer(&signalled, queue, Count, &record, kFarAway, kOnce, 0));
  ASSERT_TRUE(CreateTimerQueueTimer(&inQueue, other, Count, &record, kFarAway, 1000, 0));
  ASSERT_TRUE(CreateTimerQueueTimer(&onDefault, nullptr, Count, &record, kFarAway, kOnce, 0));
  // Each is brought due in a minute, then deleted before it gets there.
  ASSERT_TRUE(ChangeTimerQueueTimer(queue, waited, 60000, kOnce));
  EXPECT_TRUE(DeleteTimerQueueTimer(queue, waited, INVALID_HANDLE_VALUE));
  ASSERT_TRUE(ChangeTimerQueueTimer(queue, unwaited, 60000, kOnce));
  EXPECT_TRUE(DeleteTimerQueueTimer(queue, unwaited, nullptr));
  ASSERT_TRUE(ChangeTimerQueueTimer(queue, signalled, 60000, kOnce));
  EXPECT_TRUE(DeleteTimerQueueTimer(queue, signalled, done));
  EXPECT_EQ(WaitForSingleObject(done, 0), WAIT_OBJECT_0);
  ASSERT_TRUE(ChangeTimerQueueTimer(other, inQueue, 60000, 1000));
  EXPECT_TRUE(DeleteTimerQueue(other));
  ASSERT_TRUE(ChangeTimerQueueTimer(nullptr, onDefault, 60000, kOnce));
  EXPECT_TRUE(DeleteTimerQueueTimer(nullptr, onDefault, INVALID_HANDLE_VALUE));
  Sleep(150000);
  EXPECT_EQ(record.count.load(), 0);

  EXPECT_FALSE(ChangeTimerQueueTimer(queue, waited, 0, 0));  // gone
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(DeleteTimerQueueTimer(queue, waited, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(DeleteTimerQueue(other));  // deleted already
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_TRUE(DeleteTimerQueueEx(queue, INVALID_HANDLE_VALUE));
  CloseHandle(done);
}

struct SelfDeleting {
  HANDLE queue = nullptr;
  HANDLE completion = nullptr;  // passed to the delete from inside the callback
  std::atomic<HANDLE> timer{nullptr};
  int deleteOn = 0;
  std::atomic<int> count{0};
  std::atomic<BOOL> deleted{TRUE};
  std::atomic<DWORD> error{0};
};

VOID CALLBACK DeleteSelf(PVOID parameter, BOOLEAN) {
  auto* self = static_cast<SelfDeleting*>(parameter);
  if (++self->count != self->deleteOn) return;
  self->deleted = DeleteTimerQueueTimer(self->queue, self->timer, self->completion);
  self->error = GetLastError();
}

VOID CALLBACK ReArmSelf(PVOID parameter, BOOLEAN) {
  auto* self = static_cast<SelfDeleting*>(parameter);
  if (++self->count < self->deleteOn) ChangeTimerQueueTimer(self->queue, self->timer, 1000, kOnce);
}

TEST(TimerQueue, CallbackMayDeleteOrReArmItsOwnTimer) {
  adtest::TempHome home(10000);
  HANDLE queue = CreateTimerQueue();
  SelfDeleting noWait, wait, rearm;
  noWait.deleteOn = 3;
  wait.deleteOn = 1;
  wait.completion = INVALID_HANDLE_VALUE;  // cannot wait for itself: no deadlock
  rearm.deleteOn = 3;
  for (SelfDeleting* self : {&noWait, &wait, &rearm}) {
    self->queue = queue;
    HANDLE timer = nullptr;
    // Armed far away until the handle is stored, then brought forward.
    ASSERT_TRUE(CreateTimerQueueTimer(&timer, queue, self == &rearm ? ReArmSelf : DeleteSelf, self, kFarAway,
                                      self == &noWait ? 1000 : kOnce, 0));
    self->timer = timer;
    ASSERT_TRUE(ChangeTimerQueueTimer(queue, timer, 1000, self == &noWait ? 1000 : kOnce));
  }
  ASSERT_TRUE(Eventually([&] { return noWait.count == 3 && wait.count == 1 && rearm.count == 3; }));
  Sleep(100000);
  EXPECT_EQ(noWait.count.load(), 3);
  EXPECT_EQ(wait.count.load(), 1);
  EXPECT_EQ(rearm.count.load(), 3);
  for (SelfDeleting* self : {&noWait, &wait}) {
    EXPECT_FALSE(self->deleted.load());
    EXPECT_EQ(self->error.load(), static_cast<DWORD>(ERROR_IO_PENDING));
    EXPECT_FALSE(ChangeTimerQueueTimer(queue, self->timer, 0, 0));  // gone once its callback ended
  }
  EXPECT_TRUE(DeleteTimerQueueTimer(queue, rearm.timer, INVALID_HANDLE_VALUE));
  EXPECT_TRUE(DeleteTimerQueueEx(queue, INVALID_HANDLE_VALUE));
}

struct Blocking {
  HANDLE release = nullptr;  // auto-reset: one SetEvent lets one callback finish
  std::atomic<int> entered{0};
  std::atomic<int> finished{0};
};

VOID CALLBACK BlockUntilReleased(PVOID parameter, BOOLEAN) {
  auto* blocking = static_cast<Blocking*>(parameter);
  ++blocking->entered;
  WaitForSingleObject(blocking->release, INFINITE);
  ++blocking->finished;
}

TEST(TimerQueue, DeletingDuringACallbackHonoursTheCompletionArgument) {
  adtest::TempHome home(10000);
  HANDLE queue = CreateTimerQueue();
  Blocking blocking;
  blocking.release = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  HANDLE done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE timer = nullptr;

  // NULL: refused as pending, the timer goes when the callback ends.
  ASSERT_TRUE(CreateTimerQueueTimer(&timer, queue, BlockUntilReleased, &blocking, 0, kOnce, 0));
  ASSERT_TRUE(Eventually([&] { return blocking.entered == 1; }));
  EXPECT_FALSE(DeleteTimerQueueTimer(queue, timer, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
  EXPECT_EQ(blocking.finished.load(), 0);
  SetEvent(blocking.release);
  ASSERT_TRUE(Eventually([&] { return blocking.finished == 1; }));

  // An event: signalled once the callback has ended.
  ASSERT_TRUE(CreateTimerQueueTimer(&timer, queue, BlockUntilReleased, &blocking, 0, kOnce, 0));
  ASSERT_TRUE(Eventually([&] { return blocking.entered == 2; }));
  EXPECT_TRUE(DeleteTimerQueueTimer(queue, timer, done));
  EXPECT_EQ(WaitForSingleObject(done, 0), WAIT_TIMEOUT);
  SetEvent(blocking.release);
  ASSERT_EQ(WaitForSingleObject(done, kPatience), WAIT_OBJECT_0);
  EXPECT_EQ(blocking.finished.load(), 2);

  // INVALID_HANDLE_VALUE: returns only after the callback.
  ASSERT_TRUE(CreateTimerQueueTimer(&timer, queue, BlockUntilReleased, &blocking, 0, kOnce, 0));
  ASSERT_TRUE(Eventually([&] { return blocking.entered == 3; }));
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    SetEvent(blocking.release);
  });
  EXPECT_TRUE(DeleteTimerQueueTimer(queue, timer, INVALID_HANDLE_VALUE));
  EXPECT_EQ(blocking.finished.load(), 3);
  releaser.join();

  // The same for a whole queue.
  ASSERT_TRUE(CreateTimerQueueTimer(&timer, queue, BlockUntilReleased, &blocking, 0, kOnce, 0));
  ASSERT_TRUE(Eventually([&] { return blocking.entered == 4; }));
  std::thread queueReleaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    SetEvent(blocking.release);
  });
  EXPECT_TRUE(DeleteTimerQueueEx(queue, INVALID_HANDLE_VALUE));
  EXPECT_EQ(blocking.finished.load(), 4);
  queueReleaser.join();

  HANDLE unwaited = CreateTimerQueue();
  ASSERT_TRUE(CreateTimerQueueTimer(&timer, unwaited, BlockUntilReleased, &blocking, 0, kOnce, 0));
  ASSERT_TRUE(Eventually([&] { return blocking.entered == 5; }));
  EXPECT_FALSE(DeleteTimerQueue(unwaited));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
  SetEvent(blocking.release);
  ASSERT_TRUE(Eventually([&] { return blocking.finished == 5; }));

  HANDLE signalledQueue = CreateTimerQueue();
  ResetEvent(done);
  ASSERT_TRUE(CreateTimerQueueTimer(&timer, signalledQueue, BlockUntilReleased, &blocking, 0, kOnce, 0));
  ASSERT_TRUE(Eventually([&] { return blocking.entered == 6; }));
  EXPECT_TRUE(DeleteTimerQueueEx(signalledQueue, done));
  EXPECT_EQ(WaitForSingleObject(done, 0), WAIT_TIMEOUT);
  SetEvent(blocking.release);
  ASSERT_EQ(WaitForSingleObject(done, kPatience), WAIT_OBJECT_0);
  EXPECT_EQ(blocking.finished.load(), 6);
  CloseHandle(done);
  CloseHandle(blocking.release);
}

VOID CALLBACK Throw(PVOID, BOOLEAN) { throw 1; }

VOID CALLBACK CountThenExitThread(PVOID parameter, BOOLEAN fired) {
  Count(parameter, fired);
  ExitThread(0);
}

TEST(TimerQueue, MisbehavingCallbacksNeitherStopNorHangTheQueue) {
  adtest::TempHome home(10000);
  HANDLE queue = CreateTimerQueue();
  Record record;
  HANDLE thrower = nullptr, counter = nullptr;
  ASSERT_TRUE(CreateTimerQueueTimer(&thrower, queue, Throw, nullptr, 0, kOnce, 0));
  ASSERT_TRUE(CreateTimerQueueTimer(&counter, queue, Count, &record, 10000, kOnce, 0));
  ASSERT_TRUE(Eventually([&] { return record.count == 1; }));  // the queue went on after the throw
  EXPECT_TRUE(DeleteTimerQueueEx(queue, INVALID_HANDLE_VALUE));

  // ExitThread ends the queue's thread; the queue stops, and deleting it does not wait forever.
  HANDLE ended = CreateTimerQueue();
  HANDLE later = nullptr, exiting = nullptr;
  Record exited, never;
  ASSERT_TRUE(CreateTimerQueueTimer(&later, ended, Count, &never, kFarAway, kOnce, 0));
  ASSERT_TRUE(CreateTimerQueueTimer(&exiting, ended, CountThenExitThread, &exited, 0, kOnce, 0));
  ASSERT_TRUE(Eventually([&] { return exited.count == 1; }));
  EXPECT_TRUE(DeleteTimerQueueEx(ended, INVALID_HANDLE_VALUE));
}

TEST(TimerQueue, BadInputIsRefused) {
  adtest::TempHome home(10000);
  HANDLE queue = CreateTimerQueue();
  HANDLE other = CreateTimerQueue();
  HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  Record record;
  HANDLE timer = nullptr;
  EXPECT_FALSE(CreateTimerQueueTimer(nullptr, queue, Count, &record, 0, 0, 0));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(CreateTimerQueueTimer(&timer, queue, nullptr, &record, 0, 0, 0));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_FALSE(CreateTimerQueueTimer(&timer, event, Count, &record, 0, 0, 0));  // not a queue
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));

  ASSERT_TRUE(CreateTimerQueueTimer(&timer, queue, Count, &record, kFarAway, kOnce, 0));
  HANDLE bogus = reinterpret_cast<HANDLE>(0x1234);
  EXPECT_FALSE(ChangeTimerQueueTimer(queue, bogus, 0, 0));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(ChangeTimerQueueTimer(other, timer, 0, 0));  // another queue's timer
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_FALSE(DeleteTimerQueueTimer(queue, timer, bogus));  // bad completion event: nothing deleted
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_TRUE(ChangeTimerQueueTimer(queue, timer, 0, kOnce));
  ASSERT_TRUE(Eventually([&] { return record.count == 1; }));
  EXPECT_FALSE(DeleteTimerQueueEx(nullptr, nullptr));
  EXPECT_FALSE(DeleteTimerQueueEx(event, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);  // still an event

  EXPECT_TRUE(DeleteTimerQueueEx(queue, INVALID_HANDLE_VALUE));
  EXPECT_TRUE(DeleteTimerQueueEx(other, INVALID_HANDLE_VALUE));
  EXPECT_FALSE(CreateTimerQueueTimer(&timer, queue, Count, &record, 0, 0, 0));  // deleted queue
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  CloseHandle(event);
}

}  // namespace
