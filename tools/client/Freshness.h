// How fresh the replica is: for each entity, how long ago its server state last changed, and
// which entities went longest without news. docs/game-client.md, "Freshness", has the figures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "client/Stats.h"
#include "game/entity/ClientSideEntity.h"

namespace gameclient {

// Found by scanning the registry once an interval (no per-frame work): each entity's state
// that traffic sets (parent, target transform, velocity, physics extra, update rate, the flag
// bytes, how many Sync calls its interface had) is folded into a fingerprint; when that
// differs from the last scan's, the entity changed at this scan. So a change is seen at the
// first scan after it, and ages come in steps of the scan interval (0: changed since the last
// scan); the same values sent again are no change. What a scan saw of an entity is kept on
// its sandbox interface (SandboxInterface::seen), so an entity's record costs 24 bytes there
// and 16 in the scan's own lists, and goes with the entity; entities without a sandbox
// interface are not counted. A scan reads each entity once, with its lines fetched ahead.
// Not thread-safe: one scanner in the process (the game thread), which must not hold the
// registry's lock.
class Freshness {
 public:
  static constexpr size_t kStalest = 3;

  using Figures = FreshnessFigures;

  // Walks the registry under its shared lock; `now` in seconds (any origin, never going back),
  // `serverTime` the server time the client knows. Entities that are gone are forgotten.
  Figures Scan(double now, double serverTime);

 private:
  static constexpr size_t kAhead = 8;
  std::vector<const game::entity::ClientSideEntity*> entities_;  // the scan's, kept for reuse
};

}  // namespace gameclient
