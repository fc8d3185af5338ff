#include "entity/Lookahead.h"

#include <cstddef>
#include <shared_mutex>

#include "entity/MapLayout.h"
#include "entity/Prefetch.h"

namespace game::entity {

namespace {

using layout::Map;
using layout::NodeBase;

// Fetches what the lookups of ids[0, count) will touch, a layer at a time over all of them
// so that their misses overlap: the buckets, the nodes before the buckets' first, the
// nodes (following a bucket's chain a little, skipping nodes by their cached hash), and the
// entities of the nodes that match.
void Prime(const Map& map, const Id* ids, size_t count) {
  constexpr size_t kMax = RegistryLookahead::kMaxAhead;
  count = count < kMax ? count : kMax;
  NodeBase* const* buckets = layout::BucketArray(map);
  size_t bucket[kMax];
  for (size_t i = 0; i < count; ++i) {
    bucket[i] = map.bucket(ids[i]);
    Prefetch<Intent::kRead>(&buckets[bucket[i]]);
  }
  const NodeBase* at[kMax];
  for (size_t i = 0; i < count; ++i) {
    at[i] = buckets[bucket[i]];
    if (at[i] != nullptr) Prefetch<Intent::kRead>(at[i]);  // only its link is read
  }
  // Each round steps every unresolved id one node on; most ids are first in their bucket.
  for (int round = 0; round < 3; ++round) {
    for (size_t i = 0; i < count; ++i) {
      if (at[i] == nullptr) continue;
      at[i] = at[i]->next;
      if (at[i] != nullptr) PrefetchNode(at[i]);
    }
    for (size_t i = 0; i < count; ++i) {
      if (at[i] == nullptr) continue;
      if (layout::CachedHash(at[i]) != ids[i].word1) continue;
      const Map::value_type& value = layout::ValueOf(at[i]);
      if (value.first != ids[i]) continue;
      PrefetchEntity(value.second);
      at[i] = nullptr;
    }
  }
  // Prefetches have no effect the compiler can see; without this it drops the whole
  // function as one whose results nobody uses.
  asm volatile("");
}

}  // namespace

ClientSideEntity::Ptr RegistryLookahead::Get(const Id* ids, size_t at, size_t count) {
  const Map& map = ClientSideEntity::_sharedObjects;
  std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
  if (layout_ == Layout::kUnknown && !map.empty()) {
    layout_ = layout::Holds(map, ids[at]) ? Layout::kChecked : Layout::kUnusable;
  }
  if (layout_ == Layout::kChecked && (at == 0 || at >= primed_)) {
    Prime(map, ids + at, count - at);
    primed_ = at + kMaxAhead;
  }
  const auto it = map.find(ids[at]);
  return it != map.end() ? it->second : nullptr;
}

}  // namespace game::entity
