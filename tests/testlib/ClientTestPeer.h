// Direct access to the client's private entry points, for tests and fuzzers that feed the
// datagram intake without a socket in between.
#pragma once

#include <utility>

#include "client/Client.h"

namespace client {

class ClientTestPeer {
 public:
  // The datagram callback's body: length, magic and sender checks, then the intake.
  static void UdpMessage(Client& client, const orvex::net::UdpSocket& socket,
                         orvex::filesystem::ReadOnlyStream&& datagram) {
    client.UdpMessage(socket, std::move(datagram));
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
