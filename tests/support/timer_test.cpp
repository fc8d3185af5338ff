#include "support/Timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

// The process-wide clock seam, set from the test thread.
std::atomic<double> fakeNowNs = 0.0;
double FakeClock() {
  return fakeNowNs.load();
}

class TimerTest : public testing::Test {
 protected:
  void SetUp() override { Timer::SetClockSourceForTesting(&FakeClock); }
  void TearDown() override { Timer::SetClockSourceForTesting(nullptr); }
};

TEST_F(TimerTest, NeverStartedIsNotRunning) {
  Timer timer;
  EXPECT_FALSE(timer.running);
  EXPECT_EQ(timer.startMs, 0.0);
}

TEST_F(TimerTest, ElapsedCountsMillisecondsFromTheLastStart) {
  // Values that doubles hold exactly, so the figures are exact.
  fakeNowNs = 5e12;
  Timer timer;
  timer.Start();
  EXPECT_TRUE(timer.running);
  EXPECT_EQ(timer.startMs, 5e6);
  EXPECT_EQ(timer.Elapsed(), 0.0);

  fakeNowNs = 5e12 + 1500000.0;
  EXPECT_EQ(timer.Elapsed(), 1.5);
  fakeNowNs = 5e12 + 16000000000.0;
  EXPECT_EQ(timer.Elapsed(), 16000.0);

  // A new start moves the origin; reading does not.
  timer.Start();
  EXPECT_EQ(timer.Elapsed(), 0.0);
  fakeNowNs = 5e12 + 16250000000.0;
  EXPECT_EQ(timer.Elapsed(), 250.0);
  EXPECT_EQ(timer.Elapsed(), 250.0);
}

TEST_F(TimerTest, StartAtARealisticEpochKeepsSubMillisecondResolution) {
  // Late 2026 in nanoseconds: beyond 2^53, so the double drops low nanosecond bits.
  const double epoch = 1.79e18;
  fakeNowNs = epoch;
  Timer timer;
  timer.Start();
  fakeNowNs = epoch + 15000000000.0;
  EXPECT_NEAR(timer.Elapsed(), 15000.0, 0.001);
}

TEST(TimerClock, DefaultsToSystemClockNanoseconds) {
  Timer::SetClockSourceForTesting(nullptr);
  using std::chrono::system_clock;
  const double before = static_cast<double>(system_clock::now().time_since_epoch().count());
  const double now = Timer::NowNs();
  const double after = static_cast<double>(system_clock::now().time_since_epoch().count());
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);

  Timer timer;
  timer.Start();
  EXPECT_GE(timer.startMs, before / 1e6);
  EXPECT_GE(timer.Elapsed(), 0.0);
}

TEST_F(TimerTest, RunningIsReadWhileAnotherThreadStarts) {
  // The receive stamp's pattern: one thread starts the timer, another reads `running`
  // without the mutex and then the elapsed time. Bounded; meant for the thread sanitizer.
  fakeNowNs = 1e12;
  Timer timer;
  std::thread starter([&] {
    for (int i = 0; i < 20000; ++i) timer.Start();
  });
  for (int i = 0; i < 20000; ++i) {
    if (timer.running) {
      EXPECT_EQ(timer.Elapsed(), 0.0);
    }
  }
  starter.join();
  EXPECT_TRUE(timer.running);
}

}  // namespace
