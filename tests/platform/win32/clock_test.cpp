#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "adplatform.h"

TEST(Clock, ScaleSpeedsSystemTimeAndKeepsItContinuous) {
  adp::SetTimeScale(1000);
  uint64_t before = adp::SystemMilliseconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  uint64_t after = adp::SystemMilliseconds();
  EXPECT_GE(after - before, 20000u);  // 20 ms of wall time is at least 20 s of system time

  adp::SetTimeScale(1);
  uint64_t rebased = adp::SystemMilliseconds();
  EXPECT_GE(rebased, after);  // a scale change never moves time backwards
  EXPECT_LT(rebased - after, 5000u);
  EXPECT_EQ(adp::WallMicrosecondsFor(10), 10000u);
  adp::SetTimeScale(100);
  EXPECT_EQ(adp::WallMicrosecondsFor(10000), 100000u);
}
