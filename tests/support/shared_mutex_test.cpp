#include "support/SharedMutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

// Blocking is observed by state: a thread raises a flag once it holds the lock, and the
// test waits for flags with generous time-outs. "Still waiting" is checked after a short
// settle; a correct lock never fails that check, a broken one fails it almost always.
// Every case ends by releasing whatever the main thread holds, so that a broken lock
// fails the expectations instead of hanging the test.
namespace {

using namespace std::chrono_literals;

constexpr auto kGenerous = 10s;

bool WaitUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kGenerous;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

void Settle() {
  std::this_thread::sleep_for(50ms);
}

// A thread that takes the lock in one mode, raises `holding`, and keeps the lock until
// `release` is raised.
class Holder {
 public:
  enum Mode { kShared, kExclusive };

  Holder(orvex::SharedMutex& mutex, Mode mode)
      : thread_([this, &mutex, mode] {
          trying = true;
          if (mode == kShared) {
            std::shared_lock<orvex::SharedMutex> lock(mutex);
            Hold();
          } else {
            std::unique_lock<orvex::SharedMutex> lock(mutex);
            Hold();
          }
        }) {
    WaitUntil([this] { return trying.load(); });
  }
  ~Holder() { Finish(); }

  void Release() { release = true; }
  void Finish() {
    release = true;
    if (thread_.joinable()) thread_.join();
  }

  std::atomic<bool> trying = false;
  std::atomic<bool> holding = false;
  std::atomic<bool> release = false;
  std::atomic<bool> done = false;

 private:
  void Hold() {
    holding = true;
    WaitUntil([this] { return release.load(); });
    holding = false;
    done = true;
  }

  std::thread thread_;
};

TEST(SharedMutexExclusion, TwoSharedHoldersAtOnceKeepAWriterOut) {
  orvex::SharedMutex mutex;
  Holder reader1(mutex, Holder::kShared);
  ASSERT_TRUE(WaitUntil([&] { return reader1.holding.load(); }));
  Holder reader2(mutex, Holder::kShared);
  EXPECT_TRUE(WaitUntil([&] { return reader2.holding.load(); }))
      << "a second reader must be admitted while the first holds the lock";

  Holder writer(mutex, Holder::kExclusive);
  Settle();
  EXPECT_FALSE(writer.holding);

  reader1.Finish();
  Settle();
  EXPECT_FALSE(writer.holding) << "the writer must wait for the last reader";

  reader2.Finish();
  EXPECT_TRUE(WaitUntil([&] { return writer.holding.load(); }));
}

TEST(SharedMutexExclusion, ExclusiveHolderKeepsEveryoneOutAndItsReleaseWakesThemAll) {
  orvex::SharedMutex mutex;
  std::unique_lock<orvex::SharedMutex> exclusive(mutex);

  Holder reader1(mutex, Holder::kShared);
  Holder reader2(mutex, Holder::kShared);
  Holder writer(mutex, Holder::kExclusive);
  // The readers keep their lock until both are in; the writer lets go at once.
  writer.Release();
  Settle();
  EXPECT_FALSE(reader1.holding);
  EXPECT_FALSE(reader2.holding);
  EXPECT_FALSE(writer.done);

  exclusive.unlock();
  // One release must wake all three: the writer may go first, then both readers are in
  // together (neither has released, so only that release can have woken the other).
  EXPECT_TRUE(WaitUntil([&] { return reader1.holding && reader2.holding; }));
  reader1.Finish();
  reader2.Finish();
  writer.Finish();
  EXPECT_TRUE(writer.done);
}

TEST(SharedMutexExclusion, AWriterWaitsForAnotherWriter) {
  orvex::SharedMutex mutex;
  Holder first(mutex, Holder::kExclusive);
  ASSERT_TRUE(WaitUntil([&] { return first.holding.load(); }));
  Holder second(mutex, Holder::kExclusive);
  Settle();
  EXPECT_FALSE(second.holding);
  first.Finish();
  EXPECT_TRUE(WaitUntil([&] { return second.holding.load(); }));
}

TEST(SharedMutexFairness, OverlappingReadersKeepAWriterWaiting) {
  // No writer preference: new readers are admitted while a writer waits, so readers
  // that keep overlapping hold the writer off for as long as they come.
  orvex::SharedMutex mutex;
  // Declared first so that it is joined last, after every reader has let go.
  std::unique_ptr<Holder> writer;
  auto current = std::make_unique<Holder>(mutex, Holder::kShared);
  ASSERT_TRUE(WaitUntil([&] { return current->holding.load(); }));
  writer = std::make_unique<Holder>(mutex, Holder::kExclusive);

  for (int round = 0; round < 5; ++round) {
    auto next = std::make_unique<Holder>(mutex, Holder::kShared);
    ASSERT_TRUE(WaitUntil([&] { return next->holding.load(); }))
        << "a reader must get in while only readers hold the lock, round " << round;
    current->Finish();
    current = std::move(next);
    Settle();
    ASSERT_FALSE(writer->holding) << "round " << round;
  }

  current->Finish();
  EXPECT_TRUE(WaitUntil([&] { return writer->holding.load(); }));
}

TEST(SharedMutexStress, CountersStayConsistentUnderMixedLoad) {
  // Writers check that they are alone, readers that no writer is in. Bounded work.
  orvex::SharedMutex mutex;
  std::atomic<int> readers = 0;
  std::atomic<int> writers = 0;
  std::atomic<int> violations = 0;
  long total = 0;  // written by writers only, read by readers
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        if ((i + t) % 4 == 0) {
          std::unique_lock<orvex::SharedMutex> lock(mutex);
          if (writers.fetch_add(1) != 0 || readers.load() != 0) ++violations;
          ++total;
          writers.fetch_sub(1);
        } else {
          std::shared_lock<orvex::SharedMutex> lock(mutex);
          readers.fetch_add(1);
          if (writers.load() != 0) ++violations;
          volatile long seen = total;
          (void)seen;
          readers.fetch_sub(1);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(violations, 0);
  EXPECT_EQ(total, 2000);
}

}  // namespace
