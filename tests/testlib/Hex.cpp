#include "Hex.h"

namespace testlib {

std::string Hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0xF];
    text += (i % 16 == 15 || i + 1 == bytes.size()) ? '\n' : ' ';
  }
  return text;
}

Bytes Pattern(size_t size, uint8_t seed) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed + i);
  return bytes;
}

Bytes TextBytes(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

}  // namespace testlib
