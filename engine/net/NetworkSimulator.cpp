#include "net/NetworkSimulator.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace orvex::net {
namespace {

using std::chrono::microseconds;

constexpr double kMaxDelayMs = 60000;
constexpr double kMaxDurationSeconds = 1e7;

[[noreturn]] void Fail(const std::string& reason) {
  throw std::invalid_argument("network simulation: " + reason);
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

// A non-negative decimal number followed by exactly `unit`.
double Number(std::string_view key, std::string_view value, std::string_view unit, double max) {
  double number = -1;
  auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  std::string_view rest(end, static_cast<size_t>(value.data() + value.size() - end));
  if (error != std::errc() || rest != unit || !(number >= 0 && number <= max)) {
    Fail(std::string(key) + " needs a number from 0 to " + std::to_string(static_cast<int>(max)) +
         std::string(unit) + ", got '" + std::string(value) + "'");
  }
  return number;
}

void Apply(PathConditions& path, std::string_view key, std::string_view value) {
  if (key == "loss") {
    path.loss = Number(key, value, "%", 100) / 100;
  } else if (key == "reorder") {
    path.reorder = Number(key, value, "%", 100) / 100;
  } else if (key == "dup") {
    path.duplicate = Number(key, value, "%", 100) / 100;
  } else if (key == "delay") {
    path.delay = microseconds(static_cast<long>(Number(key, value, "ms", kMaxDelayMs) * 1000));
  } else if (key == "jitter") {
    path.jitter = microseconds(static_cast<long>(Number(key, value, "ms", kMaxDelayMs) * 1000));
  } else {
    Fail("unknown key '" + std::string(key) + "'");
  }
}

// splitmix64: a small, fast generator whose output is the same on every platform.
uint64_t SplitMix(uint64_t& state) {
  uint64_t z = (state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

}  // namespace

SimulationSettings SimulationSettings::Parse(const std::string& text) {
  SimulationSettings settings;
  if (Trim(text).empty()) return settings;
  for (size_t start = 0; start != std::string::npos;) {
    size_t comma = text.find(',', start);
    std::string_view item = Trim(std::string_view(text).substr(start, comma - start));
    start = comma == std::string::npos ? comma : comma + 1;
    if (item.empty()) Fail("empty item in '" + text + "'");

    size_t equals = item.find('=');
    if (equals == std::string_view::npos) Fail("'" + std::string(item) + "' is not key=value");
    std::string_view key = Trim(item.substr(0, equals));
    std::string_view value = Trim(item.substr(equals + 1));

    if (key == "seed") {
      auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), settings.seed);
      if (error != std::errc() || end != value.data() + value.size()) {
        Fail("seed needs an unsigned integer, got '" + std::string(value) + "'");
      }
    } else if (key == "for") {
      settings.duration = std::chrono::milliseconds(
          static_cast<long>(Number(key, value, "s", kMaxDurationSeconds) * 1000));
    } else if (key.starts_with("in.")) {
      Apply(settings.in, key.substr(3), value);
    } else if (key.starts_with("out.")) {
      Apply(settings.out, key.substr(4), value);
    } else {
      Apply(settings.in, key, value);
      Apply(settings.out, key, value);
    }
  }
  return settings;
}

// ---------------------------------------------------------------------------------------
// SimulatedPath

SimulatedPath::SimulatedPath(const PathConditions& conditions, uint64_t seed)
    : conditions_(conditions), state_(seed) {}

uint64_t SimulatedPath::Next() {
  return SplitMix(state_);
}

bool SimulatedPath::Chance(double probability) {
  // No draw for a condition that is off: the fates depend only on the conditions in use.
  if (probability <= 0) return false;
  return static_cast<double>(Next() >> 11) * 0x1.0p-53 < probability;
}

int SimulatedPath::Admit(Clock::time_point now, const sockaddr* peer, socklen_t peerLength,
                         const unsigned char* data, unsigned long size) {
  ++stats_.admitted;
  if (now >= end_) return 1;
  if (Chance(conditions_.loss)) {
    ++stats_.dropped;
    return 0;
  }
  int copies = 1;
  if (Chance(conditions_.duplicate)) {
    ++stats_.duplicated;
    copies = 2;
  }
  if (!conditions_.Holds()) return copies;

  int passing = 0;
  for (int i = 0; i < copies; ++i) {
    microseconds hold = conditions_.delay;
    if (conditions_.jitter.count() > 0) {
      long span = 2 * conditions_.jitter.count() + 1;
      hold += microseconds(static_cast<long>(Next() % static_cast<uint64_t>(span))) -
              conditions_.jitter;
    }
    if (Chance(conditions_.reorder)) {
      ++stats_.reordered;
      hold += kReorderHold;
    }
    if (hold.count() <= 0) {
      ++passing;
      continue;
    }
    ++stats_.delayed;
    HeldDatagram datagram;
    datagram.due = now + hold;
    datagram.order = order_++;
    std::memcpy(&datagram.peer, peer, std::min<size_t>(peerLength, sizeof datagram.peer));
    datagram.peerLength = peerLength;
    datagram.bytes.assign(data, data + size);
    held_.push(std::move(datagram));
  }
  return passing;
}

bool SimulatedPath::PopDue(Clock::time_point now, HeldDatagram& out) {
  if (held_.empty() || held_.top().due > now) return false;
  // priority_queue offers only a const top; the element is removed right after the move.
  out = std::move(const_cast<HeldDatagram&>(held_.top()));
  held_.pop();
  return true;
}

// ---------------------------------------------------------------------------------------
// NetworkSimulator

NetworkSimulator::NetworkSimulator(const SimulationSettings& settings, SendFunction send)
    : settings_(settings),
      send_(std::move(send)),
      in_(settings.in, settings.seed * 2),
      out_(settings.out, settings.seed * 2 + 1) {
  if (settings.duration.count() > 0) {
    const Clock::time_point end = Clock::now() + settings.duration;
    in_.EndAt(end);
    out_.EndAt(end);
  }
}

NetworkSimulator::~NetworkSimulator() {
  StopSender();
}

void NetworkSimulator::Send(const sockaddr* to, socklen_t toLength, const unsigned char* data,
                            unsigned long size) {
  int passing;
  bool held;
  {
    std::lock_guard lock(mutex_);
    passing = out_.Admit(Clock::now(), to, toLength, data, size);
    held = out_.HasHeld();
    if (held && !sender_.joinable()) sender_ = std::thread(&NetworkSimulator::SenderLoop, this);
  }
  if (held) wake_.notify_one();
  for (int i = 0; i < passing; ++i) send_(to, toLength, data, size);
}

void NetworkSimulator::SenderLoop() {
  std::unique_lock lock(mutex_);
  while (!stop_) {
    HeldDatagram datagram;
    if (out_.PopDue(Clock::now(), datagram)) {
      lock.unlock();
      try {
        send_(reinterpret_cast<const sockaddr*>(&datagram.peer), datagram.peerLength,
              datagram.bytes.data(), datagram.bytes.size());
      } catch (const std::exception&) {
      }
      lock.lock();
    } else if (out_.HasHeld()) {
      wake_.wait_until(lock, out_.NextDue());
    } else {
      wake_.wait(lock);
    }
  }
}

void NetworkSimulator::StopSender() {
  if (!sender_.joinable()) return;
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  sender_.join();
  std::lock_guard lock(mutex_);
  stop_ = false;
  out_.DropHeld();
}

SimulatedPath::Stats NetworkSimulator::OutStats() const {
  std::lock_guard lock(mutex_);
  return out_.GetStats();
}

}  // namespace orvex::net
