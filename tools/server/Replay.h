// A recorded session played back to a real client, as its server would: the recorded
// welcome answers the hello, then the recorded TCP bytes and datagrams follow in the order
// the recording client saw them, with their recorded spacing (or, fast, with gaps of at
// most a millisecond), never more than the client's socket can hold unread. What the client sends
// back is compared with what the recording client sent: the module's own bytes depend only on its
// input and frames.
//
// Threads: Run on one thread; the connection's reader thread and the UDP delivery thread
// collect the client's traffic under mutex_; Stop from any thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "common/Recording.h"
#include "net/TcpConnection.h"
#include "net/UdpEndpoint.h"
#include "protocol/Wire.h"

namespace orvex::net {
class TcpListener;
class TcpConnection;
class UdpEndpoint;
}  // namespace orvex::net

namespace gameserver {

struct ReplayOptions {
  std::string host = "127.0.0.1";
  uint16_t port = 0;  // 0: a free port
  bool fast = false;
  int acceptTimeoutMs = -1;  // how long to wait for the client; negative: until Stop
};

struct ReplayResult {
  uint64_t tcpBytes = 0, datagrams = 0;  // sent to the client
  std::string difference;                // the first one; empty when the client matched
};

// The bytes waiting unread in the UDP socket bound to local port `port` on this machine, as
// the kernel counts them (each datagram with its overhead), from its tables of UDP sockets;
// nothing when the tables cannot be read or hold no such socket (a client elsewhere).
std::optional<uint64_t> UnreadDatagramBytes(uint16_t port);

class Replayer {
 public:
  Replayer(recording::Recording recording, ReplayOptions options);
  ~Replayer();
  Replayer(const Replayer&) = delete;
  Replayer& operator=(const Replayer&) = delete;

  // Binds TCP and UDP to one port; throws std::runtime_error.
  void Start();
  uint16_t Port() const { return port_; }
  // Plays the recording to the first client that connects and returns once it has left.
  // Throws std::runtime_error when no client came or the replay was stopped.
  ReplayResult Run();
  void Stop();

 private:
  void Stream(ReplayResult& result);
  // Returns once the client's UDP socket holds at most kUnreadLimit unread bytes (or it took
  // nothing for kUnreadPatience, or the kernel's socket tables cannot say).
  void WaitForTheClient();
  std::string Compare() const;

  recording::Recording recording_;
  ReplayOptions options_;
  uint16_t port_ = 0;
  std::unique_ptr<orvex::net::TcpListener> listener_;
  std::unique_ptr<orvex::net::UdpEndpoint> udp_;
  std::unique_ptr<orvex::net::TcpConnection> tcp_;
  std::atomic<bool> stopping_{false};

  mutable std::mutex mutex_;
  std::condition_variable heard_;
  bool datagramAddressKnown_ = false;
  uint16_t clientPort_ = 0;  // the client's UDP port, once datagramAddressKnown_
  wire::Bytes clientTcp_;    // after the hello
  std::vector<wire::Bytes> clientDatagrams_;
  std::string helloDifference_;
};

}  // namespace gameserver
