// Network simulator: settings text and the seeded fates of datagrams, on path time.
#include "net/NetworkSimulator.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace orvex::net;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

const sockaddr_in kPeer{AF_INET, htons(4000), {htonl(0x7F000001)}, {}};
const sockaddr* Peer() {
  return reinterpret_cast<const sockaddr*>(&kPeer);
}

struct Outcome {
  std::vector<uint32_t> order;  // indices in the order the path lets them out
  std::vector<long> latencyMs;  // path time each one spent inside
  SimulatedPath::Stats stats;
  bool operator==(const Outcome& other) const { return order == other.order; }
};

// Admits datagrams 0 .. count-1 carrying their index, one per millisecond of path time, and
// lets out whatever is due at each millisecond until nothing is held.
Outcome Drive(const std::string& settingsText, uint32_t count) {
  const SimulationSettings settings = SimulationSettings::Parse(settingsText);
  SimulatedPath path(settings.in, settings.seed);
  if (settings.duration.count() > 0) path.EndAt(Clock::time_point{} + settings.duration);
  Outcome run;
  HeldDatagram held;
  for (uint32_t ms = 0; ms < count || path.HasHeld(); ++ms) {
    const auto now = Clock::time_point{} + milliseconds(ms);
    while (path.PopDue(now, held)) {
      uint32_t index;
      std::memcpy(&index, held.bytes.data(), sizeof index);
      EXPECT_EQ(std::memcmp(&held.peer, &kPeer, sizeof kPeer), 0);
      run.order.push_back(index), run.latencyMs.push_back(ms - index);
    }
    const int passing =
        ms < count ? path.Admit(now, Peer(), sizeof kPeer, reinterpret_cast<uint8_t*>(&ms), 4) : 0;
    for (int c = 0; c < passing; ++c) run.order.push_back(ms), run.latencyMs.push_back(0);
  }
  run.stats = path.GetStats();
  return run;
}

TEST(SimulatedPath, FaultsAffectTheirShareWithinTheirTimesAndRepeatForASeed) {
  using Stats = SimulatedPath::Stats;
  const struct {
    const char* name;
    const char* settings;
    uint32_t count;
    uint64_t Stats::*counted;
    uint64_t low, high;  // bounds of the counted fate
    long minMs, maxMs;   // bounds of the time spent in the path
    bool inOrder;
    uint32_t untouchedFrom;  // from this index on the faults are over
  } rows[] = {
      {"loss", "loss=20%,seed=3", 10000, &Stats::dropped, 1800, 2200, 0, 0, true, 10000},
      {"duplication", "dup=10%", 10000, &Stats::duplicated, 900, 1100, 0, 0, true, 10000},
      {"delay keeps the order", "delay=5ms", 200, &Stats::delayed, 200, 200, 5, 5, true, 200},
      {"delay with jitter", "delay=40ms,jitter=10ms", 1000, &Stats::delayed, 1000, 1000, 30, 50,
       false, 1000},
      {"reordering", "reorder=25%,seed=9", 2000, &Stats::reordered, 400, 600, 0, 50, false, 2000},
      {"faults that end", "loss=50%,delay=30ms,dup=50%,for=0.1s", 200, &Stats::dropped, 30, 70, 0,
       30, false, 100},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Outcome run = Drive(row.settings, row.count);
    const Stats& stats = run.stats;
    EXPECT_EQ(stats.admitted, row.count);
    EXPECT_EQ(run.order.size(), row.count - stats.dropped + stats.duplicated);
    EXPECT_GE(stats.*row.counted, row.low);
    EXPECT_LE(stats.*row.counted, row.high);
    const auto [least, most] = std::minmax_element(run.latencyMs.begin(), run.latencyMs.end());
    EXPECT_GE(*least, row.minMs);
    EXPECT_LE(*least, row.minMs + 1) << "the hold spreads down to its least";
    EXPECT_GE(*most, row.maxMs - 1) << "the hold spreads up to its most";
    EXPECT_LE(*most, row.maxMs);
    EXPECT_EQ(std::is_sorted(run.order.begin(), run.order.end()), row.inOrder);
    EXPECT_EQ(Drive(row.settings, row.count), run) << "the same seed, the same fates";
    std::vector<uint32_t> late, each;
    for (size_t i = 0; i < run.order.size(); ++i) {
      if (run.order[i] >= row.untouchedFrom) late.push_back(run.order[i] + run.latencyMs[i]);
    }
    for (uint32_t i = row.untouchedFrom; i < row.count; ++i) each.push_back(i);
    EXPECT_EQ(late, each) << "after the faults: each once, at once, in order";
  }
  EXPECT_NE(Drive("loss=20%,seed=4", 10000), Drive("loss=20%,seed=3", 10000));
}

TEST(SimulationSettings, KeysApplyToBothDirectionsOrToTheNamedOne) {
  const SimulationSettings s = SimulationSettings::Parse(
      "loss=10%, delay=40ms,jitter=1.5ms,out.loss=2.5%,in.delay=0ms,seed=7,for=2s");
  EXPECT_EQ(std::vector<double>({s.in.loss, s.out.loss}), std::vector<double>({0.10, 0.025}));
  EXPECT_EQ(s.in.delay.count() * 1000 + s.out.delay.count(), 40000);
  EXPECT_EQ(s.in.jitter, s.out.jitter);
  EXPECT_EQ(s.in.jitter.count(), 1500);
  EXPECT_EQ(s.seed, 7u);
  EXPECT_EQ(s.duration, milliseconds(2000));
  EXPECT_EQ(SimulationSettings::Parse(" ").seed, 1u);
}

TEST(SimulationSettings, BadTextIsRefusedWithAOneLineReason) {
  for (const char* text : {"loss=5", "loss=101%", "loss=-1%", "delay=10", "delay=10s",
                           "jitter=x ms", "foo=1%", "in.seed=3", "seed=-2", "loss", ",", "loss=5%,",
                           "up.loss=5%", "dup=5%%", "delay=61000ms", "for=10"}) {
    SCOPED_TRACE(text);
    try {
      SimulationSettings::Parse(text);
      ADD_FAILURE() << "accepted";
    } catch (const std::invalid_argument& e) {
      const std::string what = e.what();
      EXPECT_EQ(what.rfind("network simulation: ", 0), 0u) << what;
      EXPECT_EQ(what.find('\n'), std::string::npos);
    }
  }
}

}  // namespace
