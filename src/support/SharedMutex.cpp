#include "orvex/SharedMutex.h"

namespace orvex {

void SharedMutex::lock() {
  std::unique_lock<std::mutex> guard(mutex_);
  changed_.wait(guard, [this] { return shared_ == 0 && !exclusive_; });
  exclusive_ = true;
}

void SharedMutex::unlock() noexcept {
  std::lock_guard<std::mutex> guard(mutex_);
  exclusive_ = false;
  changed_.notify_all();
}

void SharedMutex::lock_shared() {
  std::unique_lock<std::mutex> guard(mutex_);
  changed_.wait(guard, [this] { return !exclusive_; });
  ++shared_;
}

void SharedMutex::unlock_shared() noexcept {
  std::lock_guard<std::mutex> guard(mutex_);
  // Only writers can be waiting while shared holders are in.
  if (--shared_ == 0) changed_.notify_one();
}

}  // namespace orvex
