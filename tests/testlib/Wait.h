// The one wait loop of the suites: polls a condition until it holds or a time-out passes.
#pragma once

#include <functional>

namespace testlib {

// Polls `condition` every millisecond until it holds; false when `timeoutMs` passed first.
// Time-outs are generous on purpose: they bound a failing case, never time a passing one.
bool WaitUntil(const std::function<bool()>& condition, int timeoutMs = 10000);

}  // namespace testlib
