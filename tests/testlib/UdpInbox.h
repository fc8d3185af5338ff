// A client-form UDP socket on loopback that keeps every datagram it receives.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "orvex/net/Socket.h"

namespace testlib {

using Bytes = std::vector<uint8_t>;

// Sends to and receives from one peer (`host`, `port`), as the client's socket does.
// Datagrams arrive on the platform's delivery thread; the accessors take a lock.
class UdpInbox {
 public:
  explicit UdpInbox(uint16_t port, const std::string& host = "127.0.0.1");
  ~UdpInbox();
  UdpInbox(const UdpInbox&) = delete;
  UdpInbox& operator=(const UdpInbox&) = delete;

  void Send(const Bytes& bytes);
  // Waits until `done` holds over the datagrams received so far; false after `timeoutMs`.
  bool WaitUntil(const std::function<bool(const std::vector<Bytes>&)>& done, int timeoutMs = 10000);
  std::vector<Bytes> Received();
  orvex::net::UdpSocket& Socket() { return udp_; }

 private:
  orvex::net::UdpSocket udp_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Bytes> received_;
};

}  // namespace testlib
