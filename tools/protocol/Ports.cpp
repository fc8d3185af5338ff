#include "protocol/Ports.h"
#include "net/UdpEndpoint.h"

#include <stdexcept>

namespace wire {

PortPair BindSamePort(const std::string& host, uint16_t port, unsigned long udpCapacity) {
  std::string lastError;
  for (int attempt = 0; attempt < (port == 0 ? 20 : 1); ++attempt) {
    PortPair pair;
    pair.tcp = std::make_unique<orvex::net::TcpListener>(host, port);
    try {
      pair.udp = std::make_unique<orvex::net::UdpEndpoint>(orvex::net::UdpEndpoint::BindTag{}, host,
                                                           pair.tcp->GetPort(), udpCapacity);
      return pair;
    } catch (const std::exception& e) {
      lastError = e.what();
    }
  }
  throw std::runtime_error("cannot bind TCP and UDP to one port of " + host + ": " + lastError);
}

}  // namespace wire
