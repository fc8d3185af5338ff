// The process-wide clock of every Timer and of the client's receive stamp, frozen at a
// point the test chooses.
#pragma once

#include <atomic>
#include <cstdint>

namespace testlib {

// Each Install() starts 1000 s after the previous one, so the keep-alive timers
// (function-local statics of Send) that an earlier case of the same process left running
// have long expired: a case starts as if its timers were fresh, as long as every earlier
// case in the process ran on this clock too. The values stay far below 2^53 ns, so every
// whole-nanosecond time and every difference the client computes is exact.
// Uninstall() gives the Timers the steady clock back.
class FakeClock {
 public:
  static void Install();
  static void Uninstall();
  // Sets the time to `ms` after the epoch of this case.
  static void At(double ms);
  static void Advance(double ms);

 private:
  static double Now();

  static inline int64_t epochNs_ = 0;
  static inline std::atomic<int64_t> nowNs_{0};
};

}  // namespace testlib
