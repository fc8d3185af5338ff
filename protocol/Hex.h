// Bytes as hex text, the one form the tools' logs, stats and dumps and the tests' comparisons
// use: two lower-case digits a byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace wire {

// The first `limit` bytes, each two digits, `separator` between bytes when it is not '\0',
// and "..." when bytes were left out.
inline std::string Hex(const std::vector<uint8_t>& bytes, size_t limit = SIZE_MAX,
                       char separator = '\0') {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < bytes.size() && i < limit; ++i) {
    if (i != 0 && separator != '\0') text += separator;
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  if (bytes.size() > limit) text += "...";
  return text;
}

}  // namespace wire
