#include "entity/Lookahead.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <shared_mutex>

#include "entity/Prefetch.h"

namespace game::entity {

namespace {

using Map = decltype(ClientSideEntity::_sharedObjects);

// A node of the map's single list: the link comes first, the value follows.
struct NodeBase {
  NodeBase* next;
};

NodeBase* const* BucketArray(const Map& map) {
  NodeBase* const* buckets = nullptr;
  std::memcpy(&buckets, &map, sizeof buckets);
  return buckets;
}

// Whether the map is laid out as the lookahead reads it: checked on one non-empty bucket,
// under the caller's shared lock.
bool LayoutHolds(const Map& map, const Id& id) {
#if defined(__GLIBCXX__)
  size_t count = 0;
  std::memcpy(&count, reinterpret_cast<const char*>(&map) + sizeof(void*), sizeof count);
  if (count != map.bucket_count() || BucketArray(map) == nullptr) return false;
  const size_t b = map.bucket(id);
  const NodeBase* before = BucketArray(map)[b];
  if (map.begin(b) == map.end(b)) return before == nullptr;
  return before != nullptr && reinterpret_cast<const char*>(before->next) + sizeof(NodeBase) ==
                                  reinterpret_cast<const char*>(&*map.begin(b));
#else
  (void)map, (void)id;
  return false;
#endif
}

// Fetches what the lookups of ids[0, count) will touch, a layer at a time over all of them
// so that their misses overlap: the buckets, the nodes before the buckets' first, the
// nodes (following a bucket's chain a little), and the entities of the nodes that match.
void Prime(const Map& map, const Id* ids, size_t count) {
  constexpr size_t kMax = RegistryLookahead::kMaxAhead;
  count = count < kMax ? count : kMax;
  NodeBase* const* buckets = BucketArray(map);
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
      const auto& value = *reinterpret_cast<const Map::value_type*>(
          reinterpret_cast<const char*>(at[i]) + sizeof(NodeBase));
      if (value.first != ids[i]) continue;
      if (const ClientSideEntity* entity = value.second.get()) {
        // The reference count sits just before the entity (one allocation for both); the
        // passes read and write fields up to `stale`. Points 64 bytes apart from the count
        // to that field touch every line in between, however the entity is aligned.
        const char* bytes = reinterpret_cast<const char*>(entity);
        const char* end = reinterpret_cast<const char*>(&entity->stale + 1);
        for (const char* at = bytes - 16; at < end; at += 64) Prefetch<Intent::kWrite>(at);
        Prefetch<Intent::kWrite>(end - 1);
      }
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
    layout_ = LayoutHolds(map, ids[at]) ? Layout::kChecked : Layout::kUnusable;
  }
  if (layout_ == Layout::kChecked && (at == 0 || at >= primed_)) {
    Prime(map, ids + at, count - at);
    primed_ = at + kMaxAhead;
  }
  const auto it = map.find(ids[at]);
  return it != map.end() ? it->second : nullptr;
}

}  // namespace game::entity
