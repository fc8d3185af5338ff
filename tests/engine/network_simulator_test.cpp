// The network condition simulator: settings syntax, seeded fates (counts, never timings: time
// is an argument of the path), and the sender thread of the outgoing direction.
#include "net/NetworkSimulator.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using orvex::net::HeldDatagram;
using orvex::net::NetworkSimulator;
using orvex::net::PathConditions;
using orvex::net::SimulatedPath;
using orvex::net::SimulationSettings;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

const sockaddr_in kPeer = [] {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(4000);
  peer.sin_addr.s_addr = htonl(0x7F000001);
  return peer;
}();

const sockaddr* Peer() {
  return reinterpret_cast<const sockaddr*>(&kPeer);
}

// Admits `count` datagrams carrying their index, one per millisecond of path time, and
// returns the indices in the order the path lets them out (held ones as they fall due).
std::vector<uint32_t> Drive(SimulatedPath& path, uint32_t count) {
  std::vector<uint32_t> out;
  const auto start = Clock::time_point{};
  HeldDatagram held;
  auto drain = [&](Clock::time_point now) {
    while (path.PopDue(now, held)) {
      uint32_t index;
      std::memcpy(&index, held.bytes.data(), sizeof index);
      out.push_back(index);
    }
  };
  for (uint32_t i = 0; i < count; ++i) {
    const auto now = start + milliseconds(i);
    drain(now);
    int passing =
        path.Admit(now, Peer(), sizeof kPeer, reinterpret_cast<const unsigned char*>(&i), sizeof i);
    for (int c = 0; c < passing; ++c) out.push_back(i);
  }
  drain(start + milliseconds(count) + std::chrono::hours(1));
  return out;
}

SimulatedPath PathFor(const std::string& settings) {
  SimulationSettings parsed = SimulationSettings::Parse(settings);
  return SimulatedPath(parsed.in, parsed.seed);
}

// ---------------------------------------------------------------------------------------

TEST(SimulationSettings, KeysApplyToBothDirectionsOrToTheNamedOne) {
  SimulationSettings settings = SimulationSettings::Parse(
      "loss=10%, delay=40ms,jitter=20ms,reorder=20%,dup=5%,out.loss=2.5%,in.delay=0ms,seed=7");
  EXPECT_DOUBLE_EQ(settings.in.loss, 0.10);
  EXPECT_DOUBLE_EQ(settings.out.loss, 0.025);
  EXPECT_EQ(settings.in.delay, milliseconds(0));
  EXPECT_EQ(settings.out.delay, milliseconds(40));
  EXPECT_EQ(settings.in.jitter, milliseconds(20));
  EXPECT_DOUBLE_EQ(settings.out.reorder, 0.20);
  EXPECT_DOUBLE_EQ(settings.in.duplicate, 0.05);
  EXPECT_EQ(settings.seed, 7u);

  SimulationSettings outOnly = SimulationSettings::Parse("out.delay=1.5ms");
  EXPECT_FALSE(outOnly.in.Active());
  EXPECT_TRUE(outOnly.out.Holds());
  EXPECT_EQ(outOnly.out.delay, std::chrono::microseconds(1500));
  EXPECT_EQ(outOnly.seed, 1u);
}

TEST(SimulationSettings, BadTextIsRefusedWithAOneLineReason) {
  const char* bad[] = {"loss=5",      "loss=101%", "loss=-1%",   "delay=10", "delay=10s",
                       "jitter=x ms", "foo=1%",    "in.seed=3",  "seed=-2",  "loss",
                       ",",           "loss=5%,",  "up.loss=5%", "dup=5%%",  "delay=61000ms"};
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    try {
      SimulationSettings::Parse(text);
      ADD_FAILURE() << "accepted";
    } catch (const std::invalid_argument& e) {
      std::string what = e.what();
      EXPECT_EQ(what.rfind("network simulation: ", 0), 0u) << what;
      EXPECT_EQ(what.find('\n'), std::string::npos);
    }
  }
}

// ---------------------------------------------------------------------------------------

TEST(SimulatedPath, LossDropsItsShareAndRepeatsForASeed) {
  SimulatedPath path = PathFor("loss=20%,seed=3");
  std::vector<uint32_t> passed = Drive(path, 10000);
  const auto& stats = path.GetStats();
  EXPECT_EQ(stats.admitted, 10000u);
  EXPECT_EQ(passed.size() + stats.dropped, 10000u);
  EXPECT_GT(stats.dropped, 1800u);
  EXPECT_LT(stats.dropped, 2200u);
  EXPECT_TRUE(std::is_sorted(passed.begin(), passed.end()));

  SimulatedPath again = PathFor("loss=20%,seed=3");
  EXPECT_EQ(Drive(again, 10000), passed);
  SimulatedPath other = PathFor("loss=20%,seed=4");
  EXPECT_NE(Drive(other, 10000), passed);
}

TEST(SimulatedPath, DuplicationDeliversTheCopyRightAfterTheOriginal) {
  SimulatedPath path = PathFor("dup=10%");
  std::vector<uint32_t> passed = Drive(path, 10000);
  const auto& stats = path.GetStats();
  EXPECT_GT(stats.duplicated, 900u);
  EXPECT_LT(stats.duplicated, 1100u);
  EXPECT_EQ(passed.size(), 10000u + stats.duplicated);
  EXPECT_TRUE(std::is_sorted(passed.begin(), passed.end()));
}

TEST(SimulatedPath, DelayWithJitterHoldsEveryDatagramWithinItsWindow) {
  SimulatedPath path = PathFor("delay=40ms,jitter=10ms");
  const auto start = Clock::time_point{} + std::chrono::seconds(1);
  const unsigned char byte = 1;
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(path.Admit(start, Peer(), sizeof kPeer, &byte, 1), 0);
  EXPECT_EQ(path.GetStats().delayed, 1000u);

  HeldDatagram held;
  EXPECT_FALSE(path.PopDue(start + milliseconds(29), held));
  ASSERT_TRUE(path.HasHeld());
  EXPECT_GE(path.NextDue(), start + milliseconds(30));
  int early = 0, total = 0;
  while (path.PopDue(start + milliseconds(50), held)) {
    ++total;
    if (held.due < start + milliseconds(40)) ++early;
    EXPECT_EQ(held.bytes, std::vector<unsigned char>{1});
    EXPECT_EQ(std::memcmp(&held.peer, &kPeer, sizeof kPeer), 0);
  }
  EXPECT_EQ(total, 1000);
  EXPECT_FALSE(path.HasHeld());
  // Jitter spreads both ways around the delay.
  EXPECT_GT(early, 300);
  EXPECT_LT(early, 700);
}

TEST(SimulatedPath, ReorderingHoldsDatagramsBehindLaterOnes) {
  SimulatedPath path = PathFor("reorder=25%,seed=9");
  std::vector<uint32_t> out = Drive(path, 2000);
  const auto& stats = path.GetStats();
  EXPECT_GT(stats.reordered, 400u);
  EXPECT_LT(stats.reordered, 600u);
  EXPECT_EQ(stats.delayed, stats.reordered);
  EXPECT_FALSE(std::is_sorted(out.begin(), out.end()));
  std::vector<uint32_t> sorted = out;
  std::sort(sorted.begin(), sorted.end());
  std::vector<uint32_t> each(2000);
  for (uint32_t i = 0; i < 2000; ++i) each[i] = i;
  EXPECT_EQ(sorted, each);  // nothing lost, nothing doubled

  SimulatedPath none = PathFor("delay=5ms");
  std::vector<uint32_t> kept = Drive(none, 200);
  EXPECT_TRUE(std::is_sorted(kept.begin(), kept.end()));  // equal holds keep the order
}

TEST(SimulatedPath, FaultsEndWhenTheirTimeIsUpAndHeldDatagramsStillLeave) {
  SimulationSettings settings = SimulationSettings::Parse("loss=50%,delay=30ms,dup=50%,for=0.1s");
  EXPECT_EQ(settings.duration, milliseconds(100));
  EXPECT_EQ(SimulationSettings::Parse("loss=5%").duration, milliseconds(0));
  EXPECT_THROW(SimulationSettings::Parse("for=10"), std::invalid_argument);

  SimulatedPath path(settings.in, settings.seed);
  path.EndAt(Clock::time_point{} + milliseconds(100));
  // Drive admits one datagram per millisecond: 100 under faults, then 100 untouched.
  std::vector<uint32_t> out = Drive(path, 200);
  std::vector<uint32_t> late;
  std::copy_if(out.begin(), out.end(), std::back_inserter(late),
               [](uint32_t i) { return i >= 100; });
  std::vector<uint32_t> each(100);
  for (uint32_t i = 0; i < 100; ++i) each[i] = 100 + i;
  EXPECT_EQ(late, each);  // each once, at once, in order
  const auto& stats = path.GetStats();
  EXPECT_GT(stats.dropped, 30u);
  EXPECT_EQ(out.size() - late.size(), 100 - stats.dropped + stats.duplicated);
}

// ---------------------------------------------------------------------------------------

struct Wire {
  NetworkSimulator::SendFunction Function() {
    return [this](const sockaddr*, socklen_t, const unsigned char* data, unsigned long size) {
      std::lock_guard lock(mutex);
      sent.emplace_back(data, data + size);
      changed.notify_all();
    };
  }
  size_t WaitFor(size_t count) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(10), [&] { return sent.size() >= count; });
    return sent.size();
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::vector<unsigned char>> sent;
};

TEST(NetworkSimulator, UndelayedSendsLeaveBeforeSendReturns) {
  Wire wire;
  NetworkSimulator simulator(SimulationSettings::Parse("out.dup=100%"), wire.Function());
  const unsigned char byte = 5;
  simulator.Send(Peer(), sizeof kPeer, &byte, 1);
  std::lock_guard lock(wire.mutex);
  EXPECT_EQ(wire.sent.size(), 2u);
}

TEST(NetworkSimulator, TheSenderThreadSendsHeldDatagramsAndStopDropsTheRest) {
  Wire wire;
  NetworkSimulator simulator(SimulationSettings::Parse("out.delay=2ms,out.jitter=1ms"),
                             wire.Function());
  for (unsigned char i = 0; i < 20; ++i) simulator.Send(Peer(), sizeof kPeer, &i, 1);
  EXPECT_EQ(wire.WaitFor(20), 20u);
  simulator.StopSender();

  NetworkSimulator slow(SimulationSettings::Parse("out.delay=60000ms"), wire.Function());
  const unsigned char byte = 1;
  slow.Send(Peer(), sizeof kPeer, &byte, 1);
  slow.StopSender();
  EXPECT_EQ(slow.OutStats().delayed, 1u);
  slow.StopSender();  // idempotent
  std::lock_guard lock(wire.mutex);
  EXPECT_EQ(wire.sent.size(), 20u);
}

}  // namespace
