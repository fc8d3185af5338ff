// Module identifiers: PREFIX_name packed into two base-37 words.
#pragma once

#include <cstdint>
#include <string>

namespace orvex {

// Digit values: space 0, '0'-'9' 1-10, letters 11-36.
inline constexpr char BASE36_UPPER_CHARS[] = " 0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
inline constexpr char BASE36_LOWER_CHARS[] = " 0123456789abcdefghijklmnopqrstuvwxyz";

namespace modular {

// On the wire 16 bytes: the prefix word, then the name word, each little-endian. Each
// word reads its part with the first character as the least significant base-37 digit.
// A zero word means "no name" and makes the text form empty.
class ModuleID {
 public:
  ModuleID() = default;
  // Parses PREFIX_name (the prefix folded to upper case, the name to lower case; 1 to 12
  // characters each, starting with a letter or a space). Invalid text assigns nothing, so
  // the identifier stays null; a character outside the alphabet makes its word zero.
  explicit ModuleID(const std::string& text);

  // PREFIX + "_" + name, or the empty text when either word is zero.
  std::string String() const;

  bool operator==(const ModuleID&) const = default;

  uint64_t prefix = 0;
  uint64_t name = 0;
};

static_assert(sizeof(ModuleID) == 16);

}  // namespace modular
}  // namespace orvex
