// The registry of socket observers: a few slots, each with the observer and the count of
// calls into it that are under way.
//
// A caller counts itself into a slot before it loads the slot's observer; a removal clears
// the observer before it reads the count. Both pairs are sequentially consistent, so either
// the caller sees the observer gone or the removal sees the caller's count and waits for it
// to leave: a call never starts on an observer whose removal has returned.
#include "net/SocketObserver.h"

#include <array>
#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace orvex::net {
namespace {

struct Slot {
  std::atomic<SocketObserver*> observer{nullptr};
  std::atomic<uint32_t> calls{0};
};

std::array<Slot, SocketObservation::kMaxObservers> slots;
std::atomic<int> registered{0};
// Serialises creations and removals; events never take it.
std::mutex registration;

}  // namespace

SocketObservation::SocketObservation(SocketObserver& observer) {
  std::lock_guard<std::mutex> lock(registration);
  for (slot_ = 0; slot_ < kMaxObservers; ++slot_) {
    if (slots[size_t(slot_)].observer.load() == nullptr) {
      slots[size_t(slot_)].observer.store(&observer);
      registered.fetch_add(1);
      return;
    }
  }
  throw std::length_error("more than " + std::to_string(kMaxObservers) + " socket observers");
}

SocketObservation::~SocketObservation() {
  std::lock_guard<std::mutex> lock(registration);
  Slot& slot = slots[size_t(slot_)];
  slot.observer.store(nullptr);
  // A call that counted itself in before the store may still be running. Calls are short
  // (an observer must not block), so the wait yields rather than sleeps.
  while (slot.calls.load() != 0) std::this_thread::yield();
  registered.fetch_sub(1);
}

namespace detail {

bool Observed() {
  return registered.load(std::memory_order_relaxed) != 0;
}

void Notify(const SocketEvent& event) {
  for (Slot& slot : slots) {
    // An empty slot costs one load; an observer added meanwhile may miss this event.
    if (slot.observer.load(std::memory_order_relaxed) == nullptr) continue;
    slot.calls.fetch_add(1);
    if (SocketObserver* observer = slot.observer.load()) observer->OnSocketEvent(event);
    slot.calls.fetch_sub(1);
  }
}

}  // namespace detail
}  // namespace orvex::net
