// The module's assertions: broken invariants end the process with one fixed line.
#pragma once

namespace client::detail {

// Writes "ASSERTION FAILED: (<condition>) in src/client/Client.cpp:<line>" and std::endl to
// std::cerr, then aborts.
[[noreturn]] void AssertionFailed(const char* condition, int line);

}  // namespace client::detail

// Asserts `condition`, reporting the line of the check.
#define CLIENT_ASSERT(condition) \
  ((condition) ? static_cast<void>(0) : ::client::detail::AssertionFailed(#condition, __LINE__))

// Asserts `condition`, reporting a fixed line number. The inbound assertions' lines are part
// of the module's published diagnostics (operators and tools match them), so they are
// constants that do not move when the file is edited.
#define CLIENT_ASSERT_AT(condition, line) \
  ((condition) ? static_cast<void>(0) : ::client::detail::AssertionFailed(#condition, line))
