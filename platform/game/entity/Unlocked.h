// Entity fields that two threads write without a lock, by design: the receiving thread
// carries out reliable messages while the game thread applies datagrams, and neither takes
// a lock on the entity. Unlocked<T> keeps that design and keeps it defined behaviour: every
// load and store goes through relaxed atomics, one per machine word. A reader may see a
// value whose words come from two different writes (a torn vector), which the game accepts
// exactly as the design does; it never sees a data race, so ThreadSanitizer stays able to
// report every race that is not designed.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace game::entity {

template <typename T>
class Unlocked {
  static_assert(std::is_trivially_copyable_v<T>);
  static constexpr bool kSmall = sizeof(T) <= 8 && std::atomic<T>::is_always_lock_free;
  static constexpr size_t kWords = (sizeof(T) + 7) / 8;

 public:
  Unlocked() : Unlocked(T{}) {}
  Unlocked(const T& value) { Store(value); }  // NOLINT: implicit on purpose
  Unlocked(const Unlocked& other) : Unlocked(other.Load()) {}
  Unlocked& operator=(const Unlocked& other) {
    Store(other.Load());
    return *this;
  }
  Unlocked& operator=(const T& value) {
    Store(value);
    return *this;
  }
  operator T() const { return Load(); }  // NOLINT: implicit on purpose
  T Load() const {
    if constexpr (kSmall) {
      return small_.load(std::memory_order_relaxed);
    } else {
      uint64_t words[kWords];
      for (size_t i = 0; i < kWords; ++i) words[i] = words_[i].load(std::memory_order_relaxed);
      T value;
      std::memcpy(&value, words, sizeof(T));
      return value;
    }
  }
  void Store(const T& value) {
    if constexpr (kSmall) {
      small_.store(value, std::memory_order_relaxed);
    } else {
      uint64_t words[kWords] = {};
      std::memcpy(words, &value, sizeof(T));
      for (size_t i = 0; i < kWords; ++i) words_[i].store(words[i], std::memory_order_relaxed);
    }
  }

 private:
  struct Empty {};
  [[no_unique_address]] std::conditional_t<kSmall, std::atomic<T>, Empty> small_;
  [[no_unique_address]] std::conditional_t<kSmall, Empty, std::atomic<uint64_t>[kWords]> words_;
};

}  // namespace game::entity
