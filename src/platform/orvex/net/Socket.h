// The engine's sockets (OrvexNet.so): a buffered TCP stream and an unconnected UDP socket.
//
// Addresses are text: the numeric address without port, IPv4 as a.b.c.d, IPv6 as
// inet_ntop prints it; an IPv4 peer seen through a dual-stack IPv6 socket (::ffff:a.b.c.d)
// prints as plain IPv4, so the TCP peer and the UDP sender of the same host compare equal.
// Host names go through the system resolver; IPv4 results are tried before IPv6 ones, for
// TCP and UDP alike, so both sockets of a client reach the same address.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orvex/filesystem/Stream.h"

namespace orvex::net {

class NetworkSimulator;

// What a host sees of the datagrams of sockets it cannot reach into (a module's own
// socket), for figures of the connection; it changes no datagram. Installed with
// UdpSocket::TapNewClientSockets. Each hook runs on the thread named; the tap itself
// synchronises what they share.
class DatagramTap {
 public:
  virtual ~DatagramTap() = default;
  // Delivery thread: a datagram handed to the owner (after the simulator: dropped copies
  // never show, duplicated ones show twice), `at` the time the kernel gave it (a held
  // copy: the time it was released).
  virtual void Delivered(const unsigned char* data, unsigned long size,
                         std::chrono::steady_clock::time_point at) = 0;
  // Writer thread or the simulator's sender thread: a datagram handed to the kernel.
  virtual void Sent(unsigned long size) = 0;
  // The simulator's totals for one direction, after each datagram it judged: on the
  // delivery thread for incoming ones, on the writer thread for outgoing ones.
  struct Simulated {
    uint64_t dropped = 0, duplicated = 0, delayed = 0, reordered = 0;
  };
  virtual void Simulation(bool incoming, const Simulated& totals) = 0;
};

// A socket's descriptor and the operations that every kind of socket offers.
class Socket {
 public:
  Socket() = default;
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  virtual ~Socket();

  // Waits up to `timeoutMs` (negative: forever) for something to read. Returns 1 when a
  // read can make progress (data waiting, or the peer closed: the read then throws),
  // 0 on time-out, -1 on a socket error.
  virtual int Poll(int timeoutMs);
  // Address of the peer (TCP) or of the destination (UDP), in the form described above.
  std::string GetRemoteAddress() const;
  uint16_t GetRemotePort() const;
  uint16_t GetLocalPort() const;

  int GetDescriptor() const { return fd_; }

 protected:
  int fd_ = -1;
  std::string remoteAddress_;
  uint16_t remotePort_ = 0;
};

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
// that long, or leaves more than kSendQueueCap bytes waiting, fails the next flush, so a peer that
// stops sending halfway or stops reading cannot freeze the reader or the writer.
class TcpSocket : public Socket, public filesystem::Stream {
 public:
  // Connects to host:port. `bufferSize` is the initial capacity of each buffer (0: the
  // default, 64 KiB); `timeoutMs` bounds the connect and is the stall limit.
  TcpSocket(const std::string& host, uint16_t port, unsigned long bufferSize, int timeoutMs);
  // Adopts a connected descriptor (a listener's accepted connection).
  TcpSocket(int connectedFd, int timeoutMs);
  ~TcpSocket() override;

  int Poll(int timeoutMs) override;
  void Write(const unsigned char* data, unsigned long size) override;
  void Read(unsigned char* data, unsigned long size) override;
  void Flush() override;
  unsigned long GetBufferSize() const override;
  const unsigned char* GetBuffer() const override;
  filesystem::ReadOnlyStream ReadStream() override;

  // Reads whatever is waiting without blocking, up to `size` bytes; returns the count.
  unsigned long ReadSome(unsigned char* data, unsigned long size);
  // Stops both directions; a blocked reader wakes with an error. Safe from any thread.
  void Shutdown();

  uint64_t GetBytesIn() const { return bytesIn_.load(std::memory_order_relaxed); }
  uint64_t GetBytesOut() const { return bytesOut_.load(std::memory_order_relaxed); }
  int GetStallLimitMs() const { return stallLimitMs_; }

  using Stream::Read;
  using Stream::Write;

 protected:
  long Available() const override;

 private:
  static constexpr unsigned long kSendQueueCap = 32ul << 20;
  void Setup(unsigned long bufferSize);
  // Reader side: refills the empty receive buffer with at least one byte or throws.
  void Fill();
  // Reader side: receives at least one byte into `data` (at most `size`) and returns the
  // count; with `dontWait`, returns 0 when nothing is waiting. End of stream throws.
  unsigned long Receive(unsigned char* data, unsigned long size, bool dontWait);
  [[noreturn]] void ThrowReadError(int error) const;

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

// An unconnected UDP socket.
//
// Outgoing: Write appends to one datagram buffer of the constructor's size (a write that
// would overflow it throws); Flush sends the buffer as one datagram to the destination and
// empties it; an empty buffer sends nothing.
// Incoming: Receive(callback) starts the socket's delivery thread, which reads datagrams
// in batches and calls the callback once per datagram with a stream that views the batch
// (the stream ends with the callback: copy it to keep it). GetIncomingAddress(), called
// from inside the callback, is the sender of the datagram being delivered.
// StopReceiving() ends delivery and joins the thread; the owner calls it before its other
// members die, so no callback runs on a half-destroyed owner. The destructor calls it too.
// Threads: the writer side (Write, Flush) belongs to one thread; the delivery thread only
// reads and calls back.
class UdpSocket : public Socket, public filesystem::Stream {
 public:
  using Callback = std::function<void(const UdpSocket&, filesystem::ReadOnlyStream&&)>;
  struct BindTag {};

  // Client form: an ephemeral local port; datagrams go to host:port.
  UdpSocket(const std::string& host, uint16_t port, unsigned long bufferSize);
  // Server form: bound to host:port (port 0: any free port; host "::" is dual-stack).
  // Datagrams go to the destination set with SetDestination.
  UdpSocket(BindTag, const std::string& host, uint16_t port, unsigned long bufferSize);
  ~UdpSocket() override;

  void Receive(Callback callback);
  void StopReceiving();
  std::string GetIncomingAddress() const;
  uint16_t GetIncomingPort() const;

  void Write(const unsigned char* data, unsigned long size) override;
  void Read(unsigned char* data, unsigned long size) override;
  void Flush() override;
  unsigned long GetBufferSize() const override;
  const unsigned char* GetBuffer() const override;

  // Server form: where Flush sends (numeric address text or host name).
  void SetDestination(const std::string& host, uint16_t port);
  // Turns the network condition simulator on (a settings text such as
  // "loss=10%,delay=40ms,jitter=20ms,reorder=20%,dup=5%,seed=7") or off (empty text).
  // Call before Receive. Throws std::invalid_argument on bad settings.
  void Simulate(const std::string& settings);
  // Sets the settings that every client-form socket created afterwards in this process starts
  // with (empty text: none), for a host whose sockets belong to a module it cannot reach
  // into, such as a game whose network client owns its socket. Any thread; throws
  // std::invalid_argument on bad settings.
  static void SimulateNewClientSockets(const std::string& settings);
  // Sets the tap of every client-form socket created afterwards (null: none). Any thread.
  static void TapNewClientSockets(std::shared_ptr<DatagramTap> tap);

  // Incoming figures count what was handed to the callback, so datagrams that the
  // simulator dropped are not among them.
  uint64_t GetDatagramsIn() const { return datagramsIn_.load(std::memory_order_relaxed); }
  uint64_t GetDatagramsOut() const { return datagramsOut_.load(std::memory_order_relaxed); }
  uint64_t GetBytesIn() const { return bytesIn_.load(std::memory_order_relaxed); }
  uint64_t GetBytesOut() const { return bytesOut_.load(std::memory_order_relaxed); }

  using Stream::Read;
  using Stream::Write;

 private:
  void Open(int family);
  void DeliveryLoop();
  // Hands one datagram to the callback; `sender` is a sockaddr of `senderLength` bytes.
  void Deliver(const void* sender, unsigned int senderLength, const unsigned char* data,
               unsigned long size, std::chrono::steady_clock::time_point at);
  // Sends one datagram now; a full send queue drops it, other errors throw. Called on the
  // writer thread and on the simulator's sender thread.
  void SendDatagram(const void* to, unsigned int toLength, const unsigned char* data,
                    unsigned long size);
  friend class NetworkSimulator;

  unsigned long capacity_;
  int family_ = 0;  // AF_INET or AF_INET6
  // Writer side.
  std::vector<unsigned char> out_;
  std::vector<unsigned char> destination_;  // a sockaddr's bytes; empty: none yet
  // Owner thread: set while no delivery thread runs.
  Callback callback_;
  std::thread delivery_;
  int stopFd_ = -1;  // eventfd that wakes the delivery thread
  std::atomic<bool> stopping_{false};
  // Delivery thread only. The raw sender bytes of the last datagram spare the text
  // conversion while one peer sends many datagrams.
  std::vector<unsigned char> incomingRaw_;
  std::string incomingAddress_;
  uint16_t incomingPort_ = 0;
  // Set by Simulate while no delivery thread runs; null when simulation is off.
  std::unique_ptr<NetworkSimulator> simulator_;
  std::shared_ptr<DatagramTap> tap_;  // set by the constructor only
  std::atomic<uint64_t> datagramsIn_{0};
  std::atomic<uint64_t> datagramsOut_{0};
  std::atomic<uint64_t> bytesIn_{0};
  std::atomic<uint64_t> bytesOut_{0};
};

}  // namespace orvex::net
