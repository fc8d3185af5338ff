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
    closed_ = true;
    changed_.notify_all();
  }
}

void ThreadOrder::WaitSlice(std::unique_lock<std::mutex>& lock) {
  const uint64_t before = events_;
  changed_.wait_for(lock, kSlice);
  if (mode_ != Mode::kEnforcing || closed_ || events_ != before) return;
  if (Clock::now() - lastEvent_ < stall_) return;
  // At most one event was begun by the order; it now holds the others back as a
  // recording's would.
  mode_ = Mode::kRecording;
  busy_ = false;
  for (bool granted : granted_) busy_ = busy_ || granted;
  changed_.notify_all();
  if (lost_) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(stall_).count();
    lost_("the replay lost the recorded thread order after event " + std::to_string(events_) +
          ": it expects " + Describe(next_) + " next, and none came for " +
          std::to_string(seconds) + " s; the rest runs unordered");
  }
}

bool ThreadOrder::Begin(std::unique_lock<std::mutex>& lock, Event event) {
  for (;;) {
    if (closed_) return false;
    if (mode_ == Mode::kRecording) {
      if (!busy_) {
        busy_ = true;
        granted_[Index(event)] = true;
        if (heard_) heard_(event);
        return true;
      }
      changed_.wait(lock);
    } else if (next_ == event) {
      granted_[Index(event)] = true;
      return true;
    } else {
      WaitSlice(lock);
    }
  }
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

bool ThreadOrder::MessageBegins() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (Begin(lock, Event::kMessage)) {
    messageOpen_ = true;
    return true;
  }
  // Closed: the reader would poll again at once; it waits for the game's end instead.
  while (Game::isActive.load()) changed_.wait_for(lock, kSlice);
  return false;
}

void ThreadOrder::MessageEnds() {
  if (!messageOpen_) return;
  messageOpen_ = false;
  End(Event::kMessage);
}

void ThreadOrder::ReceiverFinished() {
  MessageEnds();
}

bool ThreadOrder::DatagramBegins() {
  std::unique_lock<std::mutex> lock(mutex_);
  return Begin(lock, Event::kDatagram);
}

void ThreadOrder::DatagramEnds() {
  End(Event::kDatagram);
}

// Enforcing, the game thread does not wait here: RunFrame does, between runs of the queue.
bool ThreadOrder::WorkBegins() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (mode_ == Mode::kEnforcing) {
    if (closed_ || next_ != Event::kWork) return false;
    granted_[Index(Event::kWork)] = true;
    return true;
  }
  return Begin(lock, Event::kWork);
}

void ThreadOrder::WorkEnds() {
  End(Event::kWork);
}

ThreadOrder::Frame ThreadOrder::SerialFrame(Clock::duration budget,
                                            const std::function<void(Clock::duration)>& waited,
                                            const std::function<void()>& atEnd) {
  orvex::engine::RunSynchronized(budget, waited);
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!Begin(lock, Event::kFrame)) return Frame::kClosed;
  }
  if (atEnd) atEnd();
  End(Event::kFrame);
  return Frame::kDone;
}

ThreadOrder::Frame ThreadOrder::RunFrame(Clock::duration budget, Clock::duration wait,
                                         const std::function<void(Clock::duration)>& waited,
                                         const std::function<void()>& atEnd) {
  const Clock::time_point until = Clock::now() + wait;
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      while (mode_ == Mode::kEnforcing && !closed_ && next_ != Event::kWork &&
             next_ != Event::kFrame) {
        if (Clock::now() >= until) return Frame::kWaiting;
        WaitSlice(lock);
      }
      if (closed_) return Frame::kClosed;
      if (mode_ == Mode::kRecording) {
        lock.unlock();
        return SerialFrame(budget, waited, atEnd);
      }
      if (next_ == Event::kFrame) {
        granted_[Index(Event::kFrame)] = true;
        lock.unlock();
        if (atEnd) atEnd();
        End(Event::kFrame);
        return Frame::kDone;
      }
    }
    // The work the order expects next was queued by an event before it, so it is waiting;
    // when it is not (a recording that does not match its replay), the stall rule gives
    // the order up.
    if (orvex::engine::RunSynchronized(Clock::duration::max(), waited) == 0) {
      std::unique_lock<std::mutex> lock(mutex_);
      if (mode_ == Mode::kEnforcing && !closed_) WaitSlice(lock);
    }
  }
}

void ThreadOrder::Close(Clock::duration wait) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, wait, [this] { return !busy_; });
  closed_ = true;
  heard_ = nullptr;
  changed_.notify_all();
}

}  // namespace order
