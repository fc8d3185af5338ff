// Direct access to the client's private entry points, for tests and fuzzers that feed the
// datagram intake without a socket in between.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "client/Client.h"
#include "filesystem/StreamValues.h"
#include "net/UdpEndpoint.h"

namespace client {

class ClientTestPeer {
 public:
  // The datagram callback's body: length, magic and sender checks, then the intake.
  static void UdpMessage(Client& client, const orvex::net::UdpSocket& socket,
                         orvex::filesystem::ReadOnlyStream&& datagram) {
    client.UdpMessage(socket, std::move(datagram));
  }
  // A platform socket whose last datagram came from `host` (a loopback address), so that
  // its GetIncomingAddress() is what the datagram callback sees of that sender. Throws when
  // no datagram arrives within 10 s.
  static std::unique_ptr<orvex::net::UdpSocket> SocketThatHeardFrom(const std::string& host) {
    orvex::net::UdpEndpoint peer(orvex::net::UdpEndpoint::BindTag{}, host, 0, 16);
    auto heard = std::make_shared<std::atomic<bool>>(false);
    auto socket = std::make_unique<orvex::net::UdpSocket>(host, peer.GetLocalPort(), 16);
    socket->Receive([heard](const orvex::net::UdpSocket&, orvex::filesystem::ReadOnlyStream&&) {
      heard->store(true);
    });
    auto replied = std::make_shared<std::atomic<bool>>(false);
    peer.Receive(
        [&peer, replied](const orvex::net::UdpEndpoint& from, orvex::filesystem::ReadOnlyStream&&) {
          if (replied->exchange(true)) return;
          peer.SetDestination(from.GetIncomingAddress(), from.GetIncomingPort());
          orvex::filesystem::WriteValue(peer, uint8_t{1});
          peer.Flush();
        });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!heard->load() && std::chrono::steady_clock::now() < deadline) {
      orvex::filesystem::WriteValue(*socket, uint8_t{1});
      socket->Flush();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    peer.StopReceiving();
    if (!heard->load()) throw std::runtime_error("no loopback datagram arrived from " + host);
    return socket;
  }
  // The intake proper, from the code byte on (the stream is positioned after the magic).
  static void ReceiveDatagram(Client& client, orvex::filesystem::ReadOnlyStream&& datagram) {
    client.Receive(std::move(datagram));
  }
  // Puts both sequence counters back to their values after construction, so that a fuzzer's
  // inputs do not depend on the ones before; no datagram may be taken in meanwhile.
  static void ResetSequences(Client& client) {
    client.lastTransformSequence = client.lastPhysicsSequence = 0;
  }
};

}  // namespace client
