// The reference engine's UDP endpoint: what the platform's UdpSocket is made of (its client
// form), with what hosts use beyond it (the bound server form, destinations, the network
// condition simulator, counts). Tools, tests and benchmarks use it directly.
#pragma once

#include "HostOnly.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "net/EngineSocket.h"

namespace orvex::net {

class NetworkSimulator;

// An unconnected UDP socket.
//
// Outgoing: Write appends to one datagram buffer of the constructor's size (a write that
// would overflow it throws); Flush sends the buffer as one datagram to the destination and
// empties it; an empty buffer sends nothing.
// Incoming: Receive(callback) starts the socket's delivery thread, which reads datagrams
// in batches and calls the callback once per datagram with a stream that views the batch
// (the stream ends with the callback: copy it to keep it). GetIncomingAddress(), called
// from inside the callback, is the sender of the datagram being delivered.
// StopReceiving() ends delivery and joins the thread; the owner calls it before its other
// members die, so no callback runs on a half-destroyed owner. The destructor calls it too.
// Threads: the writer side (Write, Flush) belongs to one thread; the delivery thread only
// reads and calls back.
class UdpEndpoint : public EngineSocket, public filesystem::Stream {
 public:
  using Callback = std::function<void(const UdpEndpoint&, filesystem::ReadOnlyStream&&)>;
  struct BindTag {};

  // Client form: an ephemeral local port; datagrams go to host:port.
  UdpEndpoint(const std::string& host, uint16_t port, unsigned long bufferSize);
  // Server form: bound to host:port (port 0: any free port; host "::" is dual-stack).
  // Datagrams go to the destination set with SetDestination.
  UdpEndpoint(BindTag, const std::string& host, uint16_t port, unsigned long bufferSize);
  ~UdpEndpoint() override;

  void Receive(Callback callback);
  void StopReceiving();
  std::string GetIncomingAddress() const;
  uint16_t GetIncomingPort() const;

  void Write(const unsigned char* data, unsigned long size) override;
  void Read(unsigned char* data, unsigned long size) override;
  void Flush() override;
  unsigned long GetBufferSize() const override;
  // The datagram written so far (valid until the next write or flush).
  const unsigned char* GetBuffer() const { return out_.data(); }

  // Server form: where Flush sends (numeric address text or host name).
  void SetDestination(const std::string& host, uint16_t port);
  // Turns the network condition simulator on (a settings text such as
  // "loss=10%,delay=40ms,jitter=20ms,reorder=20%,dup=5%,seed=7") or off (empty text).
  // Call before Receive. Throws std::invalid_argument on bad settings.
  void Simulate(const std::string& settings);
  // Sets the settings that every client-form socket created afterwards in this process starts
  // with (empty text: none), for a host whose sockets belong to a module it cannot reach
  // into, such as a game whose network client owns its socket (the platform's UdpSocket is
  // a client-form endpoint). Any thread; throws std::invalid_argument on bad settings.
  static void SimulateNewClientSockets(const std::string& settings);

  // Incoming figures count what was handed to the callback, so datagrams that the
  // simulator dropped are not among them.
  uint64_t GetDatagramsIn() const { return datagramsIn_.load(std::memory_order_relaxed); }
  uint64_t GetDatagramsOut() const { return datagramsOut_.load(std::memory_order_relaxed); }
  uint64_t GetBytesIn() const { return bytesIn_.load(std::memory_order_relaxed); }
  uint64_t GetBytesOut() const { return bytesOut_.load(std::memory_order_relaxed); }

  // Bytes received and sent by every client-form endpoint of the process, such as a
  // module's own: for a host that cannot reach into the module.
  static ByteCounts ClientBytes();

  using Stream::Read;
  using Stream::Write;

 private:
  void Open(int family);
  void DeliveryLoop();
  // Hands one datagram to the callback; `sender` is a sockaddr of `senderLength` bytes.
  void Deliver(const void* sender, unsigned int senderLength, const unsigned char* data,
               unsigned long size, std::chrono::steady_clock::time_point at);
  // Sends one datagram now; a full send queue drops it, other errors throw. Called on the
  // writer thread and on the simulator's sender thread.
  void SendDatagram(const void* to, unsigned int toLength, const unsigned char* data,
                    unsigned long size);
  friend class NetworkSimulator;

  unsigned long capacity_;
  int family_ = 0;  // AF_INET or AF_INET6
  // Writer side.
  std::vector<unsigned char> out_;
  std::vector<unsigned char> destination_;  // a sockaddr's bytes; empty: none yet
  // Owner thread: set while no delivery thread runs.
  Callback callback_;
  std::thread delivery_;
  int stopFd_ = -1;  // eventfd that wakes the delivery thread
  std::atomic<bool> stopping_{false};
  // Delivery thread only. The raw sender bytes of the last datagram spare the text
  // conversion while one peer sends many datagrams.
  std::vector<unsigned char> incomingRaw_;
  std::string incomingAddress_;
  uint16_t incomingPort_ = 0;
  // Set by Simulate while no delivery thread runs; null when simulation is off.
  std::unique_ptr<NetworkSimulator> simulator_;
  std::atomic<uint64_t> datagramsIn_{0};
  std::atomic<uint64_t> datagramsOut_{0};
  std::atomic<uint64_t> bytesIn_{0};
  std::atomic<uint64_t> bytesOut_{0};
};

}  // namespace orvex::net
