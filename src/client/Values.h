// Fixed-width values on the platform's streams: the raw little-endian bytes of the value,
// through the streams' own Write and Read of bytes.
#pragma once

#include <bit>
#include <type_traits>

#include "orvex/filesystem/Stream.h"

static_assert(std::endian::native == std::endian::little,
              "the wire encodings are the raw bytes of little-endian values");

namespace client {

template <typename T>
requires std::is_trivially_copyable_v<T>
void WriteValue(orvex::filesystem::Stream& stream, const T& value) {
  stream.Write(reinterpret_cast<const unsigned char*>(&value), sizeof(T));
}

template <typename T>
requires std::is_trivially_copyable_v<T> T ReadValue(orvex::filesystem::Stream& stream) {
  T value{};
  stream.Read(reinterpret_cast<unsigned char*>(&value), sizeof(T));
  return value;
}

}  // namespace client
