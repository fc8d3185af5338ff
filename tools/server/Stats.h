// game-server's per-second figures as JSON Lines: per client, what the server sent it in
// the interval and since it joined, so that a client's loss can be reckoned end to end.
// The schema is in docs/game-server.md.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <ostream>

#include "server/GameServer.h"

namespace gameserver {

class StatsWriter {
 public:
  using Clock = std::chrono::steady_clock;

  explicit StatsWriter(std::ostream& out);
  // Writes one line with the figures since the last one.
  void Write(const GameServer& server);

 private:
  std::ostream& out_;
  const Clock::time_point start_ = Clock::now();
  Clock::time_point last_ = start_;
  uint64_t ticks_ = 0, datagramsIn_ = 0;
  std::map<uint64_t, ClientInfo> before_;  // by player id, at the last line
};

}  // namespace gameserver
