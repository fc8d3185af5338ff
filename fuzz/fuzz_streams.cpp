// The platform stream readers, the trust boundary for every byte a server sends: strings
// with and without a limit, embedded streams nested in one another, fixed-width values,
// on owning streams, views, copies and the in-memory Stream. The input is both the bytes
// and the program: every step reads an operation byte from the stream it works on, then
// the operation's own fields.
//
// Each read is checked against a model of the bytes (what it must return, how far it
// moves), reads past the end must yield zeros, a limit must refuse exactly the counts
// above it with a one-line std::runtime_error, and whatever was read must read back the
// same after the writers encode it again.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <glm/vec3.hpp>

#include "FuzzSupport.h"
#include "game/entity/Id.h"
#include "orvex/filesystem/Stream.h"

namespace {

using orvex::filesystem::ReadOnlyStream;
using orvex::filesystem::Stream;

constexpr int kMaxDepth = 8;
constexpr int kMaxSteps = 256;

// The bytes a stream must still hold: bytes[pos, size).
struct Model {
  const uint8_t* bytes;
  size_t size;
  size_t pos;

  size_t Left() const { return size - pos; }
  // The next `n` bytes as a read returns them (zeros beyond the end); consumes them.
  void Take(uint8_t* out, size_t n) {
    const size_t have = std::min(n, Left());
    if (have != 0) std::memcpy(out, bytes + pos, have);
    std::memset(out + have, 0, n - have);
    pos += have;
  }
  uint32_t TakeCount() {
    uint8_t raw[4];
    Take(raw, sizeof raw);
    uint32_t count;
    std::memcpy(&count, raw, sizeof count);
    return count;
  }
};

template <typename S>
void Agree(const S& stream, const Model& model) {
  if (stream.GetBufferSize() != model.Left()) fuzz::Fail("a stream lost count of its bytes");
  if (model.Left() != 0 &&
      std::memcmp(stream.GetBuffer(), model.bytes + model.pos, model.Left()) != 0) {
    fuzz::Fail("a stream's waiting bytes are not the ones it was given");
  }
}

void RoundTrip(const std::string& text) {
  Stream out;
  out.Write(text);
  std::string back;
  out.Read(back);
  if (back != text || out.GetBufferSize() != 0) fuzz::Fail("a string did not read back");
}

void RoundTrip(const ReadOnlyStream& block) {
  Stream out;
  out.Write(block);
  ReadOnlyStream back = out.ReadStream();
  if (back.GetBufferSize() != block.GetBufferSize() ||
      (block.GetBufferSize() != 0 &&
       std::memcmp(back.GetBuffer(), block.GetBuffer(), block.GetBufferSize()) != 0)) {
    fuzz::Fail("an embedded stream did not read back");
  }
}

template <typename T, typename S>
void CheckValue(S& stream, Model& model) {
  static_assert(std::is_trivially_copyable_v<T>);
  const T value = stream.template ReadValue<T>();
  uint8_t expected[sizeof(T)];
  model.Take(expected, sizeof expected);
  if (std::memcmp(&value, expected, sizeof(T)) != 0) fuzz::Fail("a value read wrong bytes");
}

// One byte, from the stream and from the model alike.
template <typename S>
uint8_t Byte(S& stream, Model& model) {
  uint8_t expected;
  model.Take(&expected, 1);
  const uint8_t got = stream.template ReadValue<uint8_t>();
  if (got != expected) fuzz::Fail("a byte read wrong");
  return got;
}

template <typename S>
void Run(S& stream, Model model, int depth, int& steps);

// One step: an operation byte, then that operation on `stream`.
template <typename S>
void Step(S& stream, Model& model, int depth, int& steps) {
  switch (Byte(stream, model) % 10) {
    case 0: {  // a string without limit of its own
      const uint32_t count = model.TakeCount();
      const size_t n = std::min<size_t>(count, model.Left());
      std::string text;
      stream.Read(text);
      if (text.size() != n || (n != 0 && std::memcmp(text.data(), model.bytes + model.pos, n))) {
        fuzz::Fail("a string read wrong bytes");
      }
      model.pos += n;
      RoundTrip(text);
      break;
    }
    case 1: {  // a string with a limit, taken from the next byte
      const unsigned long limit = Byte(stream, model) * 16ul;
      const uint32_t count = model.TakeCount();
      try {
        const std::string text = stream.ReadString(limit);
        if (count > limit) fuzz::Fail("a string above its limit was accepted");
        const size_t n = std::min<size_t>(count, model.Left());
        if (text.size() != n || (n != 0 && std::memcmp(text.data(), model.bytes + model.pos, n))) {
          fuzz::Fail("a limited string read wrong bytes");
        }
        model.pos += n;
      } catch (const std::runtime_error& refusal) {
        if (count <= limit) fuzz::Fail("a string within its limit was refused");
        fuzz::RequireOneLine(refusal.what());
      }
      break;
    }
    case 2: {  // an embedded stream, worked on in turn
      const uint32_t count = model.TakeCount();
      const size_t n = std::min<size_t>(count, model.Left());
      ReadOnlyStream block = stream.ReadStream();
      Model inner{model.bytes + model.pos, n, 0};
      model.pos += n;
      Agree(block, inner);
      RoundTrip(block);
      if (depth < kMaxDepth) Run(block, inner, depth + 1, steps);
      break;
    }
    case 3:
      CheckValue<uint64_t>(stream, model);
      break;
    case 4:
      CheckValue<double>(stream, model);
      CheckValue<float>(stream, model);
      break;
    case 5:
      CheckValue<game::entity::Id>(stream, model);
      CheckValue<glm::dvec3>(stream, model);
      break;
    case 6: {  // a read of up to 255 bytes, beyond the end as often as not
      const uint8_t n = Byte(stream, model);
      uint8_t got[255], expected[255];
      stream.Read(got, n);
      model.Take(expected, n);
      if (std::memcmp(got, expected, n) != 0) fuzz::Fail("a block read wrong bytes");
      break;
    }
    case 7: {  // a copy reads on by itself; the original stays where it was
      S copy(stream);
      Model copyModel = model;
      Agree(copy, copyModel);
      if (depth < kMaxDepth) Run(copy, copyModel, depth + 1, steps);
      break;
    }
    case 8: {  // the same bytes in the in-memory stream, and as a view
      Stream memory;
      memory.Write(stream.GetBuffer(), stream.GetBufferSize());
      if (depth < kMaxDepth) Run(memory, model, depth + 1, steps);
      if constexpr (std::is_same_v<S, ReadOnlyStream>) {
        ReadOnlyStream view = ReadOnlyStream::View(stream.GetBuffer(), stream.GetBufferSize());
        ReadOnlyStream owned(view);
        if (!owned.OwnsBytes()) fuzz::Fail("a copy of a view does not own its bytes");
        if (depth < kMaxDepth) Run(owned, model, depth + 1, steps);
      }
      break;
    }
    default: {  // skips the rest
      stream.Flush();
      model.pos = model.size;
      break;
    }
  }
  Agree(stream, model);
}

template <typename S>
void Run(S& stream, Model model, int depth, int& steps) {
  Agree(stream, model);
  while (model.Left() != 0 && steps < kMaxSteps) {
    ++steps;
    Step(stream, model, depth, steps);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ReadOnlyStream stream(data, size);
  int steps = 0;
  Run(stream, Model{stream.GetBuffer(), size, 0}, 0, steps);
  return 0;
}
