// Profiler: per-thread statistics under the path keys of the open scopes.
#include "support/Profiler.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FakeClock.h"

namespace {

using orvex::cpu::Profiler;
using testlib::FakeClock;

// Reporters take the tables' lock exclusively, as any reader of other threads' tables must.
Profiler::Profile Entry(const std::string& key, std::thread::id tid = std::this_thread::get_id()) {
  std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);
  return Profiler::profiles[tid][key];
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
  Profiler send("Client::Send", true);
  FakeClock::Advance(1);
  Profiler inner("X", true);
  Measure("Y", 4);
  inner.Stop();
  send.Stop();
  Measure("X", 0);            // once the scopes are closed, a top-level key again
  Measure("X", 4);            // a zero first measurement stays the minimum
  Measure("Idle", 7, false);  // opened but not timed
  Profiler outer("Outer", true);
  Profiler::enabled = false;  // an open profiler still records; a new one does nothing
  Measure("Inner", 2);
  outer.Stop();

  const struct {
    const char* key;
    uint32_t count;
    double total, min, max;
  } rows[] = {{"Work", 4, 11, 1, 5},
              {"Client::Send", 1, 5, 5, 5},
              {"Client::Send/X", 1, 4, 4, 4},
              {"Client::Send/X/Y", 1, 4, 4, 4},
              {"X", 2, 4, 0, 4},
              {"Idle", 0, 0, -1, 0},
              {"Outer", 1, 2, 2, 2},
              {"Outer/Inner", 0, 0, -1, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.key);
    const Profiler::Profile p = Entry(row.key);
    EXPECT_EQ(p.count, row.count);
    EXPECT_EQ(p.totalMs, row.total);
    EXPECT_EQ(p.minMs, row.min);
    EXPECT_EQ(p.maxMs, row.max);
  }
  std::lock_guard<orvex::SharedMutex> lock(Profiler::profilesMutex);
  EXPECT_TRUE(Profiler::profileStacks.at(std::this_thread::get_id()).empty());
}

TEST_F(ProfilerTest, ThreadsProfilingAtOnceRecordIntoTheirOwnTables) {
  std::vector<std::thread> threads;
  std::vector<std::thread::id> ids(6);
  for (auto& id : ids) {
    threads.emplace_back([&id] {
      id = std::this_thread::get_id();
      for (int i = 0; i < 500; ++i) {
        Profiler outer("Outer", true);
        Measure("Inner" + std::to_string(i % 2), 0);
        outer.Stop();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::thread::id& id : ids) {
    EXPECT_EQ(Entry("Outer", id).count, 500u);
    EXPECT_EQ(Entry("Outer/Inner0", id).count + Entry("Outer/Inner1", id).count, 500u);
  }
  EXPECT_EQ(Entry("Outer").count, 0u) << "nothing in this thread's table";
}

}  // namespace
