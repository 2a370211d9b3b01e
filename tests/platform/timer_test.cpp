#include "platform/timer.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/elapsed.h"
#include "tests/support/wait_until.h"

namespace kinetrel {
namespace {

using test::kPatience;
using test::MillisecondsSince;

TEST(PeriodicTimer, TicksAtOnceThenEveryPeriod) {
  PeriodicTimer timer;
  const std::int64_t start = ClockTicks();
  ASSERT_TRUE(timer.Start(Milliseconds{20}).Ok());
  ASSERT_TRUE(timer.Wait(kPatience));
  for (int i = 1; i <= 5; ++i) {
    ASSERT_TRUE(timer.Wait(kPatience));
    EXPECT_GE(MillisecondsSince(start), 20.0 * i);
  }
}

TEST(PeriodicTimer, MissedTicksBecomeOne) {
  PeriodicTimer timer;
  ASSERT_TRUE(timer.Start(Milliseconds{500}).Ok());
  const std::int64_t start = ClockTicks();
  ASSERT_TRUE(test::WaitUntil([&] { return MillisecondsSince(start) > 1010.0; }));
  EXPECT_TRUE(timer.Wait(Milliseconds{0}));
  EXPECT_FALSE(timer.Wait(Milliseconds{0}));
}

TEST(PeriodicTimer, WaitTimesOutWhenTheTimerIsStopped) {
  PeriodicTimer timer;
  const auto waits = [&] {
    const std::int64_t start = ClockTicks();
    EXPECT_FALSE(timer.Wait(Milliseconds{30}));
    EXPECT_GE(MillisecondsSince(start), 30.0);
  };
  waits();  // never started
  ASSERT_TRUE(timer.Start(Milliseconds{0}).Ok());
  EXPECT_TRUE(timer.Wait(kPatience));
  EXPECT_TRUE(timer.Wait(kForever));
  timer.Stop();
  waits();
}

TEST(PeriodicTimer, ATickWakesOneWaiter) {
  PeriodicTimer timer;
  ASSERT_TRUE(timer.Start(Milliseconds{60'000}).Ok());
  int ticks = 0;
  bool other = false;
  std::thread second([&] { other = timer.Wait(Milliseconds{100}); });
  ticks += timer.Wait(Milliseconds{100}) ? 1 : 0;
  second.join();
  EXPECT_EQ(ticks + (other ? 1 : 0), 1);
}

TEST(TimerResolution, SleepsNoLessThanAsked) {
  const TimerResolution resolution;
  EXPECT_TRUE(resolution.IsRaised());
  const std::int64_t start = ClockTicks();
  resolution.Sleep(Milliseconds{16});
  EXPECT_GE(MillisecondsSince(start), 16.0);
}

}  // namespace
}  // namespace kinetrel
