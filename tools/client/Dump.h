// The headless game's JSON dump of the replica and of the game state the module wrote.
//
// One object, keys in this order: "playerId" (decimal string), "username", "admin",
// "error", "ending", "world", "mode", "mods", "timestamp", "config", "entities" (sorted by id word
// 0, then word 1), "moduleMessages" (the newest kept, arrival order) and
// "moduleMessagesLeftOut"; the game state indented by two spaces, each entity and each
// module message one compact line. Ids are the unique identifier's text form (empty for none), and
// beside it [word0, word1] as decimal strings ("words", "parentWords"), which read back
// exactly whatever the tag bytes are;
// byte strings are lower-case hex, vectors [x, y, z], quaternions [w, x, y, z]. Doubles are the
// shortest text that reads back bit-exact, always with a '.' or an exponent (-0.0 included);
// non-finite ones are the strings "inf", "-inf", "nan". See docs/game-client.md.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace gameclient {

// What the identity accessors returned while the client was live, and how the run ended.
struct Identity {
  uint64_t playerId = 0;
  std::string username;
  bool admin = false;
  std::string ending;
};

// Writes the dump as it is produced, entity by entity. Reads the entity registry under its
// shared lock, the game statics and the sandbox's records; call on the game thread after
// the receiving thread was joined.
void WriteDump(std::ostream& out, const Identity& identity);
// Writes the dump to `path`; throws std::runtime_error when the file cannot be written.
void WriteDumpFile(const std::string& path, const Identity& identity);

}  // namespace gameclient
