// A bounded record: the newest items up to a count, within a byte budget that every record
// of the process shares, and a count of the items it let go, so that what the headless game
// keeps for its dump grows neither with the length of a run nor with the size of a payload.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>

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

// Not thread-safe; the owner locks.
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
    while (items_.size() >= cap_) DropOldest();
    while (!KeptBytes::Process().Take(bytes)) {
      if (items_.empty()) {
        ++leftOut_;
        return;
      }
      DropOldest();
    }
    items_.emplace_back(std::move(item), bytes);
  }
  void Clear() {
    while (!items_.empty()) DropOldest();
    leftOut_ = 0;
  }
  // Calls `visit` with each kept item, oldest first.
  template <typename Visit>
  void ForEach(Visit&& visit) const {
    for (const auto& [item, bytes] : items_) visit(item);
  }
  size_t Size() const { return items_.size(); }
  // How many items were let go.
  uint64_t LeftOut() const { return leftOut_; }

 private:
  void DropOldest() {
    KeptBytes::Process().Give(items_.front().second);
    items_.pop_front();
    ++leftOut_;
  }

  size_t cap_;
  std::deque<std::pair<T, uint64_t>> items_;
  uint64_t leftOut_ = 0;
};

}  // namespace sandbox
