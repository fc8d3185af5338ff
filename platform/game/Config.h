// The game's configuration, parsed from the text the server sends in the welcome.
#pragma once

namespace game {

class Config {
 public:
  // Takes a zero-terminated text (a null pointer counts as empty).
  void Parse(char* text);
};

}  // namespace game
