// What the registry's hot paths know of the standard library's layout, in one place.
//
// The registry is the game's std::unordered_map<Id, Ptr>; the state passes' lookahead and the
// action walk fetch its memory ahead of use, which takes knowing where its buckets, nodes,
// cached hashes and shared pointers' counts lie. That knowledge holds for one library and a
// range of its versions (libstdc++ 9 to 14: a node is its link, then the value, then the
// cached hash; the table begins with the bucket array and the bucket count; a bucket points
// at the node before its first; a shared pointer is the object's pointer, then its count's).
// Elsewhere, or when Holds() finds the map laid out otherwise, or when a test turns it off,
// the callers take their plain path: lookups through find(), walks through iterators, no
// prefetch beyond the iterator's own node. Both paths give the same results; only their
// speed differs.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "game/entity/ClientSideEntity.h"

namespace game::entity::layout {

using Map = decltype(ClientSideEntity::_sharedObjects);

#if defined(__GLIBCXX__) && defined(_GLIBCXX_RELEASE) && _GLIBCXX_RELEASE >= 9 && \
    _GLIBCXX_RELEASE <= 14
inline constexpr bool kKnownLibrary = true;
#else
inline constexpr bool kKnownLibrary = false;
#endif

// The id's hash is not declared noexcept, so the map keeps each node's hash (and compares it
// first on every lookup); the node layout below counts on that.
static_assert(!std::is_nothrow_invocable_v<const std::hash<Id>&, const Id&>);

// A node of the map's single list.
struct NodeBase {
  NodeBase* next;
};
inline constexpr size_t kValueOffset = sizeof(NodeBase);
inline constexpr size_t kHashOffset = kValueOffset + sizeof(Map::value_type);
inline constexpr size_t kNodeBytes = kHashOffset + sizeof(size_t);

// Off for the rest of the process when a test forces the plain paths. Any thread.
inline std::atomic<bool>& ForcedOff() {
  static std::atomic<bool> off{false};
  return off;
}

// Whether the fast paths may read the map's memory at all.
inline bool Usable() {
  return kKnownLibrary && !ForcedOff().load(std::memory_order_relaxed);
}

inline const NodeBase* NodeOf(const Map::value_type& value) {
  return reinterpret_cast<const NodeBase*>(reinterpret_cast<const char*>(&value) - kValueOffset);
}
inline const Map::value_type& ValueOf(const NodeBase* node) {
  return *reinterpret_cast<const Map::value_type*>(reinterpret_cast<const char*>(node) +
                                                   kValueOffset);
}
inline size_t CachedHash(const NodeBase* node) {
  size_t hash;
  std::memcpy(&hash, reinterpret_cast<const char*>(node) + kHashOffset, sizeof hash);
  return hash;
}

inline NodeBase* const* BucketArray(const Map& map) {
  NodeBase* const* buckets = nullptr;
  std::memcpy(&buckets, &map, sizeof buckets);
  return buckets;
}

// The shared pointer's count block (where copying the pointer writes), or null.
inline const void* CountOf(const ClientSideEntity::Ptr& pointer) {
  static_assert(sizeof(ClientSideEntity::Ptr) == 2 * sizeof(void*));
  const void* count = nullptr;
  std::memcpy(&count, reinterpret_cast<const char*>(&pointer) + sizeof(void*), sizeof count);
  return count;
}

// Whether `map` is laid out as above, checked through its public interface on the bucket
// of `id` and on the first node: the bucket array and count, the node before a bucket's
// first, the value's place in a node and the cached hash. The caller holds the registry's
// lock (shared at least), and `map` is not empty.
inline bool Holds(const Map& map, const Id& id) {
  if (!Usable()) return false;
  size_t count = 0;
  std::memcpy(&count, reinterpret_cast<const char*>(&map) + sizeof(void*), sizeof count);
  if (count != map.bucket_count() || BucketArray(map) == nullptr) return false;
  const NodeBase* first = NodeOf(*map.begin());
  if (CachedHash(first) != std::hash<Id>{}(map.begin()->first)) return false;
  const size_t b = map.bucket(id);
  const NodeBase* before = BucketArray(map)[b];
  if (map.begin(b) == map.end(b)) return before == nullptr;
  return before != nullptr && before->next == NodeOf(*map.begin(b));
}

}  // namespace game::entity::layout
