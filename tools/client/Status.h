// The headless game's status line and end-of-run summary, both on standard error, and its
// per-second figures file.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "client/Freshness.h"
#include "client/Stats.h"

namespace client {
class Client;
}

namespace gameclient {

// The figures shown, read from the client's counters and the entity registry.
struct Figures {
  uint64_t entities = 0;
  uint64_t accepted = 0;
  uint64_t droppedShort = 0, droppedMagic = 0, droppedSender = 0, droppedStale = 0,
           droppedForeign = 0;
  uint64_t passesHeld = 0;  // datagram deliveries held back at the game's queue cap
  uint64_t reliable = 0;    // all codes
  uint64_t creates = 0, updates = 0, moves = 0, destroys = 0, moduleMessages = 0;
  uint64_t bytesIn = 0, bytesOut = 0;
};

// Reads the counters of the live `client` (any thread) and the registry's size (takes the
// registry's shared lock).
Figures Measure(const client::Client& client);
// The registry's size alone, for when the client is gone.
uint64_t ReplicaSize();

// A few lines: how the run ended and after how long, the figures with the datagram rate
// over `seconds`, the network's whole-run figures from `stats` and the replica's last
// `freshness`.
std::string SummaryText(const Figures& figures, double seconds, const std::string& ending,
                        const NetworkStats& stats, const FreshnessFigures& freshness);

// The status line of one interval after `head`, cut to `width` columns (whole items only):
// rates, not totals, and a warning first when nothing arrived for more than a second.
std::string StatusText(const Second& second, size_t width, const std::string& head);

// The game thread's view of the figures: takes an interval's figures every second (and scans
// the replica's freshness), writes
// them as one JSON line to the stats stream (if any) and shows the status line (if any): on
// a terminal redrawn in place every 500 ms at the terminal's width, otherwise a plain line
// every 5 s. Game thread only.
class Monitor {
 public:
  using Clock = std::chrono::steady_clock;
  // `stats` must be installed before the client is built; `jsonLines` and `status` may be
  // null.
  Monitor(std::shared_ptr<NetworkStats> stats, std::ostream* jsonLines, std::ostream* status,
          bool terminal);

  // After each frame's work, which began at `begun`.
  void Frame(const client::Client& client, Clock::time_point begun);
  // The last, partial interval, while the client is still there; ends an open status line.
  void Finish(const client::Client& client);
  // Ends a status line left open on a terminal.
  void Close();
  // The last interval's figures.
  const Second& Last() const { return last_; }

 private:
  void Record(const client::Client* client, Clock::time_point now);
  void Show(Clock::time_point now);

  std::shared_ptr<NetworkStats> stats_;
  std::ostream* jsonLines_;
  std::ostream* status_;
  const bool terminal_;
  Clock::time_point nextRecord_, nextShow_;
  Second last_;
  Freshness freshness_;
  bool open_ = false;
};

}  // namespace gameclient
