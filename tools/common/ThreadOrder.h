// The order in which the client module's threads changed the replica, recorded with a
// session and imposed on its replay, so that a replay reproduces the replica exactly.
//
// Three threads change the replica: the receiving thread carries out reliable messages, the
// socket's delivery thread hands datagrams over (queuing state passes), the game thread runs
// the queued work. Whether the game thread had applied a waiting transform when an update
// arrived decides a snap, so the bytes alone do not fix the result; their interleaving does.
// An event is one of: a reliable message carried out, a datagram handed over, one queued
// function run, the end of a frame. While recording, each event runs alone and is written
// down in the order they ran; while enforcing, each thread waits until the recorded order
// says its event is next.
//
// The recorded form (what the recording's custom blocks hold): runs of one kind of event,
// each a LEB128 varint of (count << 2 | kind), the count at least 1.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "game/Host.h"
#include "net/DeliveryGate.h"

namespace order {

using Bytes = std::vector<uint8_t>;

enum class Event : uint8_t { kMessage = 0, kDatagram = 1, kWork = 2, kFrame = 3 };
// "a reliable message", "a datagram", "queued work", "a frame's end".
const char* Describe(Event event);

// Appends events in the recorded form.
class Encoder {
 public:
  void Add(Event event);
  // The runs so far, the current one included, moved out; the encoder starts afresh.
  Bytes Take();
  size_t Size() const { return bytes_.size(); }

 private:
  void Put(uint64_t value);
  Bytes bytes_;
  Event event_ = Event::kMessage;
  uint64_t count_ = 0;
};

// Reads the recorded form one run at a time. Next() is false at the end; a run that is
// cut, longer than ten bytes or counts nothing throws std::runtime_error naming its byte.
class Decoder {
 public:
  explicit Decoder(const Bytes& bytes) : bytes_(bytes) {}
  bool Next(Event& event, uint64_t& count);

 private:
  const Bytes& bytes_;
  size_t at_ = 0;
};

// The events in `runs`; throws as Decoder does.
uint64_t CountEvents(const Bytes& runs);

class ThreadOrder final : public orvex::net::DeliveryGate, public orvex::engine::QueueGate {
 public:
  using Clock = std::chrono::steady_clock;

  // Recording: `heard` is told each event as it begins, alone, under the order's lock (it
  // must not call back into the order).
  explicit ThreadOrder(std::function<void(Event)> heard);
  // Enforcing `recorded` (checked: Decoder's errors throw here). Once the order is used up
  // it closes, as the recording did at its end. When a thread has waited `stall` for its
  // turn with no event happening, `lost` is told once, with one line, and from then on the
  // events run alone in whatever order they come, as when recording.
  ThreadOrder(Bytes recorded, Clock::duration stall, std::function<void(const std::string&)> lost);
  ~ThreadOrder() override;

  // Installs the order as the process's delivery gate and queue gate; Remove takes it out.
  // REQUIRES (Remove): the module's sockets are closed.
  void Install();
  void Remove();

  bool Enforcing() const;
  // Events that happened in order so far.
  uint64_t Events() const;

  enum class Frame { kDone, kWaiting, kClosed };
  // Game thread, once a frame: the frame's queued work, then `atEnd` as the frame's end
  // event (alone). Enforcing: the work recorded for this frame, waiting for the other
  // threads for at most `wait` (kWaiting when the wait ran out first: call again);
  // otherwise RunSynchronized within `budget`. kClosed, having run nothing, once the
  // order is closed (a replay's order used up: the recorded run ended here).
  Frame RunFrame(Clock::duration budget, Clock::duration wait,
                 const std::function<void(Clock::duration)>& waited,
                 const std::function<void()>& atEnd);

  // The game thread, when the run ends: no event begins any more (the module's sockets
  // hold their deliveries back; the receiving thread's Poll reports nothing once the game
  // is no longer active). Waits at most `wait` for a running event to end, so that the
  // recording ends on an event's edge.
  void Close(Clock::duration wait);
  // The receiving thread, after Client::ReceivingThread returned: ends its open message.
  void ReceiverFinished();

  bool MessageBegins() override;
  void MessageEnds() override;
  bool DatagramBegins() override;
  void DatagramEnds() override;
  bool WorkBegins() override;
  void WorkEnds() override;

 private:
  // kRecording: events run alone, in the order they come (heard_, when set, hears them).
  enum class Mode { kRecording, kEnforcing };

  // REQUIRES: mutex_ held through `lock`. Blocks until `event` may begin, and begins it;
  // false once the order is closed.
  bool Begin(std::unique_lock<std::mutex>& lock, Event event);
  void End(Event event);
  // REQUIRES: mutex_, kEnforcing. Waits one slice for a change; gives the order up once no
  // event happened for stall_.
  void WaitSlice(std::unique_lock<std::mutex>& lock);
  // REQUIRES: mutex_, kEnforcing. Moves to the next recorded run; closes at the end.
  void NextRun();
  Frame SerialFrame(Clock::duration budget, const std::function<void(Clock::duration)>& waited,
                    const std::function<void()>& atEnd);

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Mode mode_;
  bool closed_ = false;
  bool installed_ = false;
  bool granted_[4] = {};  // whether an event of each kind runs, begun by the order
  uint64_t events_ = 0;
  // Recording.
  std::function<void(Event)> heard_;
  bool busy_ = false;  // an event runs
  // Enforcing.
  Bytes recorded_;
  Decoder decoder_{recorded_};
  Event next_ = Event::kMessage;
  uint64_t left_ = 0;  // of the current run
  Clock::duration stall_{};
  Clock::time_point lastEvent_;
  std::function<void(const std::string&)> lost_;
  // Receiving thread only.
  bool messageOpen_ = false;
};

}  // namespace order
