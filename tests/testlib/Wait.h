// The one wait loop of the suites: polls a condition until it holds or a time-out passes.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace testlib {

// Polls `condition` every millisecond until it holds; false when `timeoutMs` passed first.
// Time-outs are generous on purpose: they bound a failing case, never time a passing one.
inline bool WaitUntil(const std::function<bool()>& condition, int timeoutMs = 10000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace testlib
