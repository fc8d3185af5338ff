// The welcome: every byte that the server sends after the client's hello. A loopback
// server answers a real client::Client constructor with the input and ends the
// connection. The constructor either builds a client that reports what the welcome said,
// or fails with a one-line std::runtime_error; anything else is a fault (a sanitizer
// report, another exception type, an allocation above libFuzzer's limit, a hang).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

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
  fuzz::QuietDiagnostics();
  fuzz::InstallMods();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // One listener and server thread for the whole process; never destroyed, so that no
  // exit-time destructor waits for it.
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
    // A complete refusal carries the server's own text, verbatim, whatever it holds (what()
    // shows it up to a zero byte).
    std::string reason;
    if (CompleteRefusal(data, size, reason)) {
      if (failure.what() != reason.substr(0, reason.find('\0'))) {
        fuzz::Fail("a refusal did not carry the server's text");
      }
    } else {
      fuzz::RequireOneLine(failure.what());
    }
  }
  server.WaitServed();
  fuzz::TakeLines();
  fuzz::ResetGame();
  return 0;
}
