// What the engine's own sockets add to the platform's socket for their hosts: ports, the
// descriptor, and the form of their byte counts.
#pragma once

#include "HostOnly.h"

#include <cstdint>

#include "orvex/net/Socket.h"

namespace orvex::net {

class EngineSocket : public Socket {
 public:
  struct ByteCounts {
    uint64_t in = 0, out = 0;
  };

  uint16_t GetRemotePort() const { return remotePort_; }
  // The local port the socket is bound to, or 0.
  uint16_t GetLocalPort() const;
  int GetDescriptor() const { return fd_; }

 protected:
  uint16_t remotePort_ = 0;
};

}  // namespace orvex::net
