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
    clients.push_back({{"playerId", std::to_string(c.playerId)},
                       {"username", c.username},
                       {"connected", c.connected},
                       {"datagrams", c.datagramsSent - b.datagramsSent},
                       {"bytes", c.datagramBytesSent - b.datagramBytesSent},
                       {"reliable", c.reliableSent - b.reliableSent},
                       {"tcpBytes", c.tcpBytesSent - b.tcpBytesSent},
                       {"total",
                        {{"datagrams", c.datagramsSent},
                         {"bytes", c.datagramBytesSent},
                         {"reliable", c.reliableSent},
                         {"tcpBytes", c.tcpBytesSent}}}});
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
