// Host helpers for the platform's streams: fixed-width values, the block cap, and the
// waiting bytes of a stream, all through the streams' declared operations.
#pragma once

#include "HostOnly.h"

#include <bit>
#include <type_traits>
#include <vector>

#include "orvex/filesystem/Stream.h"

static_assert(std::endian::native == std::endian::little,
              "the wire encodings are the raw bytes of little-endian values");

namespace orvex::filesystem {

// The largest string or embedded stream that a socket read accepts (16 MiB).
inline constexpr unsigned long kMaxBlockSize = 16ul << 20;

// Raw little-endian bytes of a fixed-width value.
template <typename T>
requires std::is_trivially_copyable_v<T>
void WriteValue(Stream& stream, const T& value) {
  stream.Write(reinterpret_cast<const unsigned char*>(&value), sizeof(T));
}
template <typename T>
requires std::is_trivially_copyable_v<T> T ReadValue(Stream& stream) {
  T value{};
  stream.Read(reinterpret_cast<unsigned char*>(&value), sizeof(T));
  return value;
}

// A copy of the bytes waiting in an in-memory, read-only or write-only stream; `stream` is
// unchanged.
std::vector<unsigned char> BytesOf(const Stream& stream);

// How far a read-only stream has been read.
inline unsigned long PositionOf(const ReadOnlyStream& stream) {
  return stream.GetSize() - stream.GetBufferSize();
}

}  // namespace orvex::filesystem
