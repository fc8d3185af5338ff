// The welcome: whatever the server sends after the hello, answered to a real client::Client
// constructor by a loopback server that then ends the connection. The constructor builds a
// client that reports what the welcome said, or fails with a one-line std::runtime_error.
#include <cstring>
#include <stdexcept>

#include "FuzzSupport.h"
#include "Game.h"
#include "client/Client.h"

namespace {

// Whether the welcome is a refusal (status byte other than 1) whose reason text (u32
// count, at most 65535, then the bytes) is all there; sets `reason` to that text.
bool CompleteRefusal(const uint8_t* data, size_t size, std::string& reason) {
  if (size < 5 || data[0] == 1) return false;
  uint32_t count;
  std::memcpy(&count, data + 1, sizeof count);
  if (count > 65535 || size - 5 < count) return false;
  reason.assign(reinterpret_cast<const char*>(data + 5), count);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Start();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // One server for the whole process; never destroyed, so no exit-time destructor waits.
  static fuzz::LoopbackServer& server = *new fuzz::LoopbackServer();
  server.Arm(fuzz::Bytes(data, data + size), true);
  try {
    client::Client client("127.0.0.1", server.Port(), "token", "");
    if (client::Client::_instance != &client) fuzz::Fail("a built client is not the live one");
    (void)client::Client::GetUsername();
    (void)client::Client::GetPlayerID();
    if (client::Client::IsAdmin()) fuzz::Fail("a fresh client is an admin");
    for (const std::string& mod : Game::_mods) {
      if (mod.empty()) fuzz::Fail("the welcome's mod list took in an empty name");
    }
  } catch (const std::runtime_error& failure) {
    // A complete refusal carries the server's own text verbatim (what() shows it up to a
    // zero byte); any other failure is one line.
    std::string reason;
    if (!CompleteRefusal(data, size, reason)) {
      fuzz::RequireOneLine(failure.what());
    } else if (failure.what() != reason.substr(0, reason.find('\0'))) {
      fuzz::Fail("a refusal did not carry the server's text");
    }
  }
  server.WaitServed();
  Game::ResetEntities();
  Game::Reset();
  return 0;
}
