#include "game/UniqueId.h"

#include <cstring>

#include "game/entity/Id.h"

namespace game {

UniqueId::operator std::string() const {
  if (word0 == 0 || word1 == 0) return {};
  static constexpr char kHex[] = "0123456789ABCDEF";
  unsigned char bytes[16];
  std::memcpy(bytes, &word0, 8);
  std::memcpy(bytes + 8, &word1, 8);
  std::string text(reinterpret_cast<const char*>(bytes), 4);  // the tag, zero bytes included
  text.reserve(28);
  for (int i = 4; i < 16; ++i) {
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 0x0F];
  }
  return text;
}

}  // namespace game

namespace game::entity {

std::string Id::ToString() const {
  return std::string(UniqueId{word0, word1});
}

}  // namespace game::entity
