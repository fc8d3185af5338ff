// The welcome: the client constructor either reports what it said or fails with a one-line error.
#include <cstring>
#include <stdexcept>

#include "FuzzSupport.h"
#include "Game.h"
#include "client/Client.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Start();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Never destroyed, so no exit-time destructor waits.
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
    // A complete refusal (status other than 1, u32 count up to 65535, the text) carries the
    // server's text verbatim, up to a zero byte; any other failure is one line.
    uint32_t count = 0;
    if (size >= 5) std::memcpy(&count, data + 1, sizeof count);
    if (size < 5 || data[0] == 1 || count > 65535 || size - 5 < count) {
      if (*failure.what() == '\0' || std::strchr(failure.what(), '\n')) {
        fuzz::Fail(std::string("an error text is not one line: ") + failure.what());
      }
    } else if (const char* text = reinterpret_cast<const char*>(data + 5);
               failure.what() != std::string(text, strnlen(text, count))) {
      fuzz::Fail("a refusal did not carry the server's text");
    }
  }
  server.WaitServed();
  Game::ResetEntities();
  Game::Reset();
  return 0;
}
