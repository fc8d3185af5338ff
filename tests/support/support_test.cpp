// Support: the stopwatch, the per-thread profiler and the reader-writer lock.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>

#include "FakeClock.h"
#include "Timer.h"
#include "Wait.h"
#include "orvex/SharedMutex.h"
#include "orvex/cpu/Profiler.h"
#include "support/Clock.h"

namespace {

using namespace testlib;

using orvex::cpu::Profiler;

std::atomic<double> nowNs = 0.0;

TEST(Timer, ElapsedCountsMillisecondsFromTheLastStartEvenAtTodaysEpoch) {
  support::SetClockSourceForTesting([] { return nowNs.load(); });
  for (const double epoch : {5e12, 1.79e18}) {  // the second is beyond 2^53 ns
    nowNs = epoch;
    Timer timer;
    timer.Start(), nowNs = epoch + 16e9;
    EXPECT_NEAR(timer.Elapsed(), 16000.0, 0.001) << epoch;
    timer.Start(), nowNs = epoch + 16.0015e9;  // a new start moves the origin
    EXPECT_NEAR(timer.Elapsed(), 1.5, 0.001) << epoch;
  }
  support::SetClockSourceForTesting(nullptr);
  const double before = double(std::chrono::system_clock::now().time_since_epoch().count());
  EXPECT_LE(before, support::NowNs()) << "the real clock is the system clock";
}

void Measure(const std::string& name, double ms, bool start = true) {
  Profiler scope(name, start);
  FakeClock::Advance(ms);
  scope.Stop();
}

class ProfilerTest : public testing::Test {
 protected:
  void SetUp() override {
    FakeClock::Install(), Profiler::enabled = true;
    std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);
    Profiler::profiles.clear(), Profiler::profileStacks.clear();
  }
  void TearDown() override { FakeClock::Uninstall(), Profiler::enabled = false; }
};

TEST_F(ProfilerTest, RecordsCountTotalMinimumAndMaximumUnderPathKeys) {
  for (double ms : {3.0, 1.0, 5.0, 2.0}) Measure("Work", ms);
  Profiler send("Send", true);
  Measure("X", 4);
  send.Stop();
  Measure("X", 0);            // once the scope is closed, a top-level key again
  Measure("X", 4);            // a zero first measurement stays the minimum
  Measure("Idle", 7, false);  // opened but not timed
  Profiler outer("Outer", true);
  Profiler::enabled = false;  // an open profiler still records; a new one does nothing
  Measure("Inner", 2);
  outer.Stop();
  const std::tuple<const char*, uint32_t, double, double, double> rows[] = {
      {"Work", 4, 11, 1, 5}, {"Send/X", 1, 4, 4, 4}, {"X", 2, 4, 0, 4},
      {"Idle", 0, 0, -1, 0}, {"Outer", 1, 2, 2, 2},  {"Outer/Inner", 0, 0, -1, 0}};
  for (const auto& [key, count, total, min, max] : rows) {
    std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);  // as reporters do
    const Profiler::Profile p = Profiler::profiles[std::this_thread::get_id()][key];
    EXPECT_EQ(std::tuple(p.count, p.totalMs, p.minMs, p.maxMs), std::tuple(count, total, min, max))
        << key;
  }
  Profiler::enabled = true;
  Profiler twice("Twice", false);
  twice.Stop(), twice.Stop();  // the second pops nothing
  Profiler open("Open", false);
  SetUp();  // a reporter resets the tables under an open scope
  open.Stop();
  EXPECT_TRUE(Profiler::profileStacks.empty());
}

// Whether thread `tid` of this process is asleep (in a futex, a poll, ...), as the kernel has it.
bool Asleep(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  const std::string line((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const size_t end = line.rfind(')');  // the name in parentheses may hold anything
  return end != std::string::npos && end + 2 < line.size() &&
         (line[end + 2] == 'S' || line[end + 2] == 'D');
}

// Holds the lock in one mode until released; released on the way out. Entering and leaving are
// stamped from one counter, so a test checks the order of events rather than sleeping on them.
struct Holder {
  Holder(orvex::SharedMutex& mutex, bool shared)
      : thread([this, &mutex, shared] {
          tid = static_cast<pid_t>(syscall(SYS_gettid));
          shared ? mutex.lock_shared() : mutex.lock();
          entered = ++stamps;
          holding = true;
          WaitUntil([this] { return release.load(); }, 60000);
          holding = false;
          left = ++stamps;
          shared ? mutex.unlock_shared() : mutex.unlock();
        }) {}
  ~Holder() { Finish(); }
  bool Holds() {
    return WaitUntil([this] { return holding.load(); });
  }
  // Waits until the thread sleeps inside the lock: started, not in, and asleep.
  bool Waits() {
    return WaitUntil([this] { return tid != 0 && !holding && Asleep(tid); });
  }
  void Finish() { release = true, thread.joinable() ? thread.join() : void(); }
  static inline std::atomic<int> stamps = 0;
  std::atomic<int> entered = 0, left = 0;
  std::atomic<pid_t> tid = 0;
  std::atomic<bool> holding = false, release = false;
  std::thread thread;
};

TEST(SharedMutex, ReadersShareAWriterWaitsForTheLastOneAndItsReleaseWakesEveryone) {
  orvex::SharedMutex mutex;
  Holder reader1(mutex, true);
  ASSERT_TRUE(reader1.Holds());
  Holder writer(mutex, false);
  ASSERT_TRUE(writer.Waits());
  Holder reader2(mutex, true);
  EXPECT_TRUE(reader2.Holds()) << "a reader gets in while a writer waits";
  reader1.Finish();
  reader2.Finish();
  ASSERT_TRUE(writer.Holds());
  EXPECT_GT(writer.entered.load(), reader2.left.load()) << "the writer waits for the last reader";
  Holder reader3(mutex, true), reader4(mutex, true), writer2(mutex, false);
  writer2.release = true;  // writer2 lets go at once when it gets in
  for (Holder* waiting : {&reader3, &reader4, &writer2}) ASSERT_TRUE(waiting->Waits());
  writer.Finish();
  EXPECT_TRUE(reader3.Holds()) << "the one release woke both readers";
  EXPECT_TRUE(reader4.Holds());
  EXPECT_GT(reader3.entered.load(), writer.left.load());
  EXPECT_GT(reader4.entered.load(), writer.left.load());
  reader3.Finish(), reader4.Finish();  // before the writer that waits for them
}

}  // namespace
