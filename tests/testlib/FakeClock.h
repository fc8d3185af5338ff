// The process-wide clock of every Timer and of the client's receive stamp, frozen at a
// point the test chooses.
#pragma once

#include <atomic>
#include <cmath>
#include <cstdint>

#include "Timer.h"
#include "support/Clock.h"

namespace testlib {

// Each Install() starts 1000 s after the previous one, so keep-alive timers an earlier case
// left running have long expired; values stay far below 2^53 ns, so all arithmetic is exact.
class FakeClock {
 public:
  static void Install() {
    static std::atomic<int64_t> installs{0};
    nowNs_ = epochNs_ = 1'000'000'000'000'000 + 1'000'000'000'000 * installs.fetch_add(1);
    support::SetClockSourceForTesting([] { return static_cast<double>(nowNs_.load()); });
  }
  static void Uninstall() { support::SetClockSourceForTesting(nullptr); }
  // Sets the time to `ms` after this case's epoch, or moves it on by `ms`.
  static void At(double ms) { nowNs_ = epochNs_ + std::llround(ms * 1e6); }
  static void Advance(double ms) { nowNs_ = nowNs_ + std::llround(ms * 1e6); }

 private:
  static inline int64_t epochNs_ = 0;
  static inline std::atomic<int64_t> nowNs_{0};
};

}  // namespace testlib
