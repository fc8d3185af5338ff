// Pieces shared by the fuzz targets: quiet diagnostics, the fuzz mods and a loopback server.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include "TestServer.h"
#include "client/Client.h"

namespace fuzz {

using wire::Bytes;

// FUZZ_ship and FUZZ_static give entities an interface, server-driven or not; FUZZ_none gives none;
// FUZZ_probe reads module messages. None of their readers throws on a bounded stream.
inline constexpr const char* kShip = "FUZZ_ship";
inline constexpr const char* kStatic = "FUZZ_static";

// Ends the process with "fuzz harness: `what`": a fault that no sanitizer reports.
[[noreturn]] void Fail(const std::string& what);

// A client of a loopback server that answers the hello with `reply`, closes and requires the
// client to close too; `run` gets it, `refused` the constructor's failure; the game is reset after.
// The first call loads the fuzz mods and filters std::cerr (ORVEX_FUZZ_VERBOSE=1 lets all through).
void Connect(const Bytes& reply, const std::function<void(client::Client&)>& run,
             const std::function<void(const std::runtime_error&)>& refused);
// A client, never destroyed, of a server that answered the hello with `reply` and stays open.
client::Client& ConnectedClient(const Bytes& reply);

}  // namespace fuzz
