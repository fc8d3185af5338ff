// The in-process server that protocol tests drive byte by byte: a TCP listener and a UDP
// socket on the same port, with reads that wait for a bounded time and never hang a test.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "net/TcpConnection.h"
#include "net/TcpListener.h"
#include "net/UdpEndpoint.h"
#include "orvex/net/Socket.h"
#include "protocol/Wire.h"

namespace testserver {

using wire::Bytes;

struct ReceivedDatagram {
  std::string address;
  uint16_t port = 0;
  Bytes bytes;
};

// One accepted connection. Every read waits at most its time-out and keeps the bytes that
// arrived beyond what it returns for the next read, so reads of different kinds mix freely.
// Threads: one test thread at a time.
class TestConnection {
 public:
  explicit TestConnection(std::unique_ptr<orvex::net::TcpConnection> tcp);
  ~TestConnection();

  orvex::net::TcpConnection& Tcp() { return *tcp_; }

  // Reads the client's hello (waiting up to 10 s for it). After the token, waits up to
  // `passwordWaitMs` for a password marker that has not arrived yet.
  wire::Hello ReadHello(int passwordWaitMs = 200);
  // Exactly `n` bytes; throws std::runtime_error when they have not arrived in time.
  Bytes ReadBytes(size_t n, int timeoutMs = 5000);
  // Everything that arrives until `quietMs` pass without a byte, or `totalMs` in all.
  Bytes ReadAvailable(int quietMs = 300, int totalMs = 5000);
  // One client message; throws when none is complete in time or the bytes are not one.
  wire::ClientMessage ReadMessage(int timeoutMs = 5000);
  // Writes and flushes.
  void Send(const Bytes& bytes);
  void Flush();
  // Shuts our side down; the client sees the connection end.
  void Close();
  // Waits for the client to close its side; bytes that arrive meanwhile are kept.
  bool WaitClosed(int timeoutMs);
  // Bytes received and not yet returned by a read.
  const Bytes& Pending() const { return pending_; }

 private:
  // Moves what arrives before `deadlineMs` (a steady-clock time) into pending_. Returns
  // false on time-out or when the connection has ended.
  bool Fill(int64_t deadlineMs);

  std::unique_ptr<orvex::net::TcpConnection> tcp_;
  Bytes pending_;
  bool closed_ = false;
};

class TestServer {
 public:
  // Binds a TCP listener and a UDP socket to one free port of `host` ("127.0.0.1", "::1",
  // "::" dual-stack, ...), and starts taking in datagrams.
  explicit TestServer(const std::string& host = "127.0.0.1");
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;
  ~TestServer();

  uint16_t Port() const { return port_; }
  const std::string& Host() const { return host_; }

  // The next connection; throws std::runtime_error on time-out.
  std::unique_ptr<TestConnection> Accept(int timeoutMs = 10000);
  // The next datagram received, in arrival order; std::nullopt on time-out.
  std::optional<ReceivedDatagram> NextDatagram(int timeoutMs = 5000);
  // Drops every datagram received so far; returns how many.
  size_t DiscardDatagrams();
  // Sends one datagram from the server's own port.
  void SendDatagram(const std::string& host, uint16_t port, const Bytes& bytes);
  // Sends one datagram from a fresh socket on `sourceHost` (such as 127.0.0.2): a sender
  // that is not the server.
  void SendDatagramFrom(const std::string& sourceHost, const std::string& host, uint16_t port,
                        const Bytes& bytes);

  orvex::net::UdpEndpoint& Udp() { return *udp_; }

 private:
  std::string host_;
  uint16_t port_ = 0;
  std::unique_ptr<orvex::net::TcpListener> listener_;
  std::unique_ptr<orvex::net::UdpEndpoint> udp_;
  std::mutex sendMutex_;  // the UDP socket's writer side
  // Filled by the UDP delivery thread, drained by the test thread.
  std::mutex queueMutex_;
  std::condition_variable arrived_;
  std::deque<ReceivedDatagram> queue_;
};

}  // namespace testserver
