// A reader-writer lock without writer preference and without upgrade.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace orvex {

// States (guarded by mutex_):
//
//   | shared_ | exclusive_ | meaning                        | who may enter   |
//   |---------|------------|--------------------------------|-----------------|
//   | 0       | false      | free                           | anyone          |
//   | n > 0   | false      | n shared holders               | shared only     |
//   | 0       | true       | one exclusive holder           | nobody          |
//
// New shared holders are admitted whenever no exclusive holder is in, so a steady stream
// of overlapping readers keeps a writer waiting: intended, the scheme stays this simple.
// Not reentrant in either mode. A reader that needs to write releases, then locks.
// Acquires throw std::system_error when the inner mutex cannot be locked; releases never
// throw (such a failure ends the process).
class SharedMutex {
 public:
  SharedMutex() = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  // Exclusive: usable with std::unique_lock / std::lock_guard.
  void lock();
  void unlock() noexcept;
  // Shared: usable with std::shared_lock.
  void lock_shared();
  void unlock_shared() noexcept;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  uint32_t shared_ = 0;
  bool exclusive_ = false;
};

}  // namespace orvex
