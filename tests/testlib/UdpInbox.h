// A client-form UDP socket on loopback that keeps every datagram it receives.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "net/UdpEndpoint.h"
#include "orvex/filesystem/Stream.h"
#include "orvex/net/Socket.h"
#include "protocol/Wire.h"

namespace testlib {

using Bytes = std::vector<uint8_t>;

// Sends to and receives from one peer (`host`, `port`), as the client's socket does.
// Datagrams arrive on the platform's delivery thread; the accessors take a lock.
class UdpInbox {
 public:
  explicit UdpInbox(uint16_t port, const std::string& host = "127.0.0.1")
      : udp_(host, port, wire::kMaxDatagram) {
    udp_.Receive([this](const orvex::net::UdpEndpoint&, orvex::filesystem::ReadOnlyStream&& d) {
      Bytes bytes(d.GetBufferSize());
      d.Read(bytes.data(), bytes.size());
      std::lock_guard<std::mutex> lock(mutex_);
      received_.push_back(std::move(bytes));
      arrived_.notify_all();
    });
  }
  ~UdpInbox() { udp_.StopReceiving(); }

  void Send(const Bytes& bytes) {
    udp_.Write(bytes.data(), bytes.size());
    udp_.Flush();
  }
  // Waits until `done` holds over the datagrams received so far; false after `timeoutMs`.
  bool WaitUntil(const std::function<bool(const std::vector<Bytes>&)>& done,
                 int timeoutMs = 10000) {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return done(received_); });
  }

 private:
  orvex::net::UdpEndpoint udp_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Bytes> received_;
};

}  // namespace testlib
