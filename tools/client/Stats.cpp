#include "client/Stats.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include <nlohmann/json.hpp>

#include "client/Client.h"
#include "game/Networking.h"
#include "net/TcpConnection.h"

namespace gameclient {
namespace {

// The state datagram header up to the sequence: magic, code, server time, sequence.
constexpr size_t kCodeAt = sizeof(networking::MAGIC);
constexpr size_t kServerTimeAt = kCodeAt + 1;
constexpr size_t kSequenceAt = kServerTimeAt + 8;
constexpr size_t kHeaderEnd = kSequenceAt + 8;

template <typename T>
T ReadAt(const unsigned char* data, size_t at) {
  T value;
  std::memcpy(&value, data + at, sizeof value);
  return value;
}

uint64_t Load(const std::atomic<uint64_t>& counter) {
  return counter.load(std::memory_order_relaxed);
}

// `now` minus `before`, never below zero (two totals read at slightly different moments).
uint64_t Since(uint64_t now, uint64_t before) {
  return now > before ? now - before : 0;
}

double Ms(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

}  // namespace

SequenceTracker::Arrival SequenceTracker::Add(uint64_t sequence) {
  if (!started_) {
    started_ = true;
    newest_ = sequence;
    return Arrival::kFirst;
  }
  if (sequence > newest_) {
    const uint64_t shift = sequence - newest_;
    if (shift >= kWindow) {
      // Every unseen tick of the old window, and every tick between it and the new one.
      missed_ += kWindow - static_cast<uint64_t>(std::popcount(seen_)) + (shift - kWindow);
      seen_ = 1;
    } else {
      const uint64_t leaving = seen_ >> (kWindow - shift);
      missed_ += shift - static_cast<uint64_t>(std::popcount(leaving));
      seen_ = (seen_ << shift) | 1;
    }
    newest_ = sequence;
    return Arrival::kNewest;
  }
  const uint64_t age = newest_ - sequence;
  if (age >= kWindow) return Arrival::kTooOld;
  const uint64_t bit = uint64_t{1} << age;
  if (seen_ & bit) {
    ++repeats_;
    return Arrival::kRepeat;
  }
  seen_ |= bit;
  ++late_;
  return Arrival::kLate;
}

uint64_t SequenceTracker::Missed(bool pending) const {
  if (!pending) return missed_;
  return missed_ + kWindow - static_cast<uint64_t>(std::popcount(seen_));
}

double Jitter::Add(double arrival, double serverTime) {
  const double transit = arrival - serverTime;
  if (!started_) {
    started_ = true;
    bestTransit_ = transit;
  } else {
    jitter_ += (std::fabs(transit - lastTransit_) - jitter_) / 16.0;
    bestTransit_ = std::min(bestTransit_, transit);
  }
  lastTransit_ = transit;
  return transit - bestTransit_;
}

Spread Spread::Of(std::vector<double> samples) {
  Spread s;
  if (samples.empty()) return s;
  // Selection, not a sort: the samples may be one per entity of a large replica.
  const auto rank = [n = static_cast<double>(samples.size())](double q) {
    return static_cast<long>(std::ceil(q * n)) - 1;
  };
  const auto median = samples.begin() + rank(0.5), p99 = samples.begin() + rank(0.99);
  std::nth_element(samples.begin(), median, samples.end());
  std::nth_element(median, p99, samples.end());
  s.median = *median;
  s.p99 = *p99;
  s.max = *std::max_element(p99, samples.end());
  return s;
}

nlohmann::ordered_json ToJson(const Second& s) {
  using json = nlohmann::ordered_json;
  auto spread = [](const Spread& x) {
    return json{{"median", x.median}, {"p99", x.p99}, {"max", x.max}};
  };
  auto ticks = [](const Second::Ticks& t) {
    return json{{"missed", t.missed}, {"late", t.late}, {"repeats", t.repeats}};
  };
  auto fates = [](const NetworkStats::Simulated& f) {
    return json{{"dropped", f.dropped},
                {"duplicated", f.duplicated},
                {"delayed", f.delayed},
                {"reordered", f.reordered}};
  };
  json line = {
      {"t", s.at},
      {"seconds", s.seconds},
      {"in", {{"datagrams", s.in.datagrams}, {"bytes", s.in.bytes}}},
      {"out", {{"datagrams", s.out.datagrams}, {"bytes", s.out.bytes}}},
      {"state", {{"transforms", s.transforms}, {"physics", s.physics}}},
      {"tcp", {{"bytesIn", s.tcpBytesIn}, {"bytesOut", s.tcpBytesOut}, {"reliable", s.reliable}}},
      {"ticks", {{"transforms", ticks(s.transformTicks)}, {"physics", ticks(s.physicsTicks)}}},
      {"stale", s.stale},
      {"droppedOther", s.droppedOther},
      {"jitterMs", s.jitterMs},
      {"lateMs", spread(s.lateMs)},
      {"applyWaitMs", spread(s.applyWaitMs)},
      {"frameMs", spread(s.frameMs)},
      {"frames", s.frames},
      {"entities", s.entities},
      {"silentMs", s.silentMs},
      {"freshness",
       {{"ageMs", spread(s.freshness.ageMs)},
        {"counted", s.freshness.counted},
        {"stalest", json::array()},
        {"scanMs", s.freshness.scanMs}}},
  };
  for (const FreshnessFigures::Stale& e : s.freshness.stalest) {
    line["freshness"]["stalest"].push_back(
        {{"id", e.id}, {"ageMs", e.ageMs}, {"serverTime", e.serverTime}});
  }
  if (s.simulated) {
    line["simulator"] = {{"in", fates(s.simulatorIn)}, {"out", fates(s.simulatorOut)}};
  }
  return line;
}

void NetworkStats::OnSocketEvent(const orvex::net::SocketEvent& event) noexcept {
  using Kind = orvex::net::SocketEvent::Kind;
  if (!event.socket.IsClientForm()) return;
  switch (event.kind) {
    case Kind::kDatagramDelivered:
      Delivered(event.data, event.size, event.at);
      break;
    case Kind::kDatagramTransmitted:
      Sent(event.size);
      break;
    case Kind::kDatagramJudged:
      Simulation(event.incoming, event.simulated);
      break;
    case Kind::kTcpRead:
    case Kind::kTcpFlushed:
    case Kind::kDatagramFlushed:
      break;
  }
}

void NetworkStats::Delivered(const unsigned char* data, unsigned long size, Clock::time_point at) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++current_.in.datagrams;
  current_.in.bytes += size;
  udpBytesIn_ += size;
  lastArrival_ = at;
  if (size < kHeaderEnd || std::memcmp(data, networking::MAGIC, kCodeAt) != 0) return;
  const uint8_t code = data[kCodeAt];
  SequenceTracker* tracker = nullptr;
  if (code == networking::MSG_TRANSFORMS) {
    ++current_.transforms;
    tracker = &transforms_;
  } else if (code == networking::MSG_PHYSICS) {
    ++current_.physics;
    tracker = &physics_;
  } else {
    return;
  }
  tracker->Add(ReadAt<uint64_t>(data, kSequenceAt));
  const double serverTime = ReadAt<double>(data, kServerTimeAt);
  if (!std::isfinite(serverTime)) return;
  const double arrival = std::chrono::duration<double>(at - start_).count();
  late_.push_back(1000.0 * jitter_.Add(arrival, serverTime));
}

void NetworkStats::Sent(unsigned long size) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++current_.out.datagrams;
  current_.out.bytes += size;
  udpBytesOut_ += size;
}

void NetworkStats::Simulation(bool incoming, const Simulated& totals) {
  std::lock_guard<std::mutex> lock(mutex_);
  current_.simulated = true;
  (incoming ? simulatorIn_ : simulatorOut_) = totals;
}

void NetworkStats::Waited(Clock::duration wait) {
  std::lock_guard<std::mutex> lock(mutex_);
  waits_.push_back(Ms(wait));
}

void NetworkStats::Frame(Clock::duration work) {
  std::lock_guard<std::mutex> lock(mutex_);
  frames_.push_back(Ms(work));
}

Second::Ticks NetworkStats::Delta(const SequenceTracker& tracker, Second::Ticks& last) const {
  const Second::Ticks now{tracker.Missed(), tracker.Late(), tracker.Repeats()};
  const Second::Ticks delta{now.missed - last.missed, now.late - last.late,
                            now.repeats - last.repeats};
  last = now;
  return delta;
}

Second NetworkStats::Take(const client::Client* client, Clock::time_point now) {
  std::lock_guard<std::mutex> lock(mutex_);
  Second s = current_;
  current_ = Second{};
  current_.simulated = s.simulated;
  s.at = std::chrono::duration<double>(now - start_).count();
  s.seconds = std::chrono::duration<double>(now - intervalStart_).count();
  intervalStart_ = now;
  s.transformTicks = Delta(transforms_, lastTransforms_);
  s.physicsTicks = Delta(physics_, lastPhysics_);
  s.jitterMs = 1000.0 * jitter_.Seconds();
  s.lateMs = Spread::Of(std::move(late_));
  s.applyWaitMs = Spread::Of(std::move(waits_));
  s.frameMs = Spread::Of(frames_);
  s.frames = frames_.size();
  late_.clear(), waits_.clear(), frames_.clear();
  s.silentMs = Ms(now - std::max(start_, lastArrival_));
  auto delta = [](const Simulated& now, Simulated& last) {
    const Simulated d{.admitted = now.admitted - last.admitted,
                      .dropped = now.dropped - last.dropped,
                      .duplicated = now.duplicated - last.duplicated,
                      .delayed = now.delayed - last.delayed,
                      .reordered = now.reordered - last.reordered};
    last = now;
    return d;
  };
  s.simulatorIn = delta(simulatorIn_, lastSimulatorIn_);
  s.simulatorOut = delta(simulatorOut_, lastSimulatorOut_);
  if (client != nullptr) {
    const client::Counters& c = client->GetCounters();
    const uint64_t stale = Load(c.droppedStale);
    const uint64_t dropped = Load(c.droppedShort) + Load(c.droppedMagic) + Load(c.droppedSender) +
                             Load(c.droppedForeign);
    uint64_t reliable = 0;
    for (const std::atomic<uint64_t>& n : c.reliableByCode) reliable += Load(n);
    const uint64_t tcpIn = orvex::net::TcpConnection::ClientBytes().in;
    const uint64_t tcpOut = orvex::net::TcpConnection::ClientBytes().out;
    s.stale = Since(stale, lastStale_);
    s.droppedOther = Since(dropped, lastDropped_);
    s.reliable = Since(reliable, lastReliable_);
    s.tcpBytesIn = Since(tcpIn, lastTcpIn_);
    s.tcpBytesOut = Since(tcpOut, lastTcpOut_);
    lastStale_ = stale, lastDropped_ = dropped, lastReliable_ = reliable;
    lastTcpIn_ = tcpIn, lastTcpOut_ = tcpOut;
  }
  return s;
}

Second::Ticks NetworkStats::TransformTotals() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return {transforms_.Missed(true), transforms_.Late(), transforms_.Repeats()};
}

Second::Ticks NetworkStats::PhysicsTotals() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return {physics_.Missed(true), physics_.Late(), physics_.Repeats()};
}

double NetworkStats::SilentMs(Clock::time_point now) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return Ms(now - std::max(start_, lastArrival_));
}

double NetworkStats::JitterMs() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return 1000.0 * jitter_.Seconds();
}

}  // namespace gameclient
