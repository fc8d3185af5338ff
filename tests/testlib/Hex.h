// Byte strings for comparisons: hex text that shows where two strings differ, and patterns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace testlib {

using Bytes = std::vector<uint8_t>;

// Bytes as hex text, 16 to a line, so that a failed comparison shows where they differ.
std::string Hex(const Bytes& bytes);
// Payload bytes seed, seed + 1, ... of length `size`.
Bytes Pattern(size_t size, uint8_t seed = 0);
// The characters of `text` as bytes.
Bytes TextBytes(const std::string& text);

}  // namespace testlib

#define EXPECT_HEX_EQ(actual, expected) EXPECT_EQ(::testlib::Hex(actual), ::testlib::Hex(expected))
