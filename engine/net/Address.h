// Socket addresses of the engine's sockets: resolution and the text form that the
// platform promises (see orvex/net/Socket.h).
#pragma once

#include "HostOnly.h"

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

namespace orvex::net {

// A resolved address: a sockaddr of either family with its length.
struct Endpoint {
  sockaddr_storage storage{};
  socklen_t length = 0;

  int Family() const { return storage.ss_family; }
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
  sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
};

// Resolves host:port with the system resolver; IPv4 results come first, otherwise in the
// resolver's order. `passive` resolves for bind (an empty host is the wildcard). Throws
// std::runtime_error with the resolver's reason; never returns an empty list.
std::vector<Endpoint> Resolve(const std::string& host, uint16_t port, int socketType,
                              bool passive = false);

// The numeric address without port: a.b.c.d, or IPv6 as inet_ntop prints it; an
// IPv4-mapped IPv6 address (::ffff:a.b.c.d) prints as plain IPv4.
std::string AddressText(const sockaddr* address);
uint16_t AddressPort(const sockaddr* address);

// The same address as an AF_INET6 sockaddr: IPv4 becomes ::ffff:a.b.c.d, IPv6 is kept.
Endpoint MapToIpv6(const Endpoint& endpoint);

// "host:port", with the host in brackets when it contains a colon.
std::string HostPortText(const std::string& host, uint16_t port);

// strerror for an errno value, thread-safe.
std::string ErrorText(int error);

}  // namespace orvex::net
