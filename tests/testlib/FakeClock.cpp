#include "FakeClock.h"

#include <cmath>

#include "support/Timer.h"

namespace testlib {

void FakeClock::Install() {
  static std::atomic<int64_t> installs{0};
  epochNs_ = 1'000'000'000'000'000 + 1'000'000'000'000 * installs.fetch_add(1);
  nowNs_ = epochNs_;
  Timer::SetClockSourceForTesting(&Now);
}

void FakeClock::Uninstall() {
  Timer::SetClockSourceForTesting(nullptr);
}

void FakeClock::At(double ms) {
  nowNs_ = epochNs_ + std::llround(ms * 1e6);
}

void FakeClock::Advance(double ms) {
  nowNs_ = nowNs_ + std::llround(ms * 1e6);
}

double FakeClock::Now() {
  return static_cast<double>(nowNs_.load());
}

}  // namespace testlib
