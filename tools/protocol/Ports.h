// A server answers datagrams from the port its TCP listener took: binding the two to one port.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "net/TcpListener.h"
#include "net/UdpEndpoint.h"
#include "orvex/net/Socket.h"

namespace wire {

struct PortPair {
  std::unique_ptr<orvex::net::TcpListener> tcp;
  std::unique_ptr<orvex::net::UdpEndpoint> udp;
};

// Port 0 picks a port free for both: TCP first, then UDP on the same number, retried with
// a new TCP port when UDP clashes. A fixed port is tried once. `udpCapacity` is the largest
// datagram the UDP socket sends. Throws std::runtime_error when no pair could be bound.
PortPair BindSamePort(const std::string& host, uint16_t port, unsigned long udpCapacity);

}  // namespace wire
