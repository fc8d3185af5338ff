// The headless game's status line and end-of-run summary, both on standard error.
#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

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
  uint64_t passesDropped = 0;  // state passes dropped unrun by the game's queue cap
  uint64_t reliable = 0;  // all codes
  uint64_t creates = 0, updates = 0, moves = 0, destroys = 0, moduleMessages = 0;
  uint64_t bytesIn = 0, bytesOut = 0;
};

// Reads the counters of the live `client` (any thread) and the registry's size (takes the
// registry's shared lock).
Figures Measure(const client::Client& client);
// The registry's size alone, for when the client is gone.
uint64_t ReplicaSize();

std::string StatusText(const Figures& figures);
// A few lines: how the run ended and after how long, then the figures with the datagram
// rate over `seconds`.
std::string SummaryText(const Figures& figures, double seconds, const std::string& ending);

// Prints the status line: on a terminal refreshed in place every 500 ms, otherwise one
// line every 5 s. Game thread only.
class StatusLine {
 public:
  StatusLine(std::ostream& out, bool terminal);

  // Prints when the last line is old enough.
  void Update(const client::Client& client);
  // Ends a line left open on a terminal, so that what follows starts on a line of its own.
  void Close();

 private:
  std::ostream& out_;
  const bool terminal_;
  const std::chrono::steady_clock::duration period_;
  std::chrono::steady_clock::time_point next_;
  bool open_ = false;
};

}  // namespace gameclient
