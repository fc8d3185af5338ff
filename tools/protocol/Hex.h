// Bytes as hex text, the one form the tools' logs, stats and dumps and the tests' comparisons
// use: two lower-case digits a byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <span>
#include <string>
#include <vector>

namespace wire {

inline constexpr char kHexDigits[] = "0123456789abcdef";

// The first `limit` bytes, each two digits, `separator` between bytes when it is not '\0',
// and "..." when bytes were left out.
inline std::string Hex(const std::vector<uint8_t>& bytes, size_t limit = SIZE_MAX,
                       char separator = '\0') {
  std::string text;
  for (size_t i = 0; i < bytes.size() && i < limit; ++i) {
    if (i != 0 && separator != '\0') text += separator;
    text += kHexDigits[bytes[i] >> 4];
    text += kHexDigits[bytes[i] & 15];
  }
  if (bytes.size() > limit) text += "...";
  return text;
}

// All the bytes as Hex() gives them, written to `out` a piece at a time: a payload of
// 16 MiB never becomes a 32 MiB text in memory.
inline void WriteHex(std::ostream& out, std::span<const uint8_t> bytes) {
  char piece[8192];
  size_t used = 0;
  for (uint8_t byte : bytes) {
    piece[used++] = kHexDigits[byte >> 4];
    piece[used++] = kHexDigits[byte & 15];
    if (used == sizeof piece) out.write(piece, static_cast<std::streamsize>(used)), used = 0;
  }
  out.write(piece, static_cast<std::streamsize>(used));
}

}  // namespace wire
