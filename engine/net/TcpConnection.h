// The reference engine's TCP connection: what the platform's TcpSocket is made of, with
// what hosts use beyond it (adopting an accepted descriptor, reads that do not wait, shutdown
// from any thread, byte counts). Tools, tests and benchmarks use it for the server side.
#pragma once

#include "HostOnly.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "net/EngineSocket.h"

namespace orvex::net {

// A TCP connection, buffered both ways.
//
// Reads are served from a receive buffer (one recv fills many fields) and block until the
// asked bytes have arrived. Writes append to a send buffer; Flush() hands it to the kernel
// without waiting, and what the kernel cannot take now waits in a send queue that the
// socket's sender thread drains in order (the destructor gives it a short while to finish).
// Threads: one reader (Read, ReadString, ReadStream, Poll) and one writer (Write, Flush)
// may use the socket at the same time. A closed or broken connection is a
// std::runtime_error from the read or the flush, never a hang and never SIGPIPE. Every wait
// has an end, the stall limit (the constructor's time-out; negative: none): a read that
// receives no byte for that long fails; a peer that takes nothing from the send queue for
// that long, or leaves more than kSendQueueCap bytes waiting, fails the next flush, so a
// peer that stops sending halfway or stops reading cannot freeze the reader or the writer.
class TcpConnection : public EngineSocket, public filesystem::Stream {
 public:
  // Connects to host:port. `bufferSize` is the initial capacity of each buffer (0: the
  // default, 64 KiB); `timeoutMs` bounds the connect and is the stall limit.
  TcpConnection(const std::string& host, uint16_t port, unsigned long bufferSize, int timeoutMs);
  // Adopts a connected descriptor (a listener's accepted connection).
  TcpConnection(int connectedFd, int timeoutMs);
  ~TcpConnection() override;

  int Poll(int timeoutMs) override;
  void Write(const unsigned char* data, unsigned long size) override;
  void Read(unsigned char* data, unsigned long size) override;
  void Flush() override;
  unsigned long GetBufferSize() const override;
  filesystem::ReadOnlyStream ReadStream() override;

  // Reads whatever is waiting without blocking, up to `size` bytes; returns the count.
  unsigned long ReadSome(unsigned char* data, unsigned long size);
  // Stops both directions; a blocked reader wakes with an error. Safe from any thread.
  void Shutdown();

  uint64_t GetBytesIn() const { return bytesIn_.load(std::memory_order_relaxed); }
  uint64_t GetBytesOut() const { return bytesOut_.load(std::memory_order_relaxed); }
  int GetStallLimitMs() const { return stallLimitMs_; }

  // Bytes received and sent by every connection this process opened (not those it
  // accepted), such as a module's own: for a host that cannot reach into the module.
  static ByteCounts ClientBytes();
  // Shuts down every connection this process opened and has not destroyed: a host that ends
  // its run while a module's reader waits for the rest of a message (a server that stopped
  // halfway) wakes that reader at once, with an error, instead of after the stall limit.
  // Any thread.
  static void ShutdownClientConnections();

  using Stream::Read;
  using Stream::Write;

 private:
  static constexpr unsigned long kSendQueueCap = 32ul << 20;
  void Setup(unsigned long bufferSize);
  // Reader side: refills the empty receive buffer with at least one byte or throws.
  void Fill();
  // Reader side: receives at least one byte into `data` (at most `size`) and returns the
  // count; with `dontWait`, returns 0 when nothing is waiting. End of stream throws.
  unsigned long Receive(unsigned char* data, unsigned long size, bool dontWait);
  [[noreturn]] void ThrowReadError(int error) const;
  // Shows the socket observers (net/SocketObserver.h) the bytes a read handed out or a
  // flush hands over.
  void Observe(bool read, const unsigned char* data, unsigned long size) const;

  int stallLimitMs_;
  unsigned long bufferSize_ = 0;
  std::atomic<bool> shutdown_{false};
  // Reader side: in_[inPos_, inEnd_) are received and not yet read.
  std::vector<unsigned char> in_;
  unsigned long inPos_ = 0;
  unsigned long inEnd_ = 0;
  // Writer side: out_ holds what was written since the last flush.
  std::vector<unsigned char> out_;
  // The send queue: what flushes handed over and the kernel has not taken yet, sent in order
  // by the sender thread (started by the first flush the kernel cannot take whole). Guarded
  // by sendMutex_: queue_, queued_, frontSent_, lastProgress_, stopSender_, writeError_.
  // After a failure the stream is cut mid-message, so every later flush fails at once with
  // writeError_.
  void SendLoop();
  // REQUIRES: sendMutex_ held. Sends from the queue's front what the kernel takes now;
  // false when the connection failed (writeError_ set, queue dropped).
  bool SendQueued();
  // REQUIRES: sendMutex_ held. Sends without waiting; returns the count the kernel took, or
  // -1 when the connection failed (writeError_ set).
  long SendSome(const unsigned char* data, unsigned long size);
  void Fail(std::string error);
  std::mutex sendMutex_;
  std::condition_variable sendWake_;
  std::deque<std::vector<unsigned char>> queue_;
  unsigned long queued_ = 0;
  unsigned long frontSent_ = 0;
  std::chrono::steady_clock::time_point lastProgress_;
  bool stopSender_ = false;
  std::string writeError_;
  std::thread sender_;
  std::atomic<uint64_t> bytesIn_{0};
  std::atomic<uint64_t> bytesOut_{0};
};

}  // namespace orvex::net
