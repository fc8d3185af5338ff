#include "common/Log.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace tools {

std::string LogHead(const char* tool, Level level) {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  static constexpr const char* kLevels[] = {"info", "warning", "error"};
  char head[96];
  std::snprintf(head, sizeof head, "%02d:%02d:%02d.%03d %s %s: ", utc.tm_hour, utc.tm_min,
                utc.tm_sec, static_cast<int>(ms), kLevels[static_cast<int>(level)], tool);
  return head;
}

}  // namespace tools
