// How fresh the replica is: for each entity, how long ago its server state last changed, and
// which entities went longest without news. docs/game-client.md, "Freshness", has the figures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "client/Stats.h"
#include "game/entity/ClientSideEntity.h"

namespace gameclient {

// Found by scanning the registry in rounds, a slice of its buckets each frame so that a round
// takes about an interval (a whole scan at 100,000 entities would hold one frame for tens
// of milliseconds): each entity's state that traffic sets (parent, target transform,
// velocity, physics extra, update rate, the flag bytes, how many Sync calls its interface
// had) is folded into a fingerprint; when that differs from what the last round saw, the
// entity changed when this round reached it. So a change is seen within a round, ages come
// in steps of about the interval (0: changed since the last round), and the same values sent
// again are no change. What a round saw of an entity is kept on its sandbox interface
// (SandboxInterface::seen), 24 bytes that go with the entity; entities without a sandbox
// interface are not counted. A round that finds the registry rehashed (it grew) starts over.
// Not thread-safe: one scanner in the process (the game thread), which must not hold the
// registry's lock.
class Freshness {
 public:
  static constexpr size_t kStalest = 3;

  using Figures = FreshnessFigures;

  // Scans the share of the registry's buckets that the time since the last step is of
  // `interval`, under the registry's shared lock. `now` in seconds (any origin, never going
  // back), `serverTime` the server time the client knows.
  void Step(double now, double serverTime, double interval);
  // Ends the round: scans what it has not reached yet and returns its figures. The next
  // step begins a new round.
  Figures Scan(double now, double serverTime);

 private:
  struct Candidate {
    game::entity::Id id;
    double changedAt;
    double serverTime;
  };
  static constexpr size_t kAhead = 8;

  // Scans buckets from next_ on, `share` of them (1: all that are left).
  void ScanBuckets(double share, double now, double serverTime);

  // The round so far.
  std::vector<double> ages_;
  std::vector<Candidate> stalest_;  // oldest first
  double scanMs_ = 0;
  size_t buckets_ = 0;  // the registry's bucket count when the round began
  size_t next_ = 0;     // the first bucket the round has not scanned
  double lastStep_ = 0;
  std::vector<const game::entity::ClientSideEntity*> entities_;  // a slice's, kept for reuse
};

}  // namespace gameclient
