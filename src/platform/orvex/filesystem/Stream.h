// The engine's byte streams (OrvexFileSystem.so).
//
// Encodings, the same at both ends of every connection:
//   - integers and floats: the raw little-endian bytes of the fixed-width value;
//   - string:          u32 byte count, then the bytes;
//   - embedded stream: u32 byte count, then the other stream's waiting bytes.
// Writing an embedded stream therefore costs exactly 4 bytes more than its payload.
//
// Trust boundary: readers never read outside the bytes they hold. A ReadOnlyStream
// yields zero bytes for whatever a read asks beyond its end, and clamps an embedded
// length to the bytes that are really there. A socket refuses a string or embedded
// stream whose count is above kMaxBlockSize (or the caller's smaller limit) with a
// std::runtime_error before it allocates anything.
#pragma once

#include <bit>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

static_assert(std::endian::native == std::endian::little,
              "the wire encodings are the raw bytes of little-endian values");

namespace orvex::filesystem {

class ReadOnlyStream;

// An in-memory byte stream: writes append, reads consume from the front. It is also the
// base of the engine's other streams and sockets, which override the virtual operations.
class Stream {
 public:
  // The largest string or embedded stream that a socket read accepts (16 MiB).
  static constexpr unsigned long kMaxBlockSize = 16ul << 20;

  Stream() = default;
  Stream(const Stream&) = default;
  Stream(Stream&&) noexcept = default;
  Stream& operator=(const Stream&) = default;
  Stream& operator=(Stream&&) noexcept = default;
  virtual ~Stream();

  // Appends `size` bytes.
  virtual void Write(const unsigned char* data, unsigned long size);
  // Reads exactly `size` bytes into `data`. The in-memory stream fills bytes that it does
  // not hold with zeros; a socket blocks until they arrive.
  virtual void Read(unsigned char* data, unsigned long size);
  // The in-memory stream drops its bytes; derived streams send or hand them on.
  virtual void Flush();
  // The bytes waiting in the stream (written and not yet read, flushed or sent).
  virtual unsigned long GetBufferSize() const;
  // Start of the waiting bytes; valid until the next non-const call.
  virtual const unsigned char* GetBuffer() const;

  // Embedded stream: u32 count, then the waiting bytes of `block`.
  virtual ReadOnlyStream ReadStream();

  // String: u32 count, then the bytes.
  void Write(const std::string& text);
  // Embedded stream: u32 count = other.GetBufferSize(), then those bytes. `other` is unchanged.
  void Write(const Stream& other);
  // Reads a string; counts above kMaxBlockSize are refused by sockets.
  void Read(std::string& text);
  // Reads a string whose count must not exceed `limit`; a larger count throws
  // std::runtime_error naming both numbers.
  std::string ReadString(unsigned long limit);

  // Raw little-endian bytes of a fixed-width value.
  template <typename T>
  requires std::is_trivially_copyable_v<T>
  void WriteValue(const T& value) {
    Write(reinterpret_cast<const unsigned char*>(&value), sizeof(T));
  }
  template <typename T>
  requires std::is_trivially_copyable_v<T> T ReadValue() {
    T value{};
    Read(reinterpret_cast<unsigned char*>(&value), sizeof(T));
    return value;
  }

 protected:
  // How many bytes a read can still deliver from data already held, or -1 when the
  // stream is unbounded (a socket). Reads of strings use it to clamp or refuse counts.
  virtual long Available() const;
  // Checks a block count read from the stream before anything is allocated for it.
  // Returns the count to read (clamped for bounded streams) or throws.
  unsigned long CheckBlockCount(uint32_t count, unsigned long limit, const char* what) const;

 private:
  std::vector<unsigned char> bytes_;
  unsigned long readPos_ = 0;
};

// An immutable sequence of bytes with a read position. It either owns its bytes (shared,
// immutable storage: copies are cheap) or views bytes that belong to someone else (a
// socket's receive batch); copying a view makes an owning copy, so a copy can always
// outlive the original.
class ReadOnlyStream : public Stream {
 public:
  ReadOnlyStream() = default;
  explicit ReadOnlyStream(std::vector<unsigned char> bytes);
  ReadOnlyStream(const unsigned char* data, unsigned long size);  // copies
  // A stream over bytes that the caller keeps alive for the stream's lifetime.
  static ReadOnlyStream View(const unsigned char* data, unsigned long size);

  ReadOnlyStream(const ReadOnlyStream& other);  // keeps the read position
  ReadOnlyStream(ReadOnlyStream&& other) noexcept;
  ReadOnlyStream& operator=(const ReadOnlyStream& other);
  ReadOnlyStream& operator=(ReadOnlyStream&& other) noexcept;
  ~ReadOnlyStream() override;

  // Fills whatever lies beyond the end with zeros; never reads outside the bytes.
  void Read(unsigned char* data, unsigned long size) override;
  // A read-only stream refuses writes with std::logic_error.
  void Write(const unsigned char* data, unsigned long size) override;
  // Skips the remaining bytes.
  void Flush() override;
  unsigned long GetBufferSize() const override;
  const unsigned char* GetBuffer() const override;
  // The embedded stream shares this stream's storage; its count is clamped to what is left.
  ReadOnlyStream ReadStream() override;

  using Stream::Read;
  using Stream::Write;

  // Total number of bytes, read or not.
  virtual unsigned long GetSize() const;
  unsigned long GetPosition() const { return pos_; }
  bool OwnsBytes() const { return storage_ != nullptr; }

 protected:
  long Available() const override;

 private:
  void CopyFrom(const ReadOnlyStream& other);
  void CopyBytes(const unsigned char* data, unsigned long size);

  std::shared_ptr<const void> storage_;  // owns the bytes data_ points into; null for a view
  const unsigned char* data_ = nullptr;
  unsigned long size_ = 0;
  unsigned long pos_ = 0;
};

// A stream that is only written, with a flush handler slot. Flush() runs the installed
// handler and then empties the buffer; a Flush() called from inside the handler only
// empties the buffer. Reads are refused with std::logic_error.
//
// Threads: not synchronised; one thread at a time.
class WriteOnlyStream : public Stream {
 public:
  explicit WriteOnlyStream(unsigned long capacity = 0);
  ~WriteOnlyStream() override;

  void Write(const unsigned char* data, unsigned long size) override;
  void Read(unsigned char* data, unsigned long size) override;
  void Flush() override;
  unsigned long GetBufferSize() const override;
  const unsigned char* GetBuffer() const override;
  ReadOnlyStream ReadStream() override;

  // Empties the buffer without running the handler; the capacity is kept.
  void Clear() { bytes_.clear(); }

  using Stream::Read;
  using Stream::Write;

  // The flush handler slot. Empty, or a callable that does nothing, means "just empty".
  std::function<void()> flushHandler;

 private:
  std::vector<unsigned char> bytes_;
  bool inHandler_ = false;
};

}  // namespace orvex::filesystem
