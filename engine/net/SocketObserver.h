// What hosts see of the traffic of the engine's sockets, including the sockets a module owns
// and the host cannot reach into: the TCP bytes and datagrams in each direction with their
// times, and the network condition simulator's decisions. It changes nothing: game-client's
// network figures and its session recorder are built on it. (The other host hook,
// DeliveryGate.h, may hold deliveries back; an observer only watches.)
#pragma once

#include "HostOnly.h"

#include <chrono>
#include <cstdint>

#include "net/EngineSocket.h"
#include "net/NetworkSimulator.h"

namespace orvex::net {

// One happening on one socket. Each happening is one event, shown once to each observer.
// A datagram's way through a UDP socket, with the simulator on:
//   in:  kernel -> kDatagramJudged -> kDatagramDelivered (0, 1 or 2 copies, some later)
//   out: Flush -> kDatagramFlushed -> kDatagramTransmitted (0, 1 or 2 copies, some later
//        from the simulator's sender thread) ... kDatagramJudged
// With the simulator off there is no kDatagramJudged, and each datagram that Flush sends
// is one kDatagramFlushed and, when the kernel takes it, one kDatagramTransmitted.
struct SocketEvent {
  enum class Kind : uint8_t {
    // TCP, in: the bytes one Read or ReadSome handed to the reader, in order (bytes that
    // arrived and were never read do not show). On the reader's thread.
    kTcpRead,
    // TCP, out: one flush's bytes as the writer hands them over. On the writer's thread.
    kTcpFlushed,
    // UDP, in: a datagram as it is handed to the receive callback (after the simulator).
    // `at`: when the kernel gave it, or for a held copy when the simulator released it.
    // On the delivery thread, before the callback.
    kDatagramDelivered,
    // UDP, out: a datagram as Flush is asked to send it (before the simulator). On the
    // writer's thread.
    kDatagramFlushed,
    // UDP, out: a datagram the kernel took (after the simulator). On the writer's thread,
    // or the simulator's sender thread for a copy it held.
    kDatagramTransmitted,
    // UDP, either way: the simulator judged a datagram; `simulated` holds its running
    // totals for that direction. Incoming: on the delivery thread, before the copies that
    // pass are delivered. Outgoing: on the writer's thread, after the copies that pass at
    // once were transmitted.
    kDatagramJudged,
  };

  Kind kind;
  bool incoming;  // towards the socket's user
  // The socket; an observer uses only its const accessors, and only during the call.
  const EngineSocket& socket;
  // The peer: a TCP connection's remote port; a datagram's sender (incoming) or
  // destination (outgoing).
  uint16_t peerPort;
  // The bytes (the datagram, for kDatagramJudged), valid during the call only.
  const unsigned char* data;
  unsigned long size;
  std::chrono::steady_clock::time_point at;
  SimulatedPath::Stats simulated{};  // kDatagramJudged only
};

// Threads: called on the thread that moves the bytes (see each kind), so several threads
// call at once and an implementation locks for itself. It must not block for long (it
// holds up the socket) and must not use the socket beyond the event's call.
class SocketObserver {
 public:
  virtual ~SocketObserver() = default;
  virtual void OnSocketEvent(const SocketEvent& event) noexcept = 0;
};

// The one registration. While a SocketObservation lives, its observer is shown every event
// of every socket of the process (the server form and accepted connections too: an
// observer that wants only some sockets picks them by the event's socket).
// Lifetime: the observer outlives its SocketObservation. When the destructor returns, no
// call to the observer is running or will start, so the observer may go; REQUIRES: the
// destructor does not run inside a call to an observer (it would wait for itself).
// Any thread may create or destroy one; an event that races with either may or may not
// reach the observer, and an event shows each observer at most once. At most
// kMaxObservers live at once; one more throws std::length_error.
class SocketObservation {
 public:
  static constexpr int kMaxObservers = 4;

  explicit SocketObservation(SocketObserver& observer);
  ~SocketObservation();
  SocketObservation(const SocketObservation&) = delete;
  SocketObservation& operator=(const SocketObservation&) = delete;

 private:
  int slot_;
};

namespace detail {
// Whether any observer is registered: one load, so that a socket builds no event for nobody.
bool Observed();
// Shows `event` to every registered observer.
void Notify(const SocketEvent& event);
}  // namespace detail

}  // namespace orvex::net
