// A bounded record: the newest items up to a count, within a byte budget that every record
// of the process shares, and a count of the items it let go, so that what the headless game
// keeps for its dump grows neither with the length of a run nor with the size of a payload.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace sandbox {

// The bytes that all records keep together, and their cap. Thread-safe.
class KeptBytes {
 public:
  static constexpr uint64_t kDefaultCap = 64ull << 20;

  static KeptBytes& Process() {
    static KeptBytes budget;
    return budget;
  }
  void SetCap(uint64_t cap) { cap_.store(cap); }
  uint64_t Used() const { return used_.load(); }
  // Takes `bytes` if they fit under the cap.
  bool Take(uint64_t bytes) {
    uint64_t used = used_.load();
    do {
      if (bytes > cap_.load() || used > cap_.load() - bytes) return false;
    } while (!used_.compare_exchange_weak(used, used + bytes));
    return true;
  }
  void Give(uint64_t bytes) { used_.fetch_sub(bytes); }

 private:
  std::atomic<uint64_t> cap_{kDefaultCap};
  std::atomic<uint64_t> used_{0};
};

// What an item costs beyond its payload: the container's slot and the allocator's header.
inline constexpr uint64_t kItemOverhead = 64;

// The items live in a ring that grows one slot at a time up to the count cap, so that a
// record of one item costs one slot (every entity keeps one: a deque would allocate half
// a kilobyte for it). Not thread-safe; the owner locks.
template <typename T>
class History {
 public:
  explicit History(size_t cap) : cap_(cap) {}
  History(const History&) = delete;
  History& operator=(const History&) = delete;
  ~History() { Clear(); }

  // Keeps `item`, which costs `bytes`, letting go of this record's oldest items while the
  // count or the shared budget asks for it. An item that does not fit even then is let go
  // itself: the budget is held by other records.
  void Add(T item, uint64_t bytes) {
    bytes += kItemOverhead;
    while (count_ >= cap_) DropOldest();
    while (!KeptBytes::Process().Take(bytes)) {
      if (count_ == 0) {
        ++leftOut_;
        return;
      }
      DropOldest();
    }
    if (count_ == items_.size()) {
      // Full as allocated: grow by a slot, with the oldest first.
      std::rotate(items_.begin(), items_.begin() + static_cast<long>(head_), items_.end());
      head_ = 0;
      items_.emplace_back(std::move(item), bytes);
    } else {
      items_[(head_ + count_) % items_.size()] = {std::move(item), bytes};
    }
    ++count_;
  }
  void Clear() {
    while (count_ != 0) DropOldest();
    leftOut_ = 0;
  }
  // Calls `visit` with each kept item, oldest first.
  template <typename Visit>
  void ForEach(Visit&& visit) const {
    for (size_t i = 0; i < count_; ++i) visit(items_[(head_ + i) % items_.size()].first);
  }
  size_t Size() const { return count_; }
  // How many items were let go.
  uint64_t LeftOut() const { return leftOut_; }

 private:
  void DropOldest() {
    auto& oldest = items_[head_];
    KeptBytes::Process().Give(oldest.second);
    {
      // Moved out and destroyed: the item's memory goes now, not when its slot is reused
      // (assigning an empty value would keep a string's buffer).
      const std::pair<T, uint64_t> dropped = std::move(oldest);
    }
    head_ = (head_ + 1) % items_.size();
    --count_;
    ++leftOut_;
  }

  size_t cap_;
  std::vector<std::pair<T, uint64_t>> items_;  // items_[head_] is the oldest of count_
  size_t head_ = 0;
  size_t count_ = 0;
  uint64_t leftOut_ = 0;
};

}  // namespace sandbox
