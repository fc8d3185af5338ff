// The game's configuration, parsed from the text the server sends in the welcome.
#pragma once

#include <string>

namespace game {

class Config {
 public:
  // Takes a zero-terminated text (a null pointer counts as empty). The reference runtime
  // keeps the text up to its first zero byte; a real game would read its settings here.
  void Parse(char* text);

  // The text given to the last Parse(), and how many times Parse() ran.
  const std::string& Text() const { return text_; }
  int ParseCount() const { return parseCount_; }

 private:
  std::string text_;
  int parseCount_ = 0;
};

}  // namespace game
