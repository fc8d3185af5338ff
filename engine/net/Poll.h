// poll(2) with a deadline that survives signals.
#pragma once

#include "HostOnly.h"

#include <poll.h>

#include <cerrno>
#include <chrono>

namespace orvex::net {

// Polls until an event, the time-out (negative: none) or an error; an interrupted call
// resumes with the time that is left. Returns poll's result (-1 with errno on error).
inline int PollRetrying(pollfd* fds, nfds_t count, int timeoutMs) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
  int wait = timeoutMs;
  for (;;) {
    int rc = poll(fds, count, wait);
    if (rc >= 0 || errno != EINTR) return rc;
    if (timeoutMs >= 0) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      wait = left > 0 ? static_cast<int>(left) : 0;
    }
  }
}

}  // namespace orvex::net
