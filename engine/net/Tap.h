// A process-wide observer of the bytes that pass through the engine's sockets: the engine's
// extension for a tool that records a session (game-client --record).
#pragma once

#include "HostOnly.h"

#include <cstdint>

#include "net/TcpConnection.h"
#include "net/UdpEndpoint.h"

namespace orvex::net {

// Called on the thread that moves the bytes: a TCP socket's reader (received) or writer
// (sent), a UDP socket's delivery thread (received) or writer (sent). Several threads call
// at once, so an implementation locks for itself; it must not throw and must not use the
// socket it is shown beyond its const accessors.
class Tap {
 public:
  virtual ~Tap() = default;
  // `received`: bytes one Read or ReadSome handed to the reader: what the socket's user
  // took, in order (bytes that arrived and were never read do not show). Otherwise: one
  // flush's bytes, as the writer hands them to the kernel.
  virtual void OnTcp(const TcpConnection& socket, bool received, const unsigned char* data,
                     unsigned long size) = 0;
  // `received`: a datagram as it is handed to the receive callback (after the network
  // simulator, so lost ones never show and duplicates show twice); `peerPort` is its
  // sender's port. Otherwise: a datagram as Flush is asked to send it (before the
  // simulator); `peerPort` is the destination's port.
  virtual void OnDatagram(const UdpEndpoint& socket, bool received, uint16_t peerPort,
                          const unsigned char* data, unsigned long size) = 0;
};

// Installs `tap` (null: none) for every socket of the process.
// REQUIRES: the tap outlives every call made while it is installed; a caller removes it
// only once the sockets it observed are closed (their threads joined).
void SetTap(Tap* tap);
// The installed tap, or null.
Tap* CurrentTap();

}  // namespace orvex::net
