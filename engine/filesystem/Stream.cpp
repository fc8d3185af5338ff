// The engine's byte streams. Byte order and encodings are stated once, in Stream.h:
// little-endian fixed-width values, u32 counts before strings and embedded streams.
#include "orvex/filesystem/Stream.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>

#include "filesystem/StreamValues.h"

namespace orvex::filesystem {
namespace {

// Growth step for blocks read from unbounded streams: memory follows the bytes that
// really arrive, so a hostile count below the cap costs at most twice what was sent.
constexpr unsigned long kBlockChunk = 64ul << 10;

// Reads `count` bytes into `out` (a std::string or a byte vector) through the stream's
// virtual Read. A bounded stream has already clamped `count` to its bytes, so it gets one
// allocation; an unbounded one grows the buffer as the bytes arrive.
template <typename Buffer>
void ReadBlock(Stream& stream, Buffer& out, unsigned long count, bool bounded) {
  if (bounded) {
    out.resize(count);
    if (count != 0) stream.Read(reinterpret_cast<unsigned char*>(out.data()), count);
    return;
  }
  out.clear();
  unsigned long got = 0;
  while (got < count) {
    unsigned long want = std::min(count, std::max(kBlockChunk, got * 2));
    out.resize(want);
    stream.Read(reinterpret_cast<unsigned char*>(out.data()) + got, want - got);
    got = want;
  }
}

uint32_t CountOf(unsigned long size, const char* what) {
  if (size > std::numeric_limits<uint32_t>::max()) {
    throw std::runtime_error(std::string(what) + " of " + std::to_string(size) +
                             " bytes is too long for a u32 count");
  }
  return static_cast<uint32_t>(size);
}

// Checks a block count read from `stream` before anything is allocated for it: a stream
// that holds its bytes (`available` >= 0) clamps it to them; any other (a socket) refuses a
// count above the caller's limit or the block cap. Returns the count to read.
unsigned long CheckBlockCount(uint32_t count, long available, unsigned long limit,
                              const char* what) {
  if (available >= 0) return std::min<unsigned long>(count, static_cast<unsigned long>(available));
  unsigned long cap = std::min(limit, kMaxBlockSize);
  if (count > cap) {
    throw std::runtime_error(std::string(what) + " of " + std::to_string(count) +
                             " bytes exceeds the limit of " + std::to_string(cap) + " bytes");
  }
  return count;
}

}  // namespace

std::vector<unsigned char> BytesOf(const Stream& stream) {
  Stream copy;
  copy.Write(stream);
  std::vector<unsigned char> bytes(stream.GetBufferSize());
  ReadValue<uint32_t>(copy);
  if (!bytes.empty()) copy.Read(bytes.data(), bytes.size());
  return bytes;
}

// ---------------------------------------------------------------------------------------
// Stream: bytes_[readPos_, size) are waiting.

Stream::~Stream() = default;

void Stream::Write(const unsigned char* data, unsigned long size) {
  if (size == 0) return;
  // Drop a consumed prefix once it dominates, so a stream used as a queue stays small.
  if (readPos_ != 0 && readPos_ * 2 >= bytes_.size()) {
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<long>(readPos_));
    readPos_ = 0;
  }
  bytes_.insert(bytes_.end(), data, data + size);
}

void Stream::Read(unsigned char* data, unsigned long size) {
  unsigned long n = std::min(size, bytes_.size() - readPos_);
  if (n != 0) std::memcpy(data, bytes_.data() + readPos_, n);
  if (n < size) std::memset(data + n, 0, size - n);
  readPos_ += n;
  if (readPos_ == bytes_.size()) {
    bytes_.clear();
    readPos_ = 0;
  }
}

void Stream::Flush() {
  bytes_.clear();
  readPos_ = 0;
}

unsigned long Stream::GetBufferSize() const {
  return bytes_.size() - readPos_;
}

// The bytes a read can still deliver from what this stream holds, or -1 when it is not an
// in-memory stream (a socket: unbounded). Read-only streams read their own strings and
// embedded streams through this too; write-only streams refuse reads before they get here.
long Stream::Available() const {
  if (const auto* held = dynamic_cast<const ReadOnlyStream*>(this)) {
    return static_cast<long>(held->size_ - held->pos_);
  }
  if (typeid(*this) == typeid(Stream)) return static_cast<long>(bytes_.size() - readPos_);
  return -1;
}

// The waiting bytes of an in-memory, read-only or write-only stream.
const unsigned char* Stream::Waiting() const {
  if (const auto* held = dynamic_cast<const ReadOnlyStream*>(this)) {
    return held->data_ != nullptr ? held->data_ + held->pos_ : nullptr;
  }
  if (const auto* written = dynamic_cast<const WriteOnlyStream*>(this)) {
    return written->bytes_.data();
  }
  if (typeid(*this) == typeid(Stream)) return bytes_.data() + readPos_;
  throw std::logic_error("only in-memory streams can be embedded in another stream");
}

ReadOnlyStream Stream::ReadStream() {
  uint32_t count = ReadValue<uint32_t>(*this);
  const long available = Available();
  unsigned long n = CheckBlockCount(count, available, kMaxBlockSize, "stream");
  std::vector<unsigned char> bytes;
  ReadBlock(*this, bytes, n, available >= 0);
  return ReadOnlyStream(std::move(bytes));
}

void Stream::Write(const std::string& text) {
  WriteValue(*this, CountOf(text.size(), "string"));
  Write(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

void Stream::Write(const Stream& other) {
  unsigned long size = other.GetBufferSize();
  if (&other == this) {
    std::vector<unsigned char> copy(Waiting(), Waiting() + size);
    WriteValue(*this, CountOf(size, "stream"));
    Write(copy.data(), size);
    return;
  }
  const unsigned char* bytes = other.Waiting();
  WriteValue(*this, CountOf(size, "stream"));
  Write(bytes, size);
}

void Stream::Read(std::string& text) {
  uint32_t count = ReadValue<uint32_t>(*this);
  // Read aside, so that a read that fails part-way (a socket closed mid-string) leaves the
  // caller's text as it was rather than half-filled.
  std::string got;
  const long available = Available();
  ReadBlock(*this, got, CheckBlockCount(count, available, kMaxBlockSize, "string"), available >= 0);
  text = std::move(got);
}

std::string Stream::ReadString(unsigned long limit) {
  uint32_t count = ReadValue<uint32_t>(*this);
  if (count > limit) {
    throw std::runtime_error("string of " + std::to_string(count) + " bytes exceeds the limit of " +
                             std::to_string(limit) + " bytes");
  }
  std::string text;
  const long available = Available();
  ReadBlock(*this, text, CheckBlockCount(count, available, limit, "string"), available >= 0);
  return text;
}

// ---------------------------------------------------------------------------------------
// ReadOnlyStream: data_[pos_, size_) are waiting. When storage_ is set, data_ points into
// it (possibly at an offset: a sub-stream shares its parent's storage).

ReadOnlyStream::ReadOnlyStream(std::vector<unsigned char> bytes) {
  auto owned = std::make_shared<const std::vector<unsigned char>>(std::move(bytes));
  data_ = owned->data();
  size_ = owned->size();
  storage_ = std::move(owned);
}

ReadOnlyStream::ReadOnlyStream(const unsigned char* data, unsigned long size) {
  CopyBytes(data, size);
}

ReadOnlyStream::ReadOnlyStream(const ReadOnlyStream& other) : Stream() {
  CopyFrom(other);
}

ReadOnlyStream::ReadOnlyStream(ReadOnlyStream&& other) noexcept
    : Stream(),
      storage_(std::move(other.storage_)),
      data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      pos_(std::exchange(other.pos_, 0)) {}

ReadOnlyStream& ReadOnlyStream::operator=(const ReadOnlyStream& other) {
  if (this != &other) CopyFrom(other);
  return *this;
}

ReadOnlyStream& ReadOnlyStream::operator=(ReadOnlyStream&& other) noexcept {
  if (this != &other) {
    storage_ = std::move(other.storage_);
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    pos_ = std::exchange(other.pos_, 0);
  }
  return *this;
}

ReadOnlyStream::~ReadOnlyStream() = default;

void ReadOnlyStream::CopyFrom(const ReadOnlyStream& other) {
  storage_ = other.storage_;
  data_ = other.data_;
  size_ = other.size_;
  pos_ = other.pos_;
}

// One allocation holds the reference count and the bytes: a datagram copied for the game
// thread costs a single allocation.
void ReadOnlyStream::CopyBytes(const unsigned char* data, unsigned long size) {
  std::shared_ptr<unsigned char[]> owned = std::make_shared_for_overwrite<unsigned char[]>(size);
  if (size != 0) std::memcpy(owned.get(), data, size);
  data_ = owned.get();
  size_ = size;
  storage_ = std::move(owned);
}

void ReadOnlyStream::Read(unsigned char* data, unsigned long size) {
  unsigned long n = std::min(size, size_ - pos_);
  if (n != 0) std::memcpy(data, data_ + pos_, n);
  if (n < size) std::memset(data + n, 0, size - n);
  pos_ += n;
}

void ReadOnlyStream::Write(const unsigned char*, unsigned long) {
  throw std::logic_error("a ReadOnlyStream cannot be written");
}

void ReadOnlyStream::Flush() {
  pos_ = size_;
}

unsigned long ReadOnlyStream::GetBufferSize() const {
  return size_ - pos_;
}

ReadOnlyStream ReadOnlyStream::ReadStream() {
  uint32_t count = ReadValue<uint32_t>(*this);
  unsigned long n = std::min<unsigned long>(count, size_ - pos_);
  ReadOnlyStream sub;
  sub.storage_ = storage_;
  sub.data_ = data_ != nullptr ? data_ + pos_ : nullptr;
  sub.size_ = n;
  pos_ += n;
  return sub;
}

unsigned long ReadOnlyStream::GetSize() const {
  return size_;
}

// ---------------------------------------------------------------------------------------
// WriteOnlyStream

WriteOnlyStream::WriteOnlyStream(unsigned long capacity) {
  bytes_.reserve(capacity);
}

WriteOnlyStream::~WriteOnlyStream() = default;

void WriteOnlyStream::Write(const unsigned char* data, unsigned long size) {
  bytes_.insert(bytes_.end(), data, data + size);
}

void WriteOnlyStream::Read(unsigned char*, unsigned long) {
  throw std::logic_error("a WriteOnlyStream cannot be read");
}

void WriteOnlyStream::Flush() {
  if (flushHandler && !inHandler_) {
    // The flag also clears when the handler throws; the bytes then stay for the caller.
    struct Reset {
      bool& flag;
      ~Reset() { flag = false; }
    } reset{inHandler_};
    inHandler_ = true;
    flushHandler();
  }
  bytes_.clear();
}

unsigned long WriteOnlyStream::GetBufferSize() const {
  return bytes_.size();
}

ReadOnlyStream WriteOnlyStream::ReadStream() {
  throw std::logic_error("a WriteOnlyStream cannot be read");
}

}  // namespace orvex::filesystem
