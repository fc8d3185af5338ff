// Cache-line prefetches for the registry's hot paths (the state passes' lookahead, the
// action walk). Hints only: a stale or wrong address costs bandwidth, never a fault.
#pragma once

#include <cstddef>

#include "entity/MapLayout.h"

namespace game::entity {

enum class Intent { kRead = 0, kWrite = 1 };

template <Intent intent>
inline void Prefetch(const void* address) {
  __builtin_prefetch(address, static_cast<int>(intent), 3);
}

// What a walk reads of a node of the registry's map (see MapLayout.h): its link and its
// value, not the cached hash after them. The second line is fetched only when they
// straddle one.
inline void PrefetchNode(const void* node) {
  Prefetch<Intent::kRead>(node);
  const char* end = static_cast<const char*>(node) + layout::kHashOffset - 1;
  if (((reinterpret_cast<uintptr_t>(node) ^ reinterpret_cast<uintptr_t>(end)) & ~uintptr_t{63}) !=
      0) {
    Prefetch<Intent::kRead>(end);
  }
}

// What a state pass touches of an entity: the pointer's count block (copying the pointer
// writes it) and the entity's lines up to `stale`. Points 64 bytes apart from the start to
// that field touch every line in between, however the entity is aligned.
inline void PrefetchEntity(const ClientSideEntity::Ptr& pointer) {
  const ClientSideEntity* entity = pointer.get();
  if (entity == nullptr) return;
  if (const void* count = layout::CountOf(pointer)) Prefetch<Intent::kWrite>(count);
  const char* bytes = reinterpret_cast<const char*>(entity);
  const char* end = reinterpret_cast<const char*>(&entity->stale + 1);
  for (const char* at = bytes; at < end; at += 64) Prefetch<Intent::kWrite>(at);
  Prefetch<Intent::kWrite>(end - 1);
}

}  // namespace game::entity
