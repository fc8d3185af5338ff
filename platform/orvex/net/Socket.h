// The engine's sockets (OrvexNet.so): a buffered TCP stream and an unconnected UDP socket.
//
// Addresses are text: the numeric address without port, IPv4 as a.b.c.d, IPv6 as
// inet_ntop prints it; an IPv4 peer seen through a dual-stack IPv6 socket (::ffff:a.b.c.d)
// prints as plain IPv4, so the TCP peer and the UDP sender of the same host compare equal.
// Host names go through the system resolver; IPv4 results are tried before IPv6 ones, for
// TCP and UDP alike, so both sockets of a client reach the same address.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "orvex/filesystem/Stream.h"

namespace orvex::net {

// What every kind of socket offers.
class Socket {
 public:
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  virtual ~Socket();

  // Waits up to `timeoutMs` (negative: forever) for something to read. Returns 1 when a
  // read can make progress (data waiting, or the peer closed: the read then throws),
  // 0 on time-out, -1 on a socket error.
  virtual int Poll(int timeoutMs);
  // Address of the peer (TCP) or of the destination (UDP), in the form described above.
  std::string GetRemoteAddress() const;

 protected:
  Socket() = default;

  int fd_ = -1;
  std::string remoteAddress_;
};

// A TCP connection, buffered both ways.
//
// Reads are served from a receive buffer (one recv fills many fields) and block until the
// asked bytes have arrived. Writes append to a send buffer that Flush() sends whole.
// Threads: one reader (Read, ReadString, ReadStream, Poll) and one writer (Write, Flush)
// may use the socket at the same time. A closed or broken connection is a
// std::runtime_error from the read or the flush, never a hang and never SIGPIPE. Every wait
// has an end, the stall limit (the constructor's time-out; negative: none): a read that
// receives no byte for that long fails, and so does a flush that has not sent everything by
// then, so a peer that stops sending halfway or reads slowly cannot freeze either thread.
class TcpSocket : public Socket, public filesystem::Stream {
 public:
  // Connects to host:port. `bufferSize` is the initial capacity of each buffer (0: the
  // engine's default); `timeoutMs` bounds the connect and is the stall limit.
  TcpSocket(const std::string& host, uint16_t port, unsigned long bufferSize, int timeoutMs);
  ~TcpSocket() override;

  int Poll(int timeoutMs) override;
  void Write(const unsigned char* data, unsigned long size) override;
  void Read(unsigned char* data, unsigned long size) override;
  void Flush() override;
  unsigned long GetBufferSize() const override;
  filesystem::ReadOnlyStream ReadStream() override;

  using Stream::Read;
  using Stream::Write;

 private:
  struct Connection;
  std::unique_ptr<Connection> connection_;
};

// An unconnected UDP socket to one destination.
//
// Outgoing: Write appends to one datagram buffer of the constructor's size (a write that
// would overflow it throws); Flush sends the buffer as one datagram to the destination and
// empties it; an empty buffer sends nothing.
// Incoming: Receive(callback) starts the socket's delivery thread, which calls the callback
// once per datagram with a stream of its bytes. GetIncomingAddress(), called from inside
// the callback, is the sender of the datagram being delivered. The destructor stops
// delivery and joins the delivery thread before it returns.
// Threads: the writer side (Write, Flush) belongs to one thread; the delivery thread only
// reads and calls back.
class UdpSocket : public Socket, public filesystem::Stream {
 public:
  // An ephemeral local port; datagrams go to host:port.
  UdpSocket(const std::string& host, uint16_t port, unsigned long bufferSize);
  ~UdpSocket() override;

  void Receive(std::function<void(const UdpSocket&, filesystem::ReadOnlyStream&&)> callback);
  std::string GetIncomingAddress() const;

  void Write(const unsigned char* data, unsigned long size) override;
  void Read(unsigned char* data, unsigned long size) override;
  void Flush() override;
  unsigned long GetBufferSize() const override;

  using Stream::Read;
  using Stream::Write;

 private:
  struct Endpoint;
  std::unique_ptr<Endpoint> endpoint_;
};

}  // namespace orvex::net
