#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "net/Address.h"
#include "net/EngineSocket.h"
#include "net/Poll.h"

namespace orvex::net {
Socket::~Socket() {
  if (fd_ >= 0) close(fd_);
}

int Socket::Poll(int timeoutMs) {
  pollfd entry{fd_, POLLIN, 0};
  int rc = PollRetrying(&entry, 1, timeoutMs);
  if (rc <= 0) return rc;
  if (entry.revents & POLLNVAL) return -1;
  // End of stream and a reset both come with POLLIN or POLLHUP; the read then reports them.
  if (entry.revents & (POLLIN | POLLHUP)) return 1;
  return -1;
}

std::string Socket::GetRemoteAddress() const {
  return remoteAddress_;
}

uint16_t EngineSocket::GetLocalPort() const {
  Endpoint local;
  local.length = sizeof local.storage;
  if (getsockname(fd_, local.Get(), &local.length) != 0) return 0;
  return AddressPort(local.Get());
}

}  // namespace orvex::net
