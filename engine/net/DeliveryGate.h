// What a host may put around the work the platform's sockets hand to their user: each
// reliable message the receiving thread carries out and each datagram the delivery thread
// hands over. game-client uses it to record, and in a replay to impose, the order in which
// the module's threads changed the replica.
#pragma once

#include "HostOnly.h"

namespace orvex::net {

// Called by the platform's TcpSocket and UdpSocket (the sockets a host cannot reach into),
// on the thread named. A reliable message is what the socket's reader does between a Poll
// that found bytes and its next Poll: the module reads one message per such turn. A call
// may block. A Begins that returns false holds the delivery back for good: Poll reports no
// bytes (as at its time-out), the datagram is dropped before the callback (the socket's
// observers have seen it). Each Begins that returned true is followed by its Ends on the same
// thread, except that a reader that never polls again (its thread ended) leaves its message
// open: the host ends it.
class DeliveryGate {
 public:
  virtual ~DeliveryGate() = default;
  // Receiving thread: Poll found bytes and is about to say so.
  virtual bool MessageBegins() = 0;
  // Receiving thread: Poll was called again (the message before it, if any, is done).
  virtual void MessageEnds() = 0;
  // Delivery thread: around the receive callback, for each datagram.
  virtual bool DatagramBegins() = 0;
  virtual void DatagramEnds() = 0;
};

// Installs `gate` (null: none) for every platform socket of the process.
// REQUIRES: the gate outlives every call made while it is installed; a host removes it only
// once the sockets are closed (their threads joined).
void SetDeliveryGate(DeliveryGate* gate);

}  // namespace orvex::net
