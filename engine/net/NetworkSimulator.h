// The network condition simulator behind UdpEndpoint::Simulate: loss, delay with jitter,
// reordering and duplication of datagrams, per direction, seeded so that a run repeats.
//
// Settings text: comma-separated key=value items. Keys: loss=P%, reorder=P%, dup=P%,
// delay=Dms, jitter=Jms (delay ± jitter, never below zero), seed=N (default 1). A key
// applies to both directions, or to one when prefixed "in." or "out." (out.loss=5%).
// for=Ss (both directions) limits the faults to the first S seconds of the socket's
// simulation; afterwards every datagram passes untouched (held ones still leave when due),
// so that a soak can lift the faults and watch the replica converge.
#pragma once

#include "HostOnly.h"

#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <vector>

namespace orvex::net {

// What happens to the datagrams of one direction. Probabilities are in [0, 1].
struct PathConditions {
  double loss = 0;
  double reorder = 0;
  double duplicate = 0;
  std::chrono::microseconds delay{0};
  std::chrono::microseconds jitter{0};

  bool Active() const { return loss > 0 || reorder > 0 || duplicate > 0 || Holds(); }
  // Whether datagrams can be held in a queue rather than pass at once.
  bool Holds() const { return delay.count() > 0 || jitter.count() > 0 || reorder > 0; }
};

struct SimulationSettings {
  PathConditions in;
  PathConditions out;
  uint64_t seed = 1;
  // How long the faults last from the simulator's creation; zero: for good.
  std::chrono::milliseconds duration{0};

  // Throws std::invalid_argument with a one-line reason.
  static SimulationSettings Parse(const std::string& text);
};

// A datagram that waits in a path: an owning copy with its peer (the sender of an incoming
// datagram, the destination of an outgoing one).
struct HeldDatagram {
  std::chrono::steady_clock::time_point due;
  uint64_t order = 0;  // admission order: equal due times leave first in, first out
  sockaddr_storage peer{};
  socklen_t peerLength = 0;
  std::vector<unsigned char> bytes;
};

// One direction of the simulated network: a seeded fate for every datagram and the queue
// of held copies, ordered by due time. Time comes in as an argument, so tests drive it.
// Not synchronised: one thread at a time.
class SimulatedPath {
 public:
  using Clock = std::chrono::steady_clock;
  // A reordered datagram is held this much longer than its delay would hold it, so that
  // the datagrams that follow within this time overtake it.
  static constexpr std::chrono::milliseconds kReorderHold{50};

  struct Stats {
    uint64_t admitted = 0;
    uint64_t dropped = 0;
    uint64_t duplicated = 0;
    uint64_t delayed = 0;    // copies put in the queue
    uint64_t reordered = 0;  // copies held back behind later datagrams
  };

  SimulatedPath(const PathConditions& conditions, uint64_t seed);

  // From `end` on, Admit passes every datagram at once, untouched, without a draw.
  void EndAt(Clock::time_point end) { end_ = end; }

  // Decides the fate of a datagram that arrives at `now`. Returns how many copies pass at
  // once (0 when it is dropped or every copy is held, 2 when it is duplicated and not
  // delayed); held copies wait in the queue.
  int Admit(Clock::time_point now, const sockaddr* peer, socklen_t peerLength,
            const unsigned char* data, unsigned long size);
  // Moves the earliest held datagram that is due at `now` into `out`.
  bool PopDue(Clock::time_point now, HeldDatagram& out);
  bool HasHeld() const { return !held_.empty(); }
  // Due time of the earliest held datagram. REQUIRES: HasHeld().
  Clock::time_point NextDue() const { return held_.top().due; }
  void DropHeld() { held_ = {}; }

  const PathConditions& Conditions() const { return conditions_; }
  const Stats& GetStats() const { return stats_; }

 private:
  struct Later {
    bool operator()(const HeldDatagram& a, const HeldDatagram& b) const {
      return a.due != b.due ? a.due > b.due : a.order > b.order;
    }
  };

  uint64_t Next();
  bool Chance(double probability);

  PathConditions conditions_;
  Clock::time_point end_ = Clock::time_point::max();
  uint64_t state_;
  uint64_t order_ = 0;
  Stats stats_;
  std::priority_queue<HeldDatagram, std::vector<HeldDatagram>, Later> held_;
};

// Both directions of one socket. The receive path belongs to the socket's delivery thread;
// the send path is used by the socket's writer thread and drained by a sender thread that
// starts with the first held outgoing datagram.
class NetworkSimulator {
 public:
  using Clock = std::chrono::steady_clock;
  // Sends one datagram; called on the writer thread and on the sender thread.
  using SendFunction = std::function<void(const sockaddr* to, socklen_t toLength,
                                          const unsigned char* data, unsigned long size)>;

  NetworkSimulator(const SimulationSettings& settings, SendFunction send);
  NetworkSimulator(const NetworkSimulator&) = delete;
  NetworkSimulator& operator=(const NetworkSimulator&) = delete;
  ~NetworkSimulator();

  bool SimulatesIn() const { return settings_.in.Active(); }
  bool SimulatesOut() const { return settings_.out.Active(); }
  const SimulationSettings& Settings() const { return settings_; }

  // Delivery thread only.
  SimulatedPath& In() { return in_; }

  // Writer thread: passes a datagram through the send path. Copies that pass at once are
  // sent before Send returns (errors propagate); held ones leave from the sender thread,
  // which drops errors (the datagram is lost, as UDP may lose it anyway).
  void Send(const sockaddr* to, socklen_t toLength, const unsigned char* data, unsigned long size);
  // Writer thread: ends the sender thread and drops the held outgoing datagrams. A later
  // Send starts a new sender thread when it needs one.
  void StopSender();
  SimulatedPath::Stats OutStats() const;

 private:
  void SenderLoop();

  const SimulationSettings settings_;
  const SendFunction send_;
  SimulatedPath in_;

  mutable std::mutex mutex_;  // guards out_ and stop_ between writer and sender thread
  std::condition_variable wake_;
  SimulatedPath out_;
  bool stop_ = false;
  std::thread sender_;  // writer thread only
};

}  // namespace orvex::net
