#include "net/TcpListener.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>

#include "net/Address.h"
#include "net/Poll.h"

namespace orvex::net {

TcpListener::TcpListener(const std::string& host, uint16_t port) {
  const std::string failure = "Cannot listen on " + HostPortText(host, port) + ": ";
  std::vector<Endpoint> endpoints;
  try {
    endpoints = Resolve(host, port, SOCK_STREAM, true);
  } catch (const std::runtime_error& e) {
    throw std::runtime_error(failure + e.what());
  }
  std::string reason;
  for (const Endpoint& endpoint : endpoints) {
    int fd = socket(endpoint.Family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      reason = ErrorText(errno);
      continue;
    }
    int one = 1, zero = 0;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (endpoint.Family() == AF_INET6)
      setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof zero);
    if (bind(fd, endpoint.Get(), endpoint.length) == 0 && listen(fd, SOMAXCONN) == 0) {
      fd_ = fd;
      break;
    }
    reason = ErrorText(errno);
    close(fd);
  }
  if (fd_ < 0) throw std::runtime_error(failure + reason);

  Endpoint local;
  local.length = sizeof local.storage;
  getsockname(fd_, local.Get(), &local.length);
  port_ = AddressPort(local.Get());

  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) {
    int error = errno;
    close(fd_);
    throw std::runtime_error(failure + ErrorText(error));
  }
}

TcpListener::~TcpListener() {
  close(fd_);
  close(wakeFd_);
}

std::unique_ptr<TcpConnection> TcpListener::Accept(int timeoutMs, int stallLimitMs) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
  while (!closed_.load()) {
    int wait = -1;
    if (timeoutMs >= 0) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      wait = left > 0 ? static_cast<int>(left) : 0;
    }
    pollfd entries[2] = {{fd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    int rc = PollRetrying(entries, 2, wait);
    if (rc < 0) throw std::runtime_error("TCP accept failed: " + ErrorText(errno));
    if (rc == 0 || closed_.load()) return nullptr;
    int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) return std::make_unique<TcpConnection>(fd, stallLimitMs);
    // The connection may have gone before accept, or Close shut the listener down.
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED ||
        closed_.load()) {
      continue;
    }
    throw std::runtime_error("TCP accept failed: " + ErrorText(errno));
  }
  return nullptr;
}

void TcpListener::Close() {
  if (closed_.exchange(true)) return;
  shutdown(fd_, SHUT_RDWR);
  uint64_t one = 1;
  [[maybe_unused]] ssize_t n = write(wakeFd_, &one, sizeof one);
}

}  // namespace orvex::net
