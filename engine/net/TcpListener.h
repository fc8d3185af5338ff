// A listening TCP socket: the engine's extension for servers and tests.
#pragma once

#include "HostOnly.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "net/TcpConnection.h"

namespace orvex::net {

// Listens on host:port (port 0: a free port; host "::" is dual-stack, so IPv4 clients
// connect too and their accepted sockets report plain IPv4 addresses).
// Threads: Accept on one thread at a time; Close from any thread.
class TcpListener {
 public:
  TcpListener(const std::string& host, uint16_t port);
  TcpListener(const TcpListener&) = delete;
  TcpListener& operator=(const TcpListener&) = delete;
  ~TcpListener();

  uint16_t GetPort() const { return port_; }

  // Waits up to `timeoutMs` (negative: forever) for a connection and returns it with the
  // flush stall limit `stallLimitMs`; null on time-out or once Close was called.
  std::unique_ptr<TcpConnection> Accept(int timeoutMs, int stallLimitMs = 5000);

  // Stops listening (new connections are refused) and wakes a blocked Accept.
  void Close();

 private:
  int fd_ = -1;
  int wakeFd_ = -1;  // eventfd written by Close
  uint16_t port_ = 0;
  std::atomic<bool> closed_{false};
};

}  // namespace orvex::net
