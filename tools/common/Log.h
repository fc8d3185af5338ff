// The head of every log line a tool writes itself (not the module's own texts, which go to
// standard error as the module writes them): the UTC time of day to the millisecond, the
// level and the tool's name, e.g. "08:19:26.123 info game-server: ".
#pragma once

#include <string>

namespace tools {

enum class Level { kInfo, kWarning, kError };

std::string LogHead(const char* tool, Level level);

}  // namespace tools
