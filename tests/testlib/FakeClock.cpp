#include "FakeClock.h"

#include "support/Timer.h"

namespace testlib {

void FakeClock::Install() {
  static std::atomic<int64_t> installs{0};
  epochNs_ = 1'000'000'000'000'000 + 1'000'000'000'000 * installs.fetch_add(1);
  nowNs_ = epochNs_;
  Timer::SetClockSourceForTesting([] { return static_cast<double>(nowNs_.load()); });
}

void FakeClock::Uninstall() {
  Timer::SetClockSourceForTesting(nullptr);
}

}  // namespace testlib
