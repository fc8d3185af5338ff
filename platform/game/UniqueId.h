// The game's 16-byte identifier; entity ids share its bytes.
#pragma once

#include <cstdint>
#include <string>

namespace game {

struct UniqueId {
  // Bytes 0-7 and 8-15 as little-endian words.
  uint64_t word0 = 0;
  uint64_t word1 = 0;

  // 28 characters: bytes 0-3 as they are (a four-character tag), then bytes 4-15 as two
  // capital hex digits each, in memory order. Empty when either word is zero.
  operator std::string() const;
};

static_assert(sizeof(UniqueId) == 16);

}  // namespace game
