// Unconnected UDP socket. The delivery thread waits in poll on the socket and an eventfd
// (StopReceiving writes it), reads up to kSlots datagrams per recvmmsg into one batch
// buffer and calls the callback once per datagram with a view of its slot.
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "net/Address.h"
#include "net/NetworkSimulator.h"
#include "net/Poll.h"
#include "net/SocketObserver.h"
#include "net/UdpEndpoint.h"

namespace orvex::net {
namespace {

// The largest UDP payload over IPv4; also the buffer of a socket created with size 0.
constexpr unsigned long kMaxDatagram = 65507;
constexpr unsigned kSlots = 16;
constexpr unsigned long kSlotSize = 64ul << 10;  // holds any datagram
// Asked for, not insisted on: the kernel caps it at net.core.rmem_max.
constexpr int kReceiveBufferBytes = 4 << 20;

// The socket whose delivery thread this is; null on every other thread.
thread_local const UdpEndpoint* tDeliveringSocket = nullptr;

// The settings that new client-form sockets start with (SimulateNewClientSockets).
std::mutex newClientSettingsMutex;
std::string newClientSettings;

// Bytes moved by client-form endpoints (see ClientBytes()).
std::atomic<uint64_t> clientBytesIn{0};
std::atomic<uint64_t> clientBytesOut{0};

// Clears the datagram buffer however Flush leaves.
struct ClearOnExit {
  std::vector<unsigned char>& bytes;
  ~ClearOnExit() { bytes.clear(); }
};

}  // namespace

UdpEndpoint::UdpEndpoint(const std::string& host, uint16_t port, unsigned long bufferSize)
    : capacity_(bufferSize == 0 ? kMaxDatagram : std::min(bufferSize, kMaxDatagram)) {
  clientForm_ = true;
  std::vector<Endpoint> endpoints;
  try {
    endpoints = Resolve(host, port, SOCK_DGRAM);
  } catch (const std::runtime_error& e) {
    throw std::runtime_error("UDP socket for " + HostPortText(host, port) + ": " + e.what());
  }
  const Endpoint& target = endpoints.front();
  Open(target.Family());
  // An explicit bind gives the socket its ephemeral port before anything is sent.
  Endpoint any;
  any.storage.ss_family = static_cast<sa_family_t>(target.Family());
  any.length = target.Family() == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  if (bind(fd_, any.Get(), any.length) != 0) {
    throw std::runtime_error("UDP socket for " + HostPortText(host, port) + ": " +
                             ErrorText(errno));
  }
  destination_.assign(reinterpret_cast<const unsigned char*>(&target.storage),
                      reinterpret_cast<const unsigned char*>(&target.storage) + target.length);
  remoteAddress_ = AddressText(target.Get());
  remotePort_ = port;
  std::string settings;
  {
    std::lock_guard<std::mutex> lock(newClientSettingsMutex);
    settings = newClientSettings;
  }
  if (!settings.empty()) Simulate(settings);
}

UdpEndpoint::UdpEndpoint(BindTag, const std::string& host, uint16_t port, unsigned long bufferSize)
    : capacity_(bufferSize == 0 ? kMaxDatagram : std::min(bufferSize, kMaxDatagram)) {
  const std::string failure = "Cannot bind UDP socket to " + HostPortText(host, port) + ": ";
  std::vector<Endpoint> endpoints;
  try {
    endpoints = Resolve(host, port, SOCK_DGRAM, true);
  } catch (const std::runtime_error& e) {
    throw std::runtime_error(failure + e.what());
  }
  std::string reason;
  for (const Endpoint& endpoint : endpoints) {
    Open(endpoint.Family());
    if (bind(fd_, endpoint.Get(), endpoint.length) == 0) return;
    reason = ErrorText(errno);
    close(fd_);
    fd_ = -1;
  }
  throw std::runtime_error(failure + reason);
}

void UdpEndpoint::Open(int family) {
  fd_ = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) throw std::runtime_error("Cannot open UDP socket: " + ErrorText(errno));
  family_ = family;
  int zero = 0, size = kReceiveBufferBytes;
  if (family == AF_INET6) setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof zero);
  setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

UdpEndpoint::~UdpEndpoint() {
  StopReceiving();
  simulator_.reset();
  if (stopFd_ >= 0) close(stopFd_);
}

// ---------------------------------------------------------------------------------------
// Writer side

void UdpEndpoint::Write(const unsigned char* data, unsigned long size) {
  if (size > capacity_ - out_.size()) {
    throw std::runtime_error("UDP datagram of " + std::to_string(out_.size() + size) +
                             " bytes exceeds the buffer of " + std::to_string(capacity_) +
                             " bytes");
  }
  out_.insert(out_.end(), data, data + size);
}

void UdpEndpoint::Read(unsigned char*, unsigned long) {
  throw std::logic_error("a UdpEndpoint is not read: datagrams arrive through Receive");
}

void UdpEndpoint::Flush() {
  if (out_.empty()) return;
  ClearOnExit clear{out_};
  if (destination_.empty()) throw std::runtime_error("UDP socket has no destination");
  auto to = reinterpret_cast<const sockaddr*>(destination_.data());
  auto toLength = static_cast<socklen_t>(destination_.size());
  if (detail::Observed()) {
    detail::Notify({SocketEvent::Kind::kDatagramFlushed, false, *this, remotePort_, out_.data(),
                    out_.size(), std::chrono::steady_clock::now()});
  }
  if (simulator_ && simulator_->SimulatesOut()) {
    simulator_->Send(to, toLength, out_.data(), out_.size());
    if (detail::Observed()) {
      detail::Notify({SocketEvent::Kind::kDatagramJudged, false, *this, remotePort_, out_.data(),
                      out_.size(), std::chrono::steady_clock::now(), simulator_->OutStats()});
    }
  } else {
    SendDatagram(to, toLength, out_.data(), out_.size());
  }
}

void UdpEndpoint::SendDatagram(const void* to, unsigned int toLength, const unsigned char* data,
                               unsigned long size) {
  auto address = static_cast<const sockaddr*>(to);
  for (;;) {
    ssize_t n = sendto(fd_, data, size, MSG_DONTWAIT | MSG_NOSIGNAL, address, toLength);
    if (n >= 0) {
      datagramsOut_.fetch_add(1, std::memory_order_relaxed);
      bytesOut_.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
      if (clientForm_)
        clientBytesOut.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
      if (detail::Observed()) {
        detail::Notify({SocketEvent::Kind::kDatagramTransmitted, false, *this, AddressPort(address),
                        data, static_cast<unsigned long>(n), std::chrono::steady_clock::now()});
      }
      return;
    }
    if (errno == EINTR) continue;
    // A full queue loses the datagram, as the network may.
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS) return;
    throw std::runtime_error("UDP send to " +
                             HostPortText(AddressText(address), AddressPort(address)) +
                             " failed: " + ErrorText(errno));
  }
}

unsigned long UdpEndpoint::GetBufferSize() const {
  return out_.size();
}

UdpEndpoint::ByteCounts UdpEndpoint::ClientBytes() {
  return {clientBytesIn.load(std::memory_order_relaxed),
          clientBytesOut.load(std::memory_order_relaxed)};
}

void UdpEndpoint::SetDestination(const std::string& host, uint16_t port) {
  std::vector<Endpoint> endpoints;
  try {
    endpoints = Resolve(host, port, SOCK_DGRAM);
  } catch (const std::runtime_error& e) {
    throw std::runtime_error("UDP destination " + HostPortText(host, port) + ": " + e.what());
  }
  // An IPv6 socket reaches IPv4 hosts through mapped addresses; an IPv4 one only IPv4.
  auto usable = std::find_if(endpoints.begin(), endpoints.end(), [this](const Endpoint& e) {
    return family_ == AF_INET6 || e.Family() == AF_INET;
  });
  if (usable == endpoints.end()) {
    throw std::runtime_error("UDP destination " + HostPortText(host, port) +
                             ": no IPv4 address for an IPv4 socket");
  }
  Endpoint target = family_ == AF_INET6 ? MapToIpv6(*usable) : *usable;
  destination_.assign(reinterpret_cast<const unsigned char*>(&target.storage),
                      reinterpret_cast<const unsigned char*>(&target.storage) + target.length);
  remoteAddress_ = AddressText(target.Get());
  remotePort_ = port;
}

void UdpEndpoint::SimulateNewClientSockets(const std::string& settings) {
  if (!settings.empty()) SimulationSettings::Parse(settings);
  std::lock_guard<std::mutex> lock(newClientSettingsMutex);
  newClientSettings = settings;
}

void UdpEndpoint::Simulate(const std::string& settings) {
  if (delivery_.joinable()) throw std::logic_error("UdpEndpoint::Simulate called while receiving");
  if (settings.empty()) {
    simulator_.reset();
    return;
  }
  simulator_ = std::make_unique<NetworkSimulator>(
      SimulationSettings::Parse(settings),
      [this](const sockaddr* to, socklen_t toLength, const unsigned char* data,
             unsigned long size) { SendDatagram(to, toLength, data, size); });
}

// ---------------------------------------------------------------------------------------
// Delivery

void UdpEndpoint::Receive(Callback callback) {
  if (delivery_.joinable()) {
    // A delivery thread stopped from its own callback has ended or is ending.
    if (!stopping_.load()) throw std::logic_error("UdpEndpoint::Receive called while receiving");
    delivery_.join();
  }
  if (stopFd_ < 0) stopFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (stopFd_ < 0) throw std::runtime_error("Cannot start UDP delivery: " + ErrorText(errno));
  uint64_t pending;
  [[maybe_unused]] ssize_t drained = read(stopFd_, &pending, sizeof pending);
  stopping_.store(false);
  callback_ = std::move(callback);
  delivery_ = std::thread(&UdpEndpoint::DeliveryLoop, this);
}

void UdpEndpoint::StopReceiving() {
  // From the callback: only ask the loop to end. The delivery thread must not touch
  // delivery_, which belongs to the owner's thread.
  if (tDeliveringSocket == this) {
    stopping_.store(true);
    return;
  }
  if (delivery_.joinable()) {
    stopping_.store(true);
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(stopFd_, &one, sizeof one);
    delivery_.join();
    callback_ = nullptr;
  }
  if (simulator_) simulator_->StopSender();
}

std::string UdpEndpoint::GetIncomingAddress() const {
  return incomingAddress_;
}

uint16_t UdpEndpoint::GetIncomingPort() const {
  return incomingPort_;
}

void UdpEndpoint::Deliver(const void* sender, unsigned int senderLength, const unsigned char* data,
                          unsigned long size, std::chrono::steady_clock::time_point at) {
  datagramsIn_.fetch_add(1, std::memory_order_relaxed);
  bytesIn_.fetch_add(size, std::memory_order_relaxed);
  if (clientForm_) clientBytesIn.fetch_add(size, std::memory_order_relaxed);
  auto raw = static_cast<const unsigned char*>(sender);
  if (incomingRaw_.size() != senderLength ||
      std::memcmp(incomingRaw_.data(), raw, senderLength) != 0) {
    incomingRaw_.assign(raw, raw + senderLength);
    incomingAddress_ = AddressText(static_cast<const sockaddr*>(sender));
    incomingPort_ = AddressPort(static_cast<const sockaddr*>(sender));
  }
  if (detail::Observed()) {
    detail::Notify(
        {SocketEvent::Kind::kDatagramDelivered, true, *this, incomingPort_, data, size, at});
  }
  try {
    // One allocation: the stream owns its copy, which a copy made by the callback
    // shares.
    callback_(*this, filesystem::ReadOnlyStream(data, size));
  } catch (...) {
    // The callback's failures are its own; delivery goes on with the next datagram.
  }
}

void UdpEndpoint::DeliveryLoop() {
  using Clock = std::chrono::steady_clock;
  auto batch = std::make_unique_for_overwrite<unsigned char[]>(kSlots * kSlotSize);
  std::array<mmsghdr, kSlots> messages{};
  std::array<iovec, kSlots> slots{};
  std::array<sockaddr_storage, kSlots> senders{};
  for (unsigned i = 0; i < kSlots; ++i) {
    slots[i] = {batch.get() + i * kSlotSize, kSlotSize};
    messages[i].msg_hdr.msg_iov = &slots[i];
    messages[i].msg_hdr.msg_iovlen = 1;
    messages[i].msg_hdr.msg_name = &senders[i];
  }
  tDeliveringSocket = this;
  // Named for perf, gdb and top; the name is the thread's own, never the caller's.
  pthread_setname_np(pthread_self(), "udp-delivery");
  // Simulate is refused while this thread runs, so the simulator stays put.
  SimulatedPath* simulated = simulator_ && simulator_->SimulatesIn() ? &simulator_->In() : nullptr;

  pollfd entries[2] = {{fd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
  while (!stopping_.load(std::memory_order_relaxed)) {
    int wait = -1;
    if (simulated != nullptr && simulated->HasHeld()) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(simulated->NextDue() - Clock::now());
      wait = static_cast<int>(std::max<long>(0, left.count()));
    }
    int ready = PollRetrying(entries, 2, wait);
    if (ready < 0 || (entries[0].revents & POLLNVAL)) return;
    if (stopping_.load(std::memory_order_relaxed)) return;

    if (simulated != nullptr) {
      HeldDatagram held;
      while (!stopping_.load(std::memory_order_relaxed) && simulated->PopDue(Clock::now(), held)) {
        Deliver(&held.peer, held.peerLength, held.bytes.data(), held.bytes.size(), Clock::now());
      }
    }
    if (!(entries[0].revents & (POLLIN | POLLERR))) continue;

    for (auto& message : messages) message.msg_hdr.msg_namelen = sizeof(sockaddr_storage);
    int count = recvmmsg(fd_, messages.data(), kSlots, MSG_DONTWAIT, nullptr);
    if (count < 0) {
      // A pending socket error (such as an ICMP report) is read and forgotten.
      int error = 0;
      socklen_t length = sizeof error;
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length);
      }
      continue;
    }
    const auto now = Clock::now();
    for (int i = 0; i < count && !stopping_.load(std::memory_order_relaxed); ++i) {
      const msghdr& header = messages[i].msg_hdr;
      const unsigned char* data = batch.get() + i * kSlotSize;
      unsigned long size = messages[i].msg_len;
      int copies = 1;
      if (simulated != nullptr) {
        copies = simulated->Admit(now, static_cast<const sockaddr*>(header.msg_name),
                                  header.msg_namelen, data, size);
        if (detail::Observed()) {
          detail::Notify({SocketEvent::Kind::kDatagramJudged, true, *this,
                          AddressPort(static_cast<const sockaddr*>(header.msg_name)), data, size,
                          now, simulated->GetStats()});
        }
      }
      for (int c = 0; c < copies && !stopping_.load(std::memory_order_relaxed); ++c) {
        Deliver(header.msg_name, header.msg_namelen, data, size, now);
      }
    }
  }
}

}  // namespace orvex::net
