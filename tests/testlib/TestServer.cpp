#include "TestServer.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "filesystem/StreamValues.h"
#include "net/TcpConnection.h"
#include "net/UdpEndpoint.h"
#include "protocol/Ports.h"

namespace testserver {
namespace {

// The server's datagrams may be as large as UDP allows, so tests can send oversized ones.
constexpr unsigned long kUdpCapacity = 65507;

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

// ---------------------------------------------------------------------------------------

TestConnection::TestConnection(std::unique_ptr<orvex::net::TcpConnection> tcp)
    : tcp_(std::move(tcp)) {}

TestConnection::~TestConnection() = default;

bool TestConnection::Fill(int64_t deadlineMs) {
  if (closed_) return false;
  const int64_t left = deadlineMs - NowMs();
  if (left <= 0) return false;
  const int ready = tcp_->Poll(static_cast<int>(std::min<int64_t>(left, 1 << 30)));
  if (ready == 0) return false;
  unsigned char buffer[64 << 10];
  unsigned long got = 0;
  if (ready > 0) {
    try {
      got = tcp_->ReadSome(buffer, sizeof buffer);
    } catch (const std::runtime_error&) {
      got = 0;
    }
  }
  if (got == 0) {
    closed_ = true;
    return false;
  }
  pending_.insert(pending_.end(), buffer, buffer + got);
  return true;
}

wire::Hello TestConnection::ReadHello(int passwordWaitMs) {
  const int64_t deadline = NowMs() + 10000;
  bool waitedForPassword = false;
  for (;;) {
    size_t consumed = 0;
    std::optional<wire::Hello> hello = wire::ParseHello(pending_.data(), pending_.size(), consumed);
    if (hello && !hello->hasPassword && !waitedForPassword) {
      // Complete without a password so far; a marker may still be on its way.
      waitedForPassword = true;
      if (Fill(NowMs() + passwordWaitMs)) continue;
    }
    if (hello) {
      pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(consumed));
      return *hello;
    }
    if (!Fill(deadline)) {
      throw std::runtime_error("no complete hello arrived (" + std::to_string(pending_.size()) +
                               " bytes received)");
    }
  }
}

Bytes TestConnection::ReadBytes(size_t n, int timeoutMs) {
  const int64_t deadline = NowMs() + timeoutMs;
  while (pending_.size() < n) {
    if (!Fill(deadline)) {
      throw std::runtime_error("only " + std::to_string(pending_.size()) + " of " +
                               std::to_string(n) + " bytes arrived" +
                               (closed_ ? " before the connection ended" : " in time"));
    }
  }
  Bytes bytes(pending_.begin(), pending_.begin() + static_cast<long>(n));
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(n));
  return bytes;
}

Bytes TestConnection::ReadAvailable(int quietMs, int totalMs) {
  const int64_t deadline = NowMs() + totalMs;
  while (Fill(std::min(deadline, NowMs() + quietMs))) {
  }
  return std::exchange(pending_, Bytes());
}

wire::ClientMessage TestConnection::ReadMessage(int timeoutMs) {
  const int64_t deadline = NowMs() + timeoutMs;
  for (;;) {
    if (!pending_.empty()) {
      auto in = orvex::filesystem::ReadOnlyStream(pending_.data(), pending_.size());
      try {
        wire::ClientMessage message = wire::ReadClientMessage(in);
        pending_.erase(pending_.begin(),
                       pending_.begin() + static_cast<long>(orvex::filesystem::PositionOf(in)));
        return message;
      } catch (const wire::Truncated&) {
        // A prefix of a message: wait for the rest.
      }
    }
    if (!Fill(deadline)) {
      throw std::runtime_error("no complete client message arrived (" +
                               std::to_string(pending_.size()) + " bytes waiting" +
                               (closed_ ? ", connection ended)" : ")"));
    }
  }
}

void TestConnection::Send(const Bytes& bytes) {
  tcp_->Write(bytes.data(), bytes.size());
  tcp_->Flush();
}

void TestConnection::Flush() {
  tcp_->Flush();
}

void TestConnection::Close() {
  tcp_->Shutdown();
}

bool TestConnection::WaitClosed(int timeoutMs) {
  const int64_t deadline = NowMs() + timeoutMs;
  while (Fill(deadline)) {
  }
  return closed_;
}

// ---------------------------------------------------------------------------------------

TestServer::TestServer(const std::string& host) : host_(host) {
  wire::PortPair pair = wire::BindSamePort(host, 0, kUdpCapacity);
  listener_ = std::move(pair.tcp);
  udp_ = std::move(pair.udp);
  port_ = listener_->GetPort();
  udp_->Receive(
      [this](const orvex::net::UdpEndpoint& socket, orvex::filesystem::ReadOnlyStream&& datagram) {
        ReceivedDatagram received;
        received.address = socket.GetIncomingAddress();
        received.port = socket.GetIncomingPort();
        received.bytes = orvex::filesystem::BytesOf(datagram);
        std::lock_guard<std::mutex> lock(queueMutex_);
        queue_.push_back(std::move(received));
        arrived_.notify_all();
      });
}

TestServer::~TestServer() {
  udp_->StopReceiving();
}

std::unique_ptr<TestConnection> TestServer::Accept(int timeoutMs) {
  std::unique_ptr<orvex::net::TcpConnection> tcp = listener_->Accept(timeoutMs);
  if (!tcp) throw std::runtime_error("no connection within " + std::to_string(timeoutMs) + " ms");
  return std::make_unique<TestConnection>(std::move(tcp));
}

std::optional<ReceivedDatagram> TestServer::NextDatagram(int timeoutMs) {
  std::unique_lock<std::mutex> lock(queueMutex_);
  if (!arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                         [this] { return !queue_.empty(); })) {
    return std::nullopt;
  }
  ReceivedDatagram datagram = std::move(queue_.front());
  queue_.pop_front();
  return datagram;
}

size_t TestServer::DiscardDatagrams() {
  std::lock_guard<std::mutex> lock(queueMutex_);
  const size_t count = queue_.size();
  queue_.clear();
  return count;
}

void TestServer::SendDatagram(const std::string& host, uint16_t port, const Bytes& bytes) {
  std::lock_guard<std::mutex> lock(sendMutex_);
  udp_->SetDestination(host, port);
  udp_->Write(bytes.data(), bytes.size());
  udp_->Flush();
}

void TestServer::SendDatagramFrom(const std::string& sourceHost, const std::string& host,
                                  uint16_t port, const Bytes& bytes) {
  orvex::net::UdpEndpoint socket(orvex::net::UdpEndpoint::BindTag{}, sourceHost, 0, kUdpCapacity);
  socket.SetDestination(host, port);
  socket.Write(bytes.data(), bytes.size());
  socket.Flush();
}

}  // namespace testserver
