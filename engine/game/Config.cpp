#include "game/Config.h"

namespace game {

void Config::Parse(char* text) {
  text_ = text != nullptr ? std::string(text) : std::string();
  ++parseCount_;
}

}  // namespace game
