// A lock of one byte, for state that every entity carries: a std::mutex is 40 bytes, which at
// hundreds of thousands of entities is tens of megabytes. Waiters sleep on the flag (C++20
// atomic wait), so a holder that is descheduled costs them no spinning. Not recursive; meant
// for short sections that are rarely contended.
#pragma once

#include <atomic>

namespace sandbox {

class SmallLock {
 public:
  void lock() {
    while (flag_.test_and_set(std::memory_order_acquire))
      flag_.wait(true, std::memory_order_relaxed);
  }
  void unlock() {
    flag_.clear(std::memory_order_release);
    flag_.notify_one();
  }

 private:
  std::atomic_flag flag_;
};

}  // namespace sandbox
