// Session recordings: what a client and its server said to each other, as a capture file
// (common/Pcapng.h) that Wireshark reads and game-server --replay plays back.
//
// A recording holds one TCP connection (the client's port to the server's) and the
// datagrams between the client's UDP port and the server's port, every frame stamped with
// the moment the engine's socket took it in or sent it. The section header's comment holds
// the session's parameters, the closing block's comment how the session and the recording
// ended. The hello's token and password are never written: their counts become zero.
// Custom blocks hold the order of the client's thread events (common/ThreadOrder.h), in
// pieces as the session goes; a replay that imposes it reproduces the replica.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/Pcapng.h"
#include "common/ThreadOrder.h"
#include "net/SocketObserver.h"

namespace recording {

using capture::Bytes;

// Records the first TCP connection and the first UDP socket of the process, as a socket
// observer: the TCP bytes the client read (so that a replay gives it nothing it did not take
// in) and flushed, the datagrams delivered to it and those it flushed (before the simulator).
// Threads: the observer's callers (any socket thread) and the owner (Note, Close) serialise
// on one lock; frames go to the file in the order the calls took it, each stamped when it
// took it (an event's own time may be older than a frame another thread recorded before it,
// and the file's times must not go back).
class Recorder : public orvex::net::SocketObserver {
 public:
  // Creates `path` (std::runtime_error when it cannot be). Once the file would grow past
  // `limitBytes`, nothing more is recorded and `onFull` is called once, on the thread that
  // hit the limit; everything before stays in the file.
  Recorder(const std::string& path, uint64_t limitBytes, const std::string& parameters,
           std::function<void()> onFull);

  // A comment for the next frame that is recorded.
  void Note(const std::string& comment);
  // One event of the thread order, as the order hears it (common/ThreadOrder.h).
  void Heard(order::Event event);
  // Writes the closing block with `ending` and closes the file; throws std::runtime_error
  // when a write failed. REQUIRES: its SocketObservation is gone.
  void Close(const std::string& ending);

  void OnSocketEvent(const orvex::net::SocketEvent& event) noexcept override;

 private:
  // REQUIRES: mutex_. Sets the frame time to `time` (now when zero); false (and the limit
  // reached) when `bytes` more do not fit.
  bool Admit(size_t bytes, uint64_t time = 0);
  // REQUIRES: mutex_. Writes the bytes read so far as segments from the server.
  void FlushReceived();
  // REQUIRES: mutex_. Writes the thread order heard so far as a custom block.
  void FlushOrder();
  uint64_t Now() const;

  std::mutex mutex_;
  capture::CaptureFile file_;
  const uint64_t limit_;
  std::function<void()> onFull_;
  bool full_ = false;
  const std::chrono::steady_clock::time_point start_;
  const uint64_t startMicroseconds_;
  // REQUIRES: mutex_.
  void OnTcp(const orvex::net::SocketEvent& event);
  void OnDatagram(const orvex::net::SocketEvent& event);

  const orvex::net::EngineSocket* tcpSocket_ = nullptr;
  std::unique_ptr<capture::TcpConnection> tcp_;
  bool helloSeen_ = false;
  // The reader takes a message field by field: what it took since the last other event goes
  // out as one segment, stamped with the moment its first byte was read.
  Bytes received_;
  uint64_t receivedTime_ = 0;
  const orvex::net::EngineSocket* udpSocket_ = nullptr;
  uint16_t udpPort_ = 0;
  order::Encoder order_;
};

// The hello with its token and password counts set to zero and their bytes left out (the
// password marker stays when there was one).
Bytes BlankHello(const uint8_t* data, size_t size);

// A recording read back, for a replay: the traffic in the order it was recorded.
struct Item {
  enum Kind : uint8_t { kServerTcp, kServerDatagram, kClientTcp, kClientDatagram };
  Kind kind;
  uint64_t time;  // microseconds since 1970
  Bytes bytes;
};

struct Recording {
  std::string parameters;  // the section header's comment
  std::string ending;      // the closing comment; empty when the file was not closed
  bool complete = false;   // closed, and not cut at the size limit
  uint16_t serverPort = 0;
  std::vector<Item> items;
  // The thread order in its recorded form (checked); `ordered` is false for a recording
  // made before orders were recorded.
  bool ordered = false;
  order::Bytes order;
};

// Reads a recording. A file that is not one, or is damaged, throws std::runtime_error with
// one line naming the file and what is wrong. Trust boundary: a player's file is input from
// outside; what is read back never holds more bytes than the file, and its frames are in
// time order without a gap longer than kLongestGapMicroseconds, so that a replay of it ends.
Recording LoadRecording(const std::string& path);
// The same, from the file's bytes; `path` names it in errors.
Recording LoadRecording(const Bytes& file, const std::string& path);

// No session survives this much silence (the module ends one after 15 s without a byte),
// so a longer gap between two frames is damage, not a recording.
inline constexpr uint64_t kLongestGapMicroseconds = 60'000'000;

}  // namespace recording
