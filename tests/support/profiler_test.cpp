#include "support/Profiler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

using orvex::cpu::Profiler;
using Table = std::unordered_map<std::string, Profiler::Profile>;

std::atomic<double> fakeNowNs = 0.0;
double FakeClock() {
  return fakeNowNs.load();
}
void AdvanceMs(double ms) {
  fakeNowNs = fakeNowNs.load() + ms * 1e6;
}

// Readers of the statistics take the tables' lock exclusively, as any reporter must.
Table TableOf(std::thread::id tid) {
  std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);
  auto it = Profiler::profiles.find(tid);
  return it == Profiler::profiles.end() ? Table{} : it->second;
}
Table MyTable() {
  return TableOf(std::this_thread::get_id());
}

std::vector<std::string> MyStack() {
  std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);
  auto it = Profiler::profileStacks.find(std::this_thread::get_id());
  return it == Profiler::profileStacks.end() ? std::vector<std::string>{} : it->second;
}

class ProfilerTest : public testing::Test {
 protected:
  void SetUp() override {
    wasEnabled_ = Profiler::enabled;
    Clear();
    Profiler::enabled = true;
    fakeNowNs = 1e12;
    Timer::SetClockSourceForTesting(&FakeClock);
  }
  void TearDown() override {
    Timer::SetClockSourceForTesting(nullptr);
    Profiler::enabled = wasEnabled_;
    Clear();
  }
  static void Clear() {
    std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);
    Profiler::profiles.clear();
    Profiler::profileStacks.clear();
  }

 private:
  bool wasEnabled_ = false;
};

TEST_F(ProfilerTest, DisabledLeavesTheTablesUntouched) {
  Profiler::enabled = false;
  Profiler fresh("X", true);
  AdvanceMs(2);
  fresh.Stop();
  {
    std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);
    EXPECT_TRUE(Profiler::profiles.empty());
    EXPECT_TRUE(Profiler::profileStacks.empty());
  }

  // Nor does a disabled profiler push or pop inside an enabled scope.
  Profiler::enabled = true;
  Profiler outer("Outer", true);
  Profiler::enabled = false;
  Profiler inner("Inner", true);
  EXPECT_EQ(MyStack(), std::vector<std::string>{"Outer"});
  inner.Stop();
  EXPECT_EQ(MyStack(), std::vector<std::string>{"Outer"});
  EXPECT_EQ(MyTable().count("Outer/Inner"), 0u);
  // Switching off after construction does not stop an open profiler from recording.
  AdvanceMs(3);
  outer.Stop();
  EXPECT_TRUE(MyStack().empty());
  EXPECT_EQ(MyTable().at("Outer").count, 1u);
  EXPECT_EQ(MyTable().at("Outer").totalMs, 3.0);
}

TEST_F(ProfilerTest, SameKeyAccumulatesCountTotalMinimumAndMaximum) {
  const auto measure = [](double ms) {
    Profiler p("Work", true);
    AdvanceMs(ms);
    p.Stop();
  };

  measure(3.0);
  Profiler::Profile profile = MyTable().at("Work");
  EXPECT_EQ(profile.count, 1u);
  EXPECT_EQ(profile.totalMs, 3.0);
  EXPECT_EQ(profile.minMs, 3.0) << "the first measurement replaces the -1.0 marker";
  EXPECT_EQ(profile.maxMs, 3.0);

  measure(1.0);
  measure(5.0);
  measure(2.0);
  profile = MyTable().at("Work");
  EXPECT_EQ(profile.count, 4u);
  EXPECT_EQ(profile.totalMs, 11.0);
  EXPECT_EQ(profile.minMs, 1.0);
  EXPECT_EQ(profile.maxMs, 5.0);
  EXPECT_TRUE(profile.children.empty());
  EXPECT_EQ(MyTable().size(), 1u);
}

TEST_F(ProfilerTest, AZeroLengthFirstMeasurementIsTheMinimum) {
  Profiler instant("Instant", true);
  instant.Stop();
  Profiler later("Instant", true);
  AdvanceMs(4);
  later.Stop();
  const Profiler::Profile profile = MyTable().at("Instant");
  EXPECT_EQ(profile.count, 2u);
  EXPECT_EQ(profile.minMs, 0.0);
  EXPECT_EQ(profile.maxMs, 4.0);
}

TEST_F(ProfilerTest, WithoutStartTheScopeIsOpenedButNothingIsRecorded) {
  Profiler idle("Idle", false);
  EXPECT_EQ(MyStack(), std::vector<std::string>{"Idle"});
  AdvanceMs(7);
  idle.Stop();
  EXPECT_TRUE(MyStack().empty());
  const Profiler::Profile profile = MyTable().at("Idle");
  EXPECT_EQ(profile.count, 0u);
  EXPECT_EQ(profile.totalMs, 0.0);
  EXPECT_EQ(profile.minMs, -1.0);
  EXPECT_EQ(profile.maxMs, 0.0);
}

TEST_F(ProfilerTest, NestedScopesRecordUnderPathKeys) {
  Profiler send("Client::Send", true);
  AdvanceMs(1);
  {
    Profiler inner("X", true);
    EXPECT_EQ(MyStack(), (std::vector<std::string>{"Client::Send", "X"}));
    AdvanceMs(2);
    {
      Profiler innermost("Y", true);
      AdvanceMs(4);
      innermost.Stop();
    }
    inner.Stop();
  }
  send.Stop();
  EXPECT_TRUE(MyStack().empty());

  const Table table = MyTable();
  EXPECT_EQ(table.size(), 3u);
  EXPECT_EQ(table.at("Client::Send").totalMs, 7.0);
  EXPECT_EQ(table.at("Client::Send/X").totalMs, 6.0);
  EXPECT_EQ(table.at("Client::Send/X/Y").totalMs, 4.0);

  // Once the scopes are closed the same name is a top-level key again.
  Profiler alone("X", true);
  AdvanceMs(1);
  alone.Stop();
  EXPECT_EQ(MyTable().at("X").count, 1u);
  EXPECT_EQ(MyTable().at("Client::Send/X").count, 1u);
}

TEST_F(ProfilerTest, EachThreadRecordsIntoItsOwnTable) {
  const auto run = [] {
    Profiler send("Client::Send", true);
    Profiler inner("X", true);
    inner.Stop();
    send.Stop();
  };
  run();
  std::thread::id otherId;
  std::thread other([&] {
    otherId = std::this_thread::get_id();
    run();
    run();
  });
  other.join();

  const Table mine = MyTable();
  const Table theirs = TableOf(otherId);
  EXPECT_EQ(mine.at("Client::Send").count, 1u);
  EXPECT_EQ(mine.at("Client::Send/X").count, 1u);
  EXPECT_EQ(theirs.at("Client::Send").count, 2u);
  EXPECT_EQ(theirs.at("Client::Send/X").count, 2u);
  std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);
  EXPECT_EQ(Profiler::profiles.size(), 2u);
  EXPECT_TRUE(Profiler::profileStacks.at(otherId).empty());
}

TEST_F(ProfilerTest, ThreadsProfilingAtOnceKeepTheirCounts) {
  // Many threads creating their entries and recording together; bounded work, meant
  // for the sanitizers as much as for the counts.
  constexpr int kThreads = 6;
  constexpr int kScopes = 500;
  std::vector<std::thread> threads;
  std::vector<std::thread::id> ids(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&ids, t] {
      ids[t] = std::this_thread::get_id();
      for (int i = 0; i < kScopes; ++i) {
        Profiler outer("Outer", true);
        Profiler inner("Inner" + std::to_string(i % 3), true);
        inner.Stop();
        outer.Stop();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::thread::id& id : ids) {
    const Table table = TableOf(id);
    EXPECT_EQ(table.size(), 4u);
    EXPECT_EQ(table.at("Outer").count, static_cast<uint32_t>(kScopes));
    EXPECT_EQ(table.at("Outer/Inner0").count + table.at("Outer/Inner1").count +
                  table.at("Outer/Inner2").count,
              static_cast<uint32_t>(kScopes));
  }
}

}  // namespace
