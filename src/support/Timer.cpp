#include "Timer.h"

#include "support/Clock.h"

#include <atomic>
#include <chrono>
#include <type_traits>

namespace {

double SystemNowNs() {
  return static_cast<double>(std::chrono::system_clock::now().time_since_epoch().count());
}

std::atomic<support::ClockSource> clockSource{&SystemNowNs};

}  // namespace

static_assert(sizeof(std::atomic<bool>) == sizeof(bool) && std::atomic<bool>::is_always_lock_free,
              "running keeps the size of a bool and never takes a hidden lock");
static_assert(std::is_same_v<std::chrono::system_clock::duration, std::chrono::nanoseconds>,
              "the timer counts system clock nanoseconds");

double support::NowNs() {
  return clockSource.load(std::memory_order_acquire)();
}

void support::SetClockSourceForTesting(ClockSource source) {
  clockSource.store(source ? source : &SystemNowNs, std::memory_order_release);
}

void Timer::Start() {
  std::lock_guard<std::mutex> guard(mutex);
  running = true;
  startMs = support::NowNs() / 1000000.0;
}

double Timer::Elapsed() {
  std::lock_guard<std::mutex> guard(mutex);
  return (support::NowNs() - startMs * 1000000.0) / 1000000.0;
}
