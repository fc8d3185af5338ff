// Registry lookups in a row, with the memory of the coming ones fetched ahead.
//
// A state pass looks up one entity per record. At 100,000 entities each lookup misses the
// cache on the bucket, on the node before the bucket's first, on the node and on the
// entity, one after the other, and the registry lock's locked instructions keep the
// processor from running ahead into the next record's misses. RegistryLookahead::Get looks
// an id up as ClientSideEntity::Get does (one shared acquisition of the registry's lock, one
// shared pointer); the first lookup of a row, while it holds the lock, also fetches what
// the next 64 will touch, a layer at a time over all of them (buckets, the nodes before
// them, the nodes, the entities), so that their misses overlap and each later lookup finds
// its lines in the cache.
//
// Prefetches are hints: a stale or wrong address costs bandwidth, never a fault. The loads
// from inside the map (buckets and the nodes they lead to) are made under the shared lock,
// which keeps every writer out, and only once layout::Holds() has checked the map against
// what MapLayout.h knows of it; where it does not hold, Get is a plain lookup. One object
// per pass, on one thread.
#pragma once

#include <cstddef>

#include "game/entity/ClientSideEntity.h"

namespace game::entity {

class RegistryLookahead {
 public:
  static constexpr size_t kMaxAhead = 64;

  // Looks up ids[at]; ids[at + 1] .. ids[count - 1] are the lookups to come, in order.
  // Call with at = 0, 1, 2, ... for one array of ids.
  ClientSideEntity::Ptr Get(const Id* ids, size_t at, size_t count);

 private:
  size_t primed_ = 0;  // ids before this one have had their memory fetched
  enum class Layout { kUnknown, kChecked, kUnusable };
  Layout layout_ = Layout::kUnknown;
};

}  // namespace game::entity
