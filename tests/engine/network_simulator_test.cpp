// Network simulator: settings text and the seeded fates of datagrams, on path time.
#include "net/NetworkSimulator.h"

#include <gmock/gmock.h>
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
using namespace testing;
using Clock = std::chrono::steady_clock;
const sockaddr_in kPeer{AF_INET, htons(4000), {htonl(0x7F000001)}, {}};

// Admits datagrams 0 .. count-1 carrying their index, one per path millisecond, until nothing
// is held. Gives each one's index and time inside, in the order they left, and the stats.
auto Drive(const std::string& settingsText, uint32_t count) {
  const SimulationSettings settings = SimulationSettings::Parse(settingsText);
  SimulatedPath path(settings.in, settings.seed);
  if (settings.duration.count() > 0) path.EndAt(Clock::time_point{} + settings.duration);
  std::vector<std::pair<uint32_t, long>> out;
  HeldDatagram held;
  for (uint32_t ms = 0; ms < count || path.HasHeld(); ++ms) {
    const auto now = Clock::time_point{} + std::chrono::milliseconds(ms);
    while (path.PopDue(now, held)) {
      uint32_t index;
      std::memcpy(&index, held.bytes.data(), sizeof index);
      EXPECT_EQ(std::memcmp(&held.peer, &kPeer, sizeof kPeer), 0);
      out.emplace_back(index, ms - index);
    }
    const auto* peer = reinterpret_cast<const sockaddr*>(&kPeer);
    const int passing =
        ms < count ? path.Admit(now, peer, sizeof kPeer, reinterpret_cast<uint8_t*>(&ms), 4) : 0;
    for (int c = 0; c < passing; ++c) out.emplace_back(ms, 0);
  }
  return std::pair(out, path.GetStats());
}

TEST(SimulatedPath, FaultsAffectTheirShareWithinTheirTimesAndRepeatForASeed) {
  using Stats = SimulatedPath::Stats;
  const struct {
    const char* name;
    const char* settings;
    uint32_t count;
    uint64_t Stats::*counted;
    uint64_t low, high;      // bounds of the counted fate
    long minMs, maxMs;       // bounds of the time spent in the path
    uint32_t untouchedFrom;  // from this index on the faults are over
  } rows[] = {
      {"loss", "loss=20%,seed=3", 10000, &Stats::dropped, 1800, 2200, 0, 0, 10000},
      {"duplication", "dup=10%", 10000, &Stats::duplicated, 900, 1100, 0, 0, 10000},
      {"delay with jitter", "delay=40ms,jitter=10ms", 1000, &Stats::delayed, 1000, 1000, 30, 50,
       1000},
      {"reordering", "reorder=25%,seed=9", 2000, &Stats::reordered, 400, 600, 0, 50, 2000},
      {"faults that end", "loss=50%,delay=30ms,dup=50%,for=0.1s", 200, &Stats::dropped, 30, 70, 0,
       30, 100},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto [out, stats] = Drive(row.settings, row.count);
    EXPECT_EQ(stats.admitted, row.count);
    EXPECT_EQ(out.size(), row.count - stats.dropped + stats.duplicated);
    EXPECT_GE(stats.*row.counted, row.low);
    EXPECT_LE(stats.*row.counted, row.high);
    const auto [least, most] = std::minmax_element(
        out.begin(), out.end(), [](auto& a, auto& b) { return a.second < b.second; });
    EXPECT_GE(least->second, row.minMs);
    EXPECT_LE(least->second, row.minMs + 1);
    EXPECT_GE(most->second, row.maxMs - 1);
    EXPECT_LE(most->second, row.maxMs);
    EXPECT_EQ(Drive(row.settings, row.count).first, out) << "the same seed, the same fates";
    std::vector<uint32_t> late, each;
    for (const auto& [index, ms] : out) {
      if (index >= row.untouchedFrom) late.push_back(index + ms);
    }
    for (uint32_t i = row.untouchedFrom; i < row.count; ++i) each.push_back(i);
    EXPECT_EQ(late, each) << "after the faults: each once, at once, in order";
  }
  EXPECT_NE(Drive("loss=20%,seed=4", 10000).first, Drive("loss=20%,seed=3", 10000).first);
}

TEST(SimulationSettings, KeysApplyToBothDirectionsOrToTheNamedOneAndBadTextIsRefused) {
  const SimulationSettings s = SimulationSettings::Parse(
      "loss=10% , delay=40ms,jitter=1.5ms,out.loss=2.5%,in.delay=0ms,seed=7,for=2s");
  EXPECT_EQ(std::vector<double>({s.in.loss, s.out.loss}), std::vector<double>({0.10, 0.025}));
  EXPECT_EQ(s.in.delay.count() * 1000 + s.out.delay.count(), 40000);
  EXPECT_EQ(s.in.jitter, s.out.jitter);
  EXPECT_EQ(s.in.jitter.count(), 1500);
  EXPECT_EQ(s.seed, 7u);
  EXPECT_EQ(s.duration, std::chrono::seconds(2));
  EXPECT_EQ(SimulationSettings::Parse(" ").seed, 1u);
  for (const char* text : {"loss=5", "loss=101%", "loss=-1%", "delay=10", "delay=10s",
                           "jitter=x ms", "foo=1%", "in.seed=3", "seed=-2", "seed=3x", "loss", ",",
                           "loss=5%,", "up.loss=5%", "dup=5%%", "delay=61000ms", "for=10"}) {
    EXPECT_THAT([&] { SimulationSettings::Parse(text); },
                ThrowsMessage<std::invalid_argument>(
                    AllOf(StartsWith("network simulation: "), Not(HasSubstr("\n")))))
        << text;
  }
}

}  // namespace
