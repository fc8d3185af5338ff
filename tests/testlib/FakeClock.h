// The process-wide clock of every Timer and of the client's receive stamp, frozen at a
// point the test chooses.
#pragma once

#include <atomic>
#include <cmath>
#include <cstdint>

namespace testlib {

// Each Install() starts 1000 s after the previous one, so the keep-alive timers (statics of
// Send) that an earlier case of the process left running have long expired. The values stay
// far below 2^53 ns, so every time and difference the client computes is exact.
// Uninstall() gives the Timers the system clock back.
class FakeClock {
 public:
  static void Install();
  static void Uninstall();
  // Sets the time to `ms` after this case's epoch, or moves it on by `ms`.
  static void At(double ms) { nowNs_ = epochNs_ + std::llround(ms * 1e6); }
  static void Advance(double ms) { nowNs_ = nowNs_ + std::llround(ms * 1e6); }

 private:
  static inline int64_t epochNs_ = 0;
  static inline std::atomic<int64_t> nowNs_{0};
};

}  // namespace testlib
