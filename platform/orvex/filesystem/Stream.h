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
// stream whose count is above the engine's block cap (16 MiB) or the caller's smaller
// limit with a std::runtime_error before it allocates anything.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace orvex::filesystem {

class ReadOnlyStream;

// An in-memory byte stream: writes append, reads consume from the front. It is also the
// base of the engine's other streams and sockets, which override the virtual operations.
class Stream {
 public:
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

  // Embedded stream: u32 count, then the waiting bytes of `block`.
  virtual ReadOnlyStream ReadStream();

  // String: u32 count, then the bytes.
  void Write(const std::string& text);
  // Embedded stream: u32 count = other.GetBufferSize(), then those bytes. `other` is
  // unchanged; it is an in-memory, read-only or write-only stream.
  void Write(const Stream& other);
  // Reads a string; counts above the block cap are refused by sockets.
  void Read(std::string& text);
  // Reads a string whose count must not exceed `limit`; a larger count throws
  // std::runtime_error naming both numbers.
  std::string ReadString(unsigned long limit);

 private:
  // What a read can still take from the bytes held, or -1 for a socket (unbounded).
  long Available() const;
  // The waiting bytes of an in-memory, read-only or write-only stream.
  const unsigned char* Waiting() const;

  std::vector<unsigned char> bytes_;
  unsigned long readPos_ = 0;
};

// An immutable sequence of bytes with a read position. It owns its bytes in shared,
// immutable storage, so copies are cheap and keep the read position.
class ReadOnlyStream : public Stream {
 public:
  ReadOnlyStream() = default;
  explicit ReadOnlyStream(std::vector<unsigned char> bytes);
  ReadOnlyStream(const unsigned char* data, unsigned long size);  // copies

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
  // The embedded stream shares this stream's storage; its count is clamped to what is left.
  ReadOnlyStream ReadStream() override;

  using Stream::Read;
  using Stream::Write;

  // Total number of bytes, read or not.
  virtual unsigned long GetSize() const;

 private:
  friend class Stream;
  void CopyFrom(const ReadOnlyStream& other);
  void CopyBytes(const unsigned char* data, unsigned long size);

  std::shared_ptr<const void> storage_;  // owns the bytes data_ points into
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
  ReadOnlyStream ReadStream() override;

  using Stream::Read;
  using Stream::Write;

  // The flush handler slot. Empty, or a callable that does nothing, means "just empty".
  std::function<void()> flushHandler;

 private:
  friend class Stream;
  std::vector<unsigned char> bytes_;
  bool inHandler_ = false;
};

}  // namespace orvex::filesystem
