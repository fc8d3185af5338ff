// The platform's sockets, made of the engine's own: a TcpSocket is a client-form
// TcpConnection, a UdpSocket a client-form UdpEndpoint (which picks up the process-wide
// simulator settings that hosts set for sockets they cannot reach into). Every
// declared operation is the engine socket's, unchanged; a host's delivery gate, when one is
// installed, is called around each reliable message and datagram.
#include <atomic>
#include <utility>

#include "net/DeliveryGate.h"

#include "net/TcpConnection.h"
#include "net/UdpEndpoint.h"
#include "orvex/net/Socket.h"

namespace orvex::net {
namespace {

std::atomic<DeliveryGate*> installedGate{nullptr};

}  // namespace

void SetDeliveryGate(DeliveryGate* gate) {
  installedGate.store(gate);
}

struct TcpSocket::Connection : TcpConnection {
  using TcpConnection::TcpConnection;
};

TcpSocket::TcpSocket(const std::string& host, uint16_t port, unsigned long bufferSize,
                     int timeoutMs)
    : connection_(std::make_unique<Connection>(host, port, bufferSize, timeoutMs)) {
  remoteAddress_ = connection_->GetRemoteAddress();
}

TcpSocket::~TcpSocket() = default;

int TcpSocket::Poll(int timeoutMs) {
  DeliveryGate* const gate = installedGate.load();
  if (gate != nullptr) gate->MessageEnds();
  const int ready = connection_->Poll(timeoutMs);
  if (gate != nullptr && ready == 1 && !gate->MessageBegins()) return 0;
  return ready;
}

void TcpSocket::Write(const unsigned char* data, unsigned long size) {
  connection_->Write(data, size);
}

void TcpSocket::Read(unsigned char* data, unsigned long size) {
  connection_->Read(data, size);
}

void TcpSocket::Flush() {
  connection_->Flush();
}

unsigned long TcpSocket::GetBufferSize() const {
  return connection_->GetBufferSize();
}

filesystem::ReadOnlyStream TcpSocket::ReadStream() {
  return connection_->ReadStream();
}

struct UdpSocket::Endpoint : UdpEndpoint {
  using UdpEndpoint::UdpEndpoint;
};

UdpSocket::UdpSocket(const std::string& host, uint16_t port, unsigned long bufferSize)
    : endpoint_(std::make_unique<Endpoint>(host, port, bufferSize)) {
  remoteAddress_ = endpoint_->GetRemoteAddress();
}

// Delivery stops, and its thread is joined, before anything of the socket goes.
UdpSocket::~UdpSocket() {
  endpoint_->StopReceiving();
}

void UdpSocket::Receive(
    std::function<void(const UdpSocket&, filesystem::ReadOnlyStream&&)> callback) {
  endpoint_->Receive([this, callback = std::move(callback)](const UdpEndpoint&,
                                                            filesystem::ReadOnlyStream&& datagram) {
    DeliveryGate* const gate = installedGate.load();
    if (gate == nullptr) return callback(*this, std::move(datagram));
    if (!gate->DatagramBegins()) return;
    // Ends on every way out, so that a throwing callback does not hold the other threads.
    struct End {
      DeliveryGate* gate;
      ~End() { gate->DatagramEnds(); }
    } end{gate};
    callback(*this, std::move(datagram));
  });
}

std::string UdpSocket::GetIncomingAddress() const {
  return endpoint_->GetIncomingAddress();
}

void UdpSocket::Write(const unsigned char* data, unsigned long size) {
  endpoint_->Write(data, size);
}

void UdpSocket::Read(unsigned char* data, unsigned long size) {
  endpoint_->Read(data, size);
}

void UdpSocket::Flush() {
  endpoint_->Flush();
}

unsigned long UdpSocket::GetBufferSize() const {
  return endpoint_->GetBufferSize();
}

}  // namespace orvex::net
