// The game's configuration. The reference runtime keeps the text up to its first zero byte
// for its hosts to read back; a real game would read its settings here.
#include "game/Config.h"

#include <mutex>
#include <string>

#include "game/Host.h"
#include "game/RuntimeState.h"

namespace {

std::mutex recordMutex;  // guards parsedText
std::string parsedText;

}  // namespace

namespace game {

void Config::Parse(char* text) {
  std::lock_guard<std::mutex> lock(recordMutex);
  parsedText = text != nullptr ? std::string(text) : std::string();
}

void runtime::ResetConfigRecord() {
  std::lock_guard<std::mutex> lock(recordMutex);
  parsedText.clear();
}

}  // namespace game

std::string orvex::engine::ConfigText() {
  std::lock_guard<std::mutex> lock(recordMutex);
  return parsedText;
}
