#include "server/Stats.h"

#include <nlohmann/json.hpp>

namespace gameserver {

StatsWriter::StatsWriter(std::ostream& out) : out_(out) {}

void StatsWriter::Write(const GameServer& server) {
  using json = nlohmann::ordered_json;
  const auto now = Clock::now();
  const Counters n = server.GetCounters();
  json clients = json::array();
  for (const ClientInfo& c : server.Clients()) {
    const ClientInfo& b = before_[c.playerId];
    json client = {{"playerId", std::to_string(c.playerId)},
                   {"username", c.username},
                   {"connected", c.connected}};
    json total = json::object();
    for (size_t f = 0; f < kClientFigureCount; ++f) {
      client[kClientFigures[f].stats] = c.figures[f] - b.figures[f];
      total[kClientFigures[f].stats] = c.figures[f];
    }
    client["total"] = total;
    clients.push_back(client);
    before_[c.playerId] = c;
  }
  const json line = {{"t", std::chrono::duration<double>(now - start_).count()},
                     {"seconds", std::chrono::duration<double>(now - last_).count()},
                     {"ticks", n.ticks - ticks_},
                     {"datagramsIn", n.datagramsIn - datagramsIn_},
                     {"clients", clients}};
  last_ = now;
  ticks_ = n.ticks;
  datagramsIn_ = n.datagramsIn;
  out_ << line.dump(-1, ' ', false, json::error_handler_t::replace) << '\n' << std::flush;
}

}  // namespace gameserver
