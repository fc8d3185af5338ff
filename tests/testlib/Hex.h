// Byte strings for comparisons: hex text that shows where two strings differ, and patterns.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "protocol/Hex.h"

namespace testlib {

using Bytes = std::vector<uint8_t>;

// Bytes as hex text, 16 to a line, so that a failed comparison shows where they differ.
inline std::string Hex(const Bytes& bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); i += 16) {
    text += wire::Hex(Bytes(bytes.begin() + long(i),
                            bytes.begin() + long(std::min(i + 16, bytes.size()))),
                      SIZE_MAX, ' ') +
            '\n';
  }
  return text;
}
// Payload bytes seed, seed + 1, ... of length `size`.
inline Bytes Pattern(size_t size, uint8_t seed = 0) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i);
  return bytes;
}
// The characters of `text` as bytes.
inline Bytes TextBytes(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

}  // namespace testlib

#define EXPECT_HEX_EQ(actual, expected) EXPECT_EQ(::testlib::Hex(actual), ::testlib::Hex(expected))
