// game-client's network figures: missed, late and repeated ticks, jitter, interval edges,
// the status line's fit, the replica's freshness.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <vector>

#include "client/Freshness.h"
#include "client/Sandbox.h"
#include "client/Stats.h"
#include "client/Status.h"
#include "game/Host.h"
#include "game/Networking.h"

namespace {

using gameclient::SequenceTracker;

TEST(SequenceTracker, CountsTicksNeverSeenOnceTheWindowHasPassedThem) {
  const struct {
    const char* name;
    std::vector<uint64_t> sequences;
    uint64_t missed, missedWithPending, late, repeats;
  } rows[] = {
      {"in order", {5, 6, 7}, 0, 0, 0, 0},
      {"a gap is pending inside the window", {1, 2, 5}, 0, 2, 0, 0},
      {"and missed beyond it", {1, 2, 5, 69}, 2, 65, 0, 0},
      {"a leap past the window", {1, 1000}, 935, 998, 0, 0},
      {"reordered ticks arrive late, not missed", {1, 4, 3, 2, 68}, 0, 63, 2, 0},
      {"split ticks and duplicates repeat", {1, 1, 2, 2, 1}, 0, 0, 0, 3},
      {"a late one filled after a repeat", {10, 12, 12, 11}, 0, 0, 1, 1},
      {"too old to tell is none of these", {100, 30}, 0, 0, 0, 0},
  };
  for (const auto& row : rows) {
    SequenceTracker tracker;
    for (uint64_t s : row.sequences) tracker.Add(s);
    EXPECT_EQ(tracker.Missed(), row.missed) << row.name;
    EXPECT_EQ(tracker.Missed(true), row.missedWithPending) << row.name;
    EXPECT_EQ(tracker.Late(), row.late) << row.name;
    EXPECT_EQ(tracker.Repeats(), row.repeats) << row.name;
  }
}

TEST(Jitter, FollowsTransitChangesAndLatenessIsAboveTheBestTransit) {
  gameclient::Jitter steady, wobbly;
  // Clocks 100 s apart: a steady transit has no jitter and no lateness.
  for (int i = 0; i < 20; ++i) EXPECT_NEAR(steady.Add(100.0 + i * 0.05, i * 0.05), 0.0, 1e-9);
  EXPECT_NEAR(steady.Seconds(), 0.0, 1e-9);
  double expected = 0;
  for (int i = 0; i < 20; ++i) {
    const double late = i % 2 ? 0.010 : 0.0;
    EXPECT_NEAR(wobbly.Add(100.0 + i * 0.05 + late, i * 0.05), late, 1e-9);
    if (i > 0) expected += (0.010 - expected) / 16;
  }
  EXPECT_NEAR(wobbly.Seconds(), expected, 1e-9);
}

TEST(StatusText, FitsTheWidthWithWholeItemsAndWarnsFirstOfSilence) {
  gameclient::Second s;
  s.seconds = 0.5;
  s.in = {20, 8000};
  s.entities = 16;
  const std::string quiet = gameclient::StatusText(s, 80, "game-client: ");
  EXPECT_EQ(quiet.substr(0, 53), "game-client: 16 entities | in 40/s 16.0 kB/s | missed");
  s.silentMs = 2500;
  for (size_t width : {30, 47, 80, 200}) {
    const std::string line = gameclient::StatusText(s, width, "game-client: ");
    EXPECT_LE(line.size(), width);
    EXPECT_EQ(line.rfind("game-client: NOTHING FOR 2.5 s", 0), 0u) << line;
    EXPECT_NE(line.back(), ' ') << line;
  }
}

std::vector<unsigned char> StateDatagram(uint8_t code, double serverTime, uint64_t sequence) {
  std::vector<unsigned char> bytes(61, 0);
  std::memcpy(bytes.data(), networking::MAGIC, 8);
  bytes[8] = code;
  std::memcpy(&bytes[9], &serverTime, 8);
  std::memcpy(&bytes[17], &sequence, 8);
  return bytes;
}

TEST(NetworkStats, EachIntervalCountsOnlyWhatArrivedInIt) {
  using Clock = gameclient::NetworkStats::Clock;
  gameclient::NetworkStats stats;
  const auto t0 = Clock::now();
  auto deliver = [&](uint8_t code, uint64_t sequence, int ms) {
    const auto d = StateDatagram(code, sequence * 0.05, sequence);
    stats.Delivered(d.data(), d.size(), t0 + std::chrono::milliseconds(ms));
  };
  deliver(networking::MSG_TRANSFORMS, 1, 0);
  deliver(networking::MSG_PHYSICS, 1, 1);
  deliver(networking::MSG_TRANSFORMS, 3, 100);
  stats.Sent(30);
  const gameclient::Second first = stats.Take(nullptr, t0 + std::chrono::milliseconds(999));
  deliver(networking::MSG_TRANSFORMS, 2, 1000);
  deliver(networking::MSG_TRANSFORMS, 66, 1001);
  const gameclient::Second second = stats.Take(nullptr, t0 + std::chrono::milliseconds(1999));
  EXPECT_EQ(first.in.datagrams, 3u);
  EXPECT_EQ(first.in.bytes, 183u);
  EXPECT_EQ(first.out.bytes, 30u);
  EXPECT_EQ(first.transforms, 2u);
  EXPECT_EQ(first.physics, 1u);
  EXPECT_EQ(first.transformTicks.late, 0u);
  EXPECT_EQ(second.in.datagrams, 2u);
  EXPECT_EQ(second.out.datagrams, 0u);
  EXPECT_EQ(second.transformTicks.late, 1u);
  EXPECT_EQ(second.transformTicks.missed, 0u) << "ticks 4 to 65 are still inside the window";
  EXPECT_EQ(stats.TransformTotals().missed, 62u);
  EXPECT_FALSE(second.simulated);
}

// The server stops updating one entity: it becomes the stalest, with the server time of the
// round that saw its last change, and ages round by round, whether a round is scanned in
// frame-sized steps or at once. The same values sent again are no news, a Sync alone is; a
// destroyed entity is forgotten.
TEST(Freshness, AnEntityLeftAloneBecomesTheStalestWithTheTickItLastHeardOf) {
  using game::entity::ClientSideEntity;
  sandbox::Load("TEST_fresh");
  std::vector<ClientSideEntity::Ptr> e;
  for (uint64_t i = 1; i <= 3; ++i) {
    e.push_back(ClientSideEntity::Create<ClientSideEntity>({i, i}, "TEST_fresh", "ship"));
  }
  gameclient::Freshness freshness;
  gameclient::FreshnessFigures f = freshness.Scan(1.0, 0.5);
  for (int t = 2; t <= 4; ++t) {
    e[0]->targetPosition = glm::dvec3(t, 0, 0);
    e[2]->velocity = glm::dvec3(0, t, 0);
    freshness.Step(t, t - 0.5, 2.0);  // half of the round, which the scan finishes
    f = freshness.Scan(t, t - 0.5);
    EXPECT_EQ(f.counted, 3u);
    ASSERT_EQ(f.stalest.size(), 3u);
    EXPECT_EQ(f.stalest[0].id, e[1]->id.ToString());
    EXPECT_EQ(f.stalest[0].ageMs, 1000.0 * (t - 1));
    EXPECT_EQ(f.stalest[0].serverTime, 0.5);
    EXPECT_EQ(f.stalest[1].ageMs, 0.0);
    EXPECT_EQ(f.stalest[1].serverTime, t - 0.5);
  }
  EXPECT_EQ(f.ageMs.median, 0.0);
  EXPECT_EQ(f.ageMs.p99, 3000.0);
  e[0]->targetPosition = glm::dvec3(4, 0, 0);
  orvex::filesystem::ReadOnlyStream none;
  e[1]->interface->Sync(none);
  const game::entity::Id gone = e[2]->id;
  e.pop_back(), ClientSideEntity::Destroy(gone);
  f = freshness.Scan(5, 4.5);
  ASSERT_EQ(f.stalest.size(), 2u);
  EXPECT_EQ(f.stalest[0].id, e[0]->id.ToString());
  EXPECT_EQ(f.stalest[0].ageMs, 1000.0);
  EXPECT_EQ(f.stalest[0].serverTime, 3.5);
  EXPECT_EQ(f.stalest[1].serverTime, 4.5);
  // A round that finds the registry rehashed starts over: nobody missed or counted twice.
  for (uint64_t i = 10; i < 70; ++i) {  // ids spread over the buckets (word 1 is the hash)
    e.push_back(ClientSideEntity::Create<ClientSideEntity>({i, i * 0x9E3779B97F4A7C15ull},
                                                           "TEST_fresh", "ship"));
  }
  freshness.Step(6, 5.5, 2.0);
  {
    std::lock_guard<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    ClientSideEntity::_sharedObjects.rehash(2 * ClientSideEntity::_sharedObjects.bucket_count());
  }
  f = freshness.Scan(6, 5.5);
  EXPECT_EQ(f.counted, 62u);
  ASSERT_EQ(f.stalest.size(), 3u);
  EXPECT_EQ(f.stalest[0].ageMs, 2000.0);
  EXPECT_EQ(f.stalest[1].ageMs, 1000.0);
  EXPECT_EQ(f.stalest[2].ageMs, 0.0);
  e.clear(), orvex::engine::ResetEntities(), sandbox::UnloadAll();
}

}  // namespace
