// What the network did, second by second: the headless game's figures of its connection,
// taken from the datagrams its client socket delivers (observed in the engine), the game
// thread's queue and frames, and the module's own counters. docs/game-client.md lists
// every figure and the JSON Lines schema of --stats.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "net/SocketObserver.h"
#include "orvex/net/Socket.h"

namespace client {
class Client;
}

namespace gameclient {

// The sequence numbers of one kind of state datagram, as they arrive. A tick whose number
// was skipped counts as missed once the newest number is kWindow past it and it still has
// not come; a number below the newest that was not seen yet arrived late (out of order);
// one seen already is a repeat (a tick split over several datagrams, or a duplicate).
class SequenceTracker {
 public:
  static constexpr uint64_t kWindow = 64;
  enum class Arrival { kFirst, kNewest, kLate, kRepeat, kTooOld };

  Arrival Add(uint64_t sequence);
  // Ticks given up on; with `pending`, also those still inside the window (the end of a run).
  uint64_t Missed(bool pending = false) const;
  uint64_t Late() const { return late_; }
  uint64_t Repeats() const { return repeats_; }

 private:
  bool started_ = false;
  uint64_t newest_ = 0;
  // Bit i: tick newest_ - i was seen. Ticks before the first one count as seen.
  uint64_t seen_ = ~uint64_t{0};
  uint64_t missed_ = 0, late_ = 0, repeats_ = 0;
};

// Inter-arrival jitter as RTP reckons it (RFC 3550, 6.4.1): a running mean of how much the
// gap between two arrivals differs from the gap between the server times they carry, with
// gain 1/16; and the lateness of each arrival, its transit (arrival minus server time)
// above the smallest transit seen, which takes out the offset between the two clocks.
class Jitter {
 public:
  // Returns the arrival's lateness in seconds.
  double Add(double arrival, double serverTime);
  double Seconds() const { return jitter_; }

 private:
  bool started_ = false;
  double lastTransit_ = 0, bestTransit_ = 0, jitter_ = 0;
};

// The median, 99th percentile and largest of a second's samples (0 when there are none).
struct Spread {
  double median = 0, p99 = 0, max = 0;
  static Spread Of(std::vector<double> samples);
};

// How fresh the replica was at an interval's end (client/Freshness.h finds it): the age of
// each entity's newest state, and the entities that went longest without news.
struct FreshnessFigures {
  struct Stale {
    std::string id;         // the id's text form
    double ageMs = 0;       // since the scan that saw its last change
    double serverTime = 0;  // Game::timestamp at that scan: the tick the client last heard of
  };
  Spread ageMs;                // over every entity in the replica
  uint64_t counted = 0;        // the entities the ages are of, each counted once
  std::vector<Stale> stalest;  // the few oldest changes, oldest first (ties by id)
  double scanMs = 0;           // what finding these cost the game thread
};

// One interval's figures (about a second). Counts are of the interval, not totals.
struct Second {
  double at = 0;       // seconds since the start, at the interval's end
  double seconds = 0;  // the interval's length
  struct Direction {
    uint64_t datagrams = 0, bytes = 0;
  };
  Direction in, out;                     // UDP, as the client socket delivered and sent them
  uint64_t transforms = 0, physics = 0;  // state datagrams among `in`
  uint64_t tcpBytesIn = 0, tcpBytesOut = 0, reliable = 0;
  struct Ticks {
    uint64_t missed = 0, late = 0, repeats = 0;
  };
  Ticks transformTicks, physicsTicks;
  uint64_t stale = 0;         // state datagrams the module dropped as older than the newest
  uint64_t droppedOther = 0;  // short, wrong magic, wrong sender, foreign
  double jitterMs = 0;        // at the interval's end
  Spread lateMs, applyWaitMs, frameMs;
  uint64_t frames = 0, entities = 0;
  double silentMs = 0;  // since the last datagram, at the interval's end
  FreshnessFigures freshness;
  bool simulated = false;
  orvex::net::SimulatedPath::Stats simulatorIn, simulatorOut;
};

nlohmann::ordered_json ToJson(const Second& second);

// The figures of the client's UDP socket and of the game thread. Registered as a socket
// observer before the client is built, it takes the datagrams of client-form UDP sockets (the
// module's) and leaves every other socket and TCP alone (TCP figures are the engine's byte
// counts). Delivered(), Sent() and Simulation() on the socket's threads; Frame() and
// Waited() from the game thread; Take() from the game thread once an interval.
class NetworkStats : public orvex::net::SocketObserver {
 public:
  using Clock = std::chrono::steady_clock;
  using Simulated = orvex::net::SimulatedPath::Stats;

  void OnSocketEvent(const orvex::net::SocketEvent& event) noexcept override;
  // A datagram handed to the client, `at` the time it arrived.
  void Delivered(const unsigned char* data, unsigned long size, Clock::time_point at);
  // A datagram the kernel took.
  void Sent(unsigned long size);
  // The simulator's running totals for one direction.
  void Simulation(bool incoming, const Simulated& totals);

  void Waited(Clock::duration wait);
  void Frame(Clock::duration work);
  // Ends the interval at `now`: its figures, with the module's counters of `client` (null
  // once it is gone).
  Second Take(const client::Client* client, Clock::time_point now);
  // Whole-run figures: ticks missed (pending ones included), late, jitter now.
  Second::Ticks TransformTotals() const;
  Second::Ticks PhysicsTotals() const;
  double JitterMs() const;
  // Milliseconds since the last datagram arrived (since the start when none has).
  double SilentMs(Clock::time_point now) const;

 private:
  Second::Ticks Delta(const SequenceTracker& tracker, Second::Ticks& last) const;

  mutable std::mutex mutex_;
  const Clock::time_point start_ = Clock::now();
  Clock::time_point intervalStart_ = start_;
  Clock::time_point lastArrival_{};
  Second current_;
  SequenceTracker transforms_, physics_;
  Second::Ticks lastTransforms_, lastPhysics_;
  Jitter jitter_;
  std::vector<double> late_, waits_, frames_;
  Simulated simulatorIn_, simulatorOut_, lastSimulatorIn_, lastSimulatorOut_;
  // The module's and TCP's totals at the last Take.
  uint64_t lastStale_ = 0, lastDropped_ = 0, lastReliable_ = 0;
  uint64_t lastTcpIn_ = 0, lastTcpOut_ = 0;
  uint64_t udpBytesIn_ = 0, udpBytesOut_ = 0;
};

}  // namespace gameclient
