// Stopwatch: milliseconds since the last start on the process-wide clock.
#include "support/Timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

std::atomic<double> nowNs = 0.0;
double Now() {
  return nowNs.load();
}

TEST(Timer, ElapsedCountsMillisecondsFromTheLastStartEvenAtTodaysEpoch) {
  Timer::SetClockSourceForTesting(&Now);
  for (const double epoch : {5e12, 1.79e18}) {  // the second is beyond 2^53 ns
    SCOPED_TRACE(epoch);
    nowNs = epoch;
    Timer timer;
    timer.Start();
    EXPECT_TRUE(timer.running);
    EXPECT_NEAR(timer.Elapsed(), 0.0, 0.001);
    nowNs = epoch + 1.5e6;
    EXPECT_NEAR(timer.Elapsed(), 1.5, 0.001);
    nowNs = epoch + 16e9;
    EXPECT_NEAR(timer.Elapsed(), 16000.0, 0.001);
    timer.Start();  // a new start moves the origin
    nowNs = epoch + 16.25e9;
    EXPECT_NEAR(timer.Elapsed(), 250.0, 0.001);
  }
  Timer::SetClockSourceForTesting(nullptr);
  const auto system = [] {
    return double(std::chrono::system_clock::now().time_since_epoch().count());
  };
  const double before = system(), now = Timer::NowNs();
  EXPECT_LE(before, now);
  EXPECT_LE(now, system());
}

TEST(Timer, RunningIsReadWhileAnotherThreadStarts) {
  // The receive stamp's pattern, bounded; meant for the thread sanitizer.
  Timer timer;
  std::thread starter([&] {
    for (int i = 0; i < 20000; ++i) timer.Start();
  });
  for (int i = 0; i < 20000; ++i) {
    EXPECT_GE(timer.running ? timer.Elapsed() : 0.0, 0.0);
  }
  starter.join();
  EXPECT_TRUE(timer.running);
}

}  // namespace
