// A bounded record: the newest items up to a cap, and a count of the older ones it let go,
// so that what the headless game keeps for its dump cannot grow with the length of a run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

namespace sandbox {

template <typename T>
class History {
 public:
  explicit History(size_t cap) : cap_(cap) {}

  void Add(T item) {
    if (items_.size() == cap_) {
      items_.pop_front();
      ++leftOut_;
    }
    items_.push_back(std::move(item));
  }
  void Clear() {
    items_.clear();
    leftOut_ = 0;
  }
  // The kept items, oldest first.
  std::vector<T> Items() const { return std::vector<T>(items_.begin(), items_.end()); }
  // How many older items were let go.
  uint64_t LeftOut() const { return leftOut_; }

 private:
  size_t cap_;
  std::deque<T> items_;
  uint64_t leftOut_ = 0;
};

}  // namespace sandbox
