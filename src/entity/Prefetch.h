// Cache-line prefetches for the registry's hot paths (the state passes' lookahead, the
// action walk). Hints only: a stale or wrong address costs bandwidth, never a fault.
#pragma once

#include <cstddef>

#include "game/entity/ClientSideEntity.h"

namespace game::entity {

enum class Intent { kRead = 0, kWrite = 1 };

template <Intent intent>
inline void Prefetch(const void* address) {
  __builtin_prefetch(address, static_cast<int>(intent), 3);
}

// A node of the registry's map: its link to the next node, then the id and the entity's
// pointer. It may straddle two lines; both are fetched.
inline void PrefetchNode(const void* node) {
  constexpr size_t kNodeBytes =
      sizeof(void*) + sizeof(decltype(ClientSideEntity::_sharedObjects)::value_type);
  Prefetch<Intent::kRead>(node);
  Prefetch<Intent::kRead>(static_cast<const char*>(node) + kNodeBytes - 1);
}

}  // namespace game::entity
