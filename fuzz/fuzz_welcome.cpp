// The welcome: the client constructor either reports what it said or fails with a one-line error.
#include <cstring>
#include <stdexcept>

#include "FuzzSupport.h"
#include "Game.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto run = [](client::Client& client) {
    if (client::Client::_instance != &client) fuzz::Fail("a built client is not the live one");
    (void)client::Client::GetUsername(), (void)client::Client::GetPlayerID();
    if (client::Client::IsAdmin()) fuzz::Fail("a fresh client is an admin");
    for (const std::string& mod : Game::_mods) {
      if (mod.empty()) fuzz::Fail("the welcome's mod list took in an empty name");
    }
  };
  // A complete refusal (status other than 1, u32 count up to 65535, the text) carries the
  // server's text verbatim, up to a zero byte; any other failure is one line.
  fuzz::Connect(fuzz::Bytes(data, data + size), run, [=](const std::runtime_error& failure) {
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
  });
  return 0;
}
