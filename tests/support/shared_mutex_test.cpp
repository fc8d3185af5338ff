// Reader-writer lock: readers share, a writer is alone, a release wakes every waiter.
#include "support/SharedMutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "Wait.h"

// Blocking is observed by state: "still waiting" is checked after a short settle, which a
// correct lock never fails and a broken one fails almost always. Every holder is released
// on the way out, so that a broken lock fails the expectations instead of hanging.
namespace {

void Settle() {
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

// A thread that takes the lock in one mode and keeps it until released.
struct Holder {
  Holder(orvex::SharedMutex& mutex, bool shared)
      : thread([this, &mutex, shared] {
          shared ? mutex.lock_shared() : mutex.lock();
          holding = true;
          testlib::WaitUntil([this] { return release.load(); }, 60000);
          holding = false;
          shared ? mutex.unlock_shared() : mutex.unlock();
        }) {}
  ~Holder() { Finish(); }
  bool Holds() {
    return testlib::WaitUntil([this] { return holding.load(); });
  }
  void Finish() {
    release = true;
    if (thread.joinable()) thread.join();
  }
  std::atomic<bool> holding = false, release = false;
  std::thread thread;
};

TEST(SharedMutex, ReadersShareItAndAWriterWaitsForTheLastOneWithoutHoldingReadersOff) {
  orvex::SharedMutex mutex;
  Holder reader1(mutex, true);
  ASSERT_TRUE(reader1.Holds());
  Holder writer(mutex, false);
  Settle();
  Holder reader2(mutex, true);
  EXPECT_TRUE(reader2.Holds()) << "a reader gets in while a writer waits";
  EXPECT_FALSE(writer.holding);
  reader1.Finish();
  Settle();
  EXPECT_FALSE(writer.holding) << "the writer waits for the last reader";
  reader2.Finish();
  EXPECT_TRUE(writer.Holds());
}

TEST(SharedMutex, AWriterKeepsEveryoneOutAndItsReleaseWakesThemAll) {
  orvex::SharedMutex mutex;
  std::unique_lock<orvex::SharedMutex> exclusive(mutex);
  Holder reader1(mutex, true), reader2(mutex, true), writer(mutex, false);
  writer.release = true;  // lets go at once when it gets in
  Settle();
  EXPECT_FALSE(reader1.holding || reader2.holding || writer.holding);
  exclusive.unlock();
  // Both readers in together: neither released, so only the one release woke them both.
  EXPECT_TRUE(reader1.Holds() && reader2.Holds());
  reader1.Finish(), reader2.Finish(), writer.Finish();
}

}  // namespace
