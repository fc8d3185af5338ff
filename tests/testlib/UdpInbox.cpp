#include "UdpInbox.h"

#include <chrono>

#include "orvex/filesystem/Stream.h"

namespace testlib {

UdpInbox::UdpInbox(uint16_t port, const std::string& host) : udp_(host, port, 1400) {
  udp_.Receive([this](const orvex::net::UdpSocket&, orvex::filesystem::ReadOnlyStream&& d) {
    Bytes bytes(d.GetBufferSize());
    d.Read(bytes.data(), bytes.size());
    std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back(std::move(bytes));
    arrived_.notify_all();
  });
}

UdpInbox::~UdpInbox() {
  udp_.StopReceiving();
}

void UdpInbox::Send(const Bytes& bytes) {
  udp_.Write(bytes.data(), bytes.size());
  udp_.Flush();
}

bool UdpInbox::WaitUntil(const std::function<bool(const std::vector<Bytes>&)>& done,
                         int timeoutMs) {
  std::unique_lock<std::mutex> lock(mutex_);
  return arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [&] { return done(received_); });
}

std::vector<Bytes> UdpInbox::Received() {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

}  // namespace testlib
