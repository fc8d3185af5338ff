#include "net/Address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace orvex::net {

std::vector<Endpoint> Resolve(const std::string& host, uint16_t port, int socketType,
                              bool passive) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = socketType;
  hints.ai_flags = AI_NUMERICSERV | (passive ? AI_PASSIVE : 0);
  const char* node = host.empty() && passive ? nullptr : host.c_str();
  std::string service = std::to_string(port);

  addrinfo* list = nullptr;
  int rc = getaddrinfo(node, service.c_str(), &hints, &list);
  if (rc != 0) {
    throw std::runtime_error("Cannot resolve " + host + ": " +
                             (rc == EAI_SYSTEM ? ErrorText(errno) : gai_strerror(rc)));
  }
  std::vector<Endpoint> endpoints;
  for (addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    if (ai->ai_family != AF_INET && ai->ai_family != AF_INET6) continue;
    if (ai->ai_addrlen > sizeof(sockaddr_storage)) continue;
    Endpoint endpoint;
    std::memcpy(&endpoint.storage, ai->ai_addr, ai->ai_addrlen);
    endpoint.length = ai->ai_addrlen;
    endpoints.push_back(endpoint);
  }
  freeaddrinfo(list);
  if (endpoints.empty()) throw std::runtime_error("Cannot resolve " + host + ": no address");
  std::stable_partition(endpoints.begin(), endpoints.end(),
                        [](const Endpoint& e) { return e.Family() == AF_INET; });
  return endpoints;
}

std::string AddressText(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address->sa_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
  } else if (address->sa_family == AF_INET6) {
    const in6_addr& a6 = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (IN6_IS_ADDR_V4MAPPED(&a6)) {
      inet_ntop(AF_INET, a6.s6_addr + 12, text, sizeof text);
    } else {
      inet_ntop(AF_INET6, &a6, text, sizeof text);
    }
  }
  return text;
}

uint16_t AddressPort(const sockaddr* address) {
  if (address->sa_family == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in*>(address)->sin_port);
  }
  if (address->sa_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6*>(address)->sin6_port);
  }
  return 0;
}

Endpoint MapToIpv6(const Endpoint& endpoint) {
  if (endpoint.Family() != AF_INET) return endpoint;
  const auto& in4 = reinterpret_cast<const sockaddr_in&>(endpoint.storage);
  Endpoint mapped;
  auto& in6 = reinterpret_cast<sockaddr_in6&>(mapped.storage);
  in6.sin6_family = AF_INET6;
  in6.sin6_port = in4.sin_port;
  in6.sin6_addr.s6_addr[10] = 0xff;
  in6.sin6_addr.s6_addr[11] = 0xff;
  std::memcpy(in6.sin6_addr.s6_addr + 12, &in4.sin_addr, 4);
  mapped.length = sizeof(sockaddr_in6);
  return mapped;
}

std::string HostPortText(const std::string& host, uint16_t port) {
  bool bracket = host.find(':') != std::string::npos;
  return (bracket ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string ErrorText(int error) {
  char buffer[256];
  // The GNU strerror_r returns the text, which may or may not live in `buffer`.
  return strerror_r(error, buffer, sizeof buffer);
}

}  // namespace orvex::net
