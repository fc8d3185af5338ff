// The registry in its own order, walked along several stretches at once.
//
// Following a hash map's single list at 100,000 entities is a chain of cache misses, one
// node after the other. The walk keeps marks (ids of nodes spread over the list as the
// last walk found it) and follows the stretches between them side by side, so that their
// misses overlap; what it finds comes out stretch by stretch, which is the list's order.
// That holds exactly when each stretch runs into the next mark: the list's relative order
// survives inserts and erases, and a rehash or a refill that reorders it makes some
// stretch miss its end, and the walk then falls back to one plain pass (and takes new
// marks from it). Each round fetches every stretch's next node and the flag of the entity it
// stands on, and tests that flag a round later, so that no step waits on a miss issued in
// its own round. Where MapLayout.h does not apply, the walk is one plain pass. One object
// per walker; the caller holds the registry's lock, shared.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "game/entity/ClientSideEntity.h"

namespace game::entity {

class RegistryWalk {
 public:
  using Visit = std::function<void(const ClientSideEntity::Ptr&)>;

  using Flag = bool ClientSideEntity::*;

  // Calls `visit`, in the registry's order, for each registered entity whose `flag` is set.
  // The registry's lock must be held, at least shared.
  void ForEach(Flag flag, const Visit& visit);

 private:
  using Map = decltype(ClientSideEntity::_sharedObjects);
  struct Stretch {
    Map::const_iterator at, stop;
    const ClientSideEntity::Ptr* tested = nullptr;  // stepped over, its flag fetched
    size_t untilMark = 0;                           // steps to the next mark
    bool done = false;
    std::vector<const ClientSideEntity::Ptr*> found;  // wanted entities, in order
    std::vector<Id> marks;                            // for the next walk, in order
  };

  static constexpr size_t kStretches = 64;
  std::vector<Id> marks_, nextMarks_;
  std::vector<Stretch> stretches_;  // the first ones in use in a walk
};

}  // namespace game::entity
