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
  // Whether this process opened the socket towards a peer: a TCP connection it connected
  // (not one a listener accepted), a UDP endpoint of the client form (not a bound one).
  // A module's own sockets are of this form.
  bool IsClientForm() const { return clientForm_; }

 protected:
  uint16_t remotePort_ = 0;
  bool clientForm_ = false;  // set by the constructor only
};

}  // namespace orvex::net
