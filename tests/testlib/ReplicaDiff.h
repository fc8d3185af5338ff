// The replica in a game-client dump against the server's state, for the end-to-end tests.
#pragma once

#include <string>
#include <vector>

namespace testlib {

// Every difference between the server's state (GameServer::StateJson or game-server
// --final-state) and the replica in a game-client dump, one line each; empty when they
// agree. A driven entity's target is its last transform; any other keeps its creation's or
// last move's, the orientation to single precision. The last sync data is serial, revision.
std::vector<std::string> ReplicaDifferences(const std::string& state, const std::string& dump);

}  // namespace testlib
