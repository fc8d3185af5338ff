// The stream readers, run by an input that is both data and program: every read agrees with a model
// of the bytes, a limit refuses exactly the counts above it, and what was read reads back the same.
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include <glm/vec3.hpp>

#include "FuzzSupport.h"
#include "filesystem/StreamValues.h"
#include "orvex/filesystem/Stream.h"

namespace {

using orvex::filesystem::ReadOnlyStream;
using orvex::filesystem::Stream;

// The bytes a stream must still hold: bytes[pos, size).
struct Model {
  const uint8_t* bytes;
  size_t size;
  size_t pos;

  size_t Left() const { return size - pos; }
  // Consumes the next `n` bytes as a read returns them (zeros beyond the end).
  void Take(void* out, size_t n) {
    const size_t have = std::min(n, Left());
    if (have != 0) std::memcpy(out, bytes + pos, have);
    std::memset(static_cast<uint8_t*>(out) + have, 0, n - have);
    pos += have;
  }
  uint32_t TakeCount() {
    uint32_t n;
    Take(&n, sizeof n);
    return n;
  }
  // A string read of `count` bytes gave `text`: it must hold the bytes that are there.
  void TakeText(const std::string& text, uint32_t count, const char* what) {
    const size_t n = std::min<size_t>(count, Left());
    if (text != std::string(reinterpret_cast<const char*>(bytes + pos), n)) fuzz::Fail(what);
    pos += n;
  }
};

template <typename S>
void Agree(const S& stream, const Model& model) {
  const std::vector<unsigned char> waiting = orvex::filesystem::BytesOf(stream);
  if (waiting.size() != model.Left() ||
      !std::equal(model.bytes + model.pos, model.bytes + model.size, waiting.data())) {
    fuzz::Fail("a stream's waiting bytes are not the ones it was given");
  }
}

template <typename T, typename S>
T CheckValue(S& stream, Model& model) {
  const T value = orvex::filesystem::ReadValue<T>(stream);
  uint8_t expected[sizeof(T)];
  model.Take(expected, sizeof expected);
  if (std::memcmp(&value, expected, sizeof(T)) != 0) fuzz::Fail("a value read wrong bytes");
  return value;
}

// Runs steps while bytes are left: an operation byte, then that operation on `stream`.
template <typename S>
void Run(S& stream, Model model, int depth, int& steps) {
  const bool deeper = depth < 8;
  Agree(stream, model);
  while (model.Left() != 0 && steps++ < 256) {
    switch (CheckValue<uint8_t>(stream, model) % 10) {
      case 0: {  // a string without limit of its own; written again, it reads back
                 // the same
        const uint32_t count = model.TakeCount();
        std::string text, back;
        stream.Read(text);
        model.TakeText(text, count, "a string read wrong bytes");
        Stream out;
        out.Write(text);
        out.Read(back);
        if (back != text || out.GetBufferSize() != 0) fuzz::Fail("a string did not read back");
        break;
      }
      case 1: {  // a string with a limit, taken from the next byte
        const unsigned long limit = CheckValue<uint8_t>(stream, model) * 16ul;
        const uint32_t count = model.TakeCount();
        try {
          const std::string text = stream.ReadString(limit);
          if (count > limit) fuzz::Fail("a string above its limit was accepted");
          model.TakeText(text, count, "a limited string read wrong bytes");
        } catch (const std::runtime_error& refusal) {
          if (count <= limit || !*refusal.what() || std::strchr(refusal.what(), '\n')) {
            fuzz::Fail("a string within its limit was refused, or not in one line");
          }
        }
        break;
      }
      case 2: {  // an embedded stream: it reads back the same when written again,
                 // then is run
        const size_t n = std::min<size_t>(model.TakeCount(), model.Left());
        ReadOnlyStream block = stream.ReadStream();
        const Model inner{model.bytes + model.pos, n, 0};
        model.pos += n;
        Agree(block, inner);
        Stream out;
        out.Write(block);
        Agree(out.ReadStream(), inner);
        if (deeper) Run(block, inner, depth + 1, steps);
        break;
      }
      case 3:
        CheckValue<uint64_t>(stream, model);
        break;
      case 4:
        CheckValue<double>(stream, model), CheckValue<float>(stream, model);
        break;
      case 5:
        CheckValue<game::entity::Id>(stream, model), CheckValue<glm::dvec3>(stream, model);
        break;
      case 6: {  // a read of up to 255 bytes, beyond the end as often as not
        const uint8_t n = CheckValue<uint8_t>(stream, model);
        uint8_t got[255], expected[255];
        stream.Read(got, n);
        model.Take(expected, n);
        if (!std::equal(got, got + n, expected)) fuzz::Fail("a block read wrong bytes");
        break;
      }
      case 7: {  // a copy reads on by itself; the original stays where it was
        S copy(stream);
        Agree(copy, model);
        if (deeper) Run(copy, model, depth + 1, steps);
        break;
      }
      case 8: {  // the same bytes in the in-memory stream, and in a read-only one of its own
        const std::vector<unsigned char> waiting = orvex::filesystem::BytesOf(stream);
        Stream memory;
        memory.Write(waiting.data(), waiting.size());
        if (deeper) Run(memory, model, depth + 1, steps);
        if constexpr (std::is_same_v<S, ReadOnlyStream>) {
          ReadOnlyStream copied(waiting.data(), waiting.size());
          if (deeper) Run(copied, model, depth + 1, steps);
        }
        break;
      }
      default:  // skips the rest
        stream.Flush();
        model.pos = model.size;
        break;
    }
    Agree(stream, model);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ReadOnlyStream stream(data, size);
  int steps = 0;
  Run(stream, Model{data, size, 0}, 0, steps);
  return 0;
}
