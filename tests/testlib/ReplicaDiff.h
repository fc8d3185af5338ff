// The replica in a game-client dump against the server's state, for the end-to-end tests.
#pragma once

#include <string>
#include <vector>

namespace testlib {

// Every difference between the server's state (`state`: GameServer::StateJson, or the file
// game-server --final-state writes) and the replica in a game-client dump (`dump`), one line
// each; empty when they agree. Entities without an interface never stay in a replica. An
// entity the server drives has its last transform datagram's values as its target; any other
// keeps what its creation or last move said, its orientation to single precision (the
// server notes what its datagrams round). The last sync data is the entity's serial and
// revision.
std::vector<std::string> ReplicaDifferences(const std::string& state, const std::string& dump);

}  // namespace testlib
