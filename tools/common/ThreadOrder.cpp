#include "common/ThreadOrder.h"

#include <stdexcept>

#include "Game.h"

namespace order {
namespace {

constexpr auto kSlice = std::chrono::milliseconds(20);

size_t Index(Event event) {
  return static_cast<size_t>(event);
}

}  // namespace

const char* Describe(Event event) {
  switch (event) {
    case Event::kMessage:
      return "a reliable message";
    case Event::kDatagram:
      return "a datagram";
    case Event::kWork:
      return "queued work";
    case Event::kFrame:
      return "a frame's end";
  }
  return "?";
}

void Encoder::Put(uint64_t value) {
  while (value >= 0x80) {
    bytes_.push_back(static_cast<uint8_t>(value | 0x80));
    value >>= 7;
  }
  bytes_.push_back(static_cast<uint8_t>(value));
}

void Encoder::Add(Event event) {
  if (count_ > 0 && event != event_) {
    Put(count_ << 2 | Index(event_));
    count_ = 0;
  }
  event_ = event;
  ++count_;
}

Bytes Encoder::Take() {
  if (count_ > 0) Put(count_ << 2 | Index(event_));
  count_ = 0;
  Bytes out;
  out.swap(bytes_);
  return out;
}

bool Decoder::Next(Event& event, uint64_t& count) {
  if (at_ == bytes_.size()) return false;
  const size_t start = at_;
  uint64_t value = 0;
  for (int shift = 0;; shift += 7) {
    if (at_ == bytes_.size()) {
      throw std::runtime_error("the thread order is cut inside a run at byte " +
                               std::to_string(start));
    }
    const uint8_t byte = bytes_[at_++];
    if (shift == 63 && byte > 1) {
      throw std::runtime_error("the thread order has a run too long at byte " +
                               std::to_string(start));
    }
    value |= uint64_t{byte & 0x7Fu} << shift;
    if ((byte & 0x80) == 0) break;
  }
  event = static_cast<Event>(value & 3);
  count = value >> 2;
  if (count == 0) {
    throw std::runtime_error("the thread order has an empty run at byte " + std::to_string(start));
  }
  return true;
}

uint64_t CountEvents(const Bytes& runs) {
  Decoder decoder(runs);
  Event event;
  uint64_t count, total = 0;
  while (decoder.Next(event, count)) total += count;
  return total;
}

ThreadOrder::ThreadOrder(std::function<void(Event)> heard)
    : mode_(Mode::kRecording), heard_(std::move(heard)) {}

ThreadOrder::ThreadOrder(Bytes recorded, Clock::duration stall,
                         std::function<void(const std::string&)> lost)
    : mode_(Mode::kEnforcing),
      recorded_(std::move(recorded)),
      stall_(stall),
      lastEvent_(Clock::now()),
      lost_(std::move(lost)) {
  CountEvents(recorded_);
  NextRun();
}

ThreadOrder::~ThreadOrder() {
  Remove();
}

void ThreadOrder::Install() {
  orvex::net::SetDeliveryGate(this);
  orvex::engine::SetQueueGate(this);
  installed_ = true;
}

void ThreadOrder::Remove() {
  if (!installed_) return;
  orvex::net::SetDeliveryGate(nullptr);
  orvex::engine::SetQueueGate(nullptr);
  installed_ = false;
}

bool ThreadOrder::Enforcing() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return mode_ == Mode::kEnforcing;
}

uint64_t ThreadOrder::Events() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

void ThreadOrder::NextRun() {
  uint64_t count = 0;
  if (decoder_.Next(next_, count)) {
    left_ = count;
  } else {
    Unordered();
  }
}

void ThreadOrder::Unordered() {
  if (mode_ == Mode::kEnforcing) {
    // At most one event was granted by the order; it now holds the others back as a
    // recording's would.
    busy_ = false;
    for (bool granted : granted_) busy_ = busy_ || granted;
  }
  mode_ = Mode::kRecording;
  heard_ = nullptr;
  changed_.notify_all();
}

void ThreadOrder::WaitSlice(std::unique_lock<std::mutex>& lock) {
  const uint64_t before = events_;
  changed_.wait_for(lock, kSlice);
  if (mode_ != Mode::kEnforcing || events_ != before) return;
  if (Clock::now() - lastEvent_ < stall_) return;
  Unordered();
  if (lost_) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(stall_).count();
    lost_("the replay lost the recorded thread order after event " + std::to_string(events_) +
          ": it expects " + Describe(next_) + " next, and none came for " +
          std::to_string(seconds) + " s; the rest runs unordered");
  }
}

void ThreadOrder::Begin(std::unique_lock<std::mutex>& lock, Event event) {
  if (mode_ == Mode::kRecording) {
    changed_.wait(lock, [this] { return !busy_ || mode_ != Mode::kRecording; });
    if (mode_ != Mode::kRecording) return;
    busy_ = true;
    granted_[Index(event)] = true;
    if (heard_) heard_(event);
    return;
  }
  while (mode_ == Mode::kEnforcing && next_ != event) WaitSlice(lock);
  if (mode_ == Mode::kEnforcing) granted_[Index(event)] = true;
}

void ThreadOrder::End(Event event) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!granted_[Index(event)]) return;
  granted_[Index(event)] = false;
  ++events_;
  lastEvent_ = Clock::now();
  if (mode_ == Mode::kRecording) {
    busy_ = false;
  } else if (--left_ == 0) {
    NextRun();
  }
  changed_.notify_all();
}

void ThreadOrder::MessageBegins() {
  std::unique_lock<std::mutex> lock(mutex_);
  Begin(lock, Event::kMessage);
  messageOpen_ = true;
}

void ThreadOrder::MessageEnds() {
  if (!messageOpen_) return;
  messageOpen_ = false;
  End(Event::kMessage);
}

void ThreadOrder::ReceiverFinished() {
  MessageEnds();
}

void ThreadOrder::DatagramBegins() {
  std::unique_lock<std::mutex> lock(mutex_);
  Begin(lock, Event::kDatagram);
}

void ThreadOrder::DatagramEnds() {
  End(Event::kDatagram);
}

// Enforcing, the game thread does not wait here: RunFrame does, between runs of the queue.
bool ThreadOrder::WorkBegins() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (mode_ == Mode::kEnforcing) {
    if (next_ != Event::kWork) return false;
    granted_[Index(Event::kWork)] = true;
    return true;
  }
  Begin(lock, Event::kWork);
  return true;
}

void ThreadOrder::WorkEnds() {
  End(Event::kWork);
}

bool ThreadOrder::SerialFrame(Clock::duration budget,
                              const std::function<void(Clock::duration)>& waited,
                              const std::function<void()>& atEnd) {
  orvex::engine::RunSynchronized(budget, waited);
  {
    std::unique_lock<std::mutex> lock(mutex_);
    Begin(lock, Event::kFrame);
  }
  if (atEnd) atEnd();
  End(Event::kFrame);
  return true;
}

bool ThreadOrder::RunFrame(Clock::duration budget, Clock::duration wait,
                           const std::function<void(Clock::duration)>& waited,
                           const std::function<void()>& atEnd) {
  const Clock::time_point until = Clock::now() + wait;
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      while (mode_ == Mode::kEnforcing && next_ != Event::kWork && next_ != Event::kFrame) {
        if (Clock::now() >= until) return false;
        WaitSlice(lock);
      }
      if (mode_ != Mode::kEnforcing) {
        lock.unlock();
        return SerialFrame(budget, waited, atEnd);
      }
      if (next_ == Event::kFrame) {
        granted_[Index(Event::kFrame)] = true;
        lock.unlock();
        if (atEnd) atEnd();
        End(Event::kFrame);
        return true;
      }
    }
    // The work the order expects next was queued by an event before it, so it is waiting;
    // when it is not (a recording that does not match its replay), the stall rule ends the
    // order.
    if (orvex::engine::RunSynchronized(Clock::duration::max(), waited) == 0) {
      std::unique_lock<std::mutex> lock(mutex_);
      if (mode_ == Mode::kEnforcing) WaitSlice(lock);
    }
  }
}

void ThreadOrder::Stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  Unordered();
}

}  // namespace order
