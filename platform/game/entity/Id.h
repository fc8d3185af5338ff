// Entity identifiers and placement value types.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace game::entity {

// 16 bytes: word 0 (bytes 0-7) and word 1 (bytes 8-15), each little-endian. On the wire
// the 16 bytes as they lie in memory. An id with a zero word is null ("no entity").
struct Id {
  uint64_t word0 = 0;
  uint64_t word1 = 0;

  bool operator==(const Id&) const = default;
  bool IsNull() const { return word0 == 0 || word1 == 0; }
  // The game::UniqueId text form of the same bytes (empty for a null id).
  std::string ToString() const;
};

static_assert(sizeof(Id) == 16);

// A quaternion of four doubles stored w, x, y, z; used as it is, never normalised.
struct Orientation {
  double w = 1.0;
  double x = 0.0;
  double y = 0.0;
  double z = 0.0;

  bool operator==(const Orientation&) const = default;
};

static_assert(sizeof(Orientation) == 32);

}  // namespace game::entity

// The hash of an id is its word 1; word 0 takes part in equality only. Not noexcept: the
// standard library's unordered containers then keep each node's hash beside it, and every
// lookup compares that cached hash before the words.
template <>
struct std::hash<game::entity::Id> {
  size_t operator()(const game::entity::Id& id) const { return id.word1; }
};
