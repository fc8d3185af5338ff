// Datagram intake: what the client does with each transform datagram on the socket's
// delivery thread (length, magic and sender checks, header, sequence, a copy handed to the
// game thread), against a memcmp of the magic and a memcpy of the datagram; and the whole
// path over a real loopback UDP socket, against a bare socket that only counts, measured in
// the same run.
//
// Names read Case/Implementation/variant; the implementation marked "base:" is the baseline
// that bench/run.sh divides by.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "filesystem/StreamValues.h"
#include "game/Host.h"
#include "game/Networking.h"
#include "net/UdpEndpoint.h"
#include "testlib/ClientTestPeer.h"

namespace {

using orvex::filesystem::ReadOnlyStream;
using Clock = std::chrono::steady_clock;

constexpr size_t kRecords = 23;
// Datagrams sent back to back before the receiver is waited for: well inside the socket's
// receive buffer, so none is lost on the way.
constexpr unsigned kBurst = 32;
// How long the end-to-end cases wait for a burst before they report a loss.
constexpr auto kBurstTimeout = std::chrono::seconds(2);
// The intake queues one pass per datagram for the game thread; the queue is run (outside
// the timed region) this often.
constexpr int64_t kDrainEvery = 1024;

// A full transform datagram (23 records, 1349 bytes) for entities the registry does not
// hold, so the passes that the timed loops leave behind are cheap to run.
wire::Bytes TransformDatagram(uint64_t sequence) {
  wire::StateHeader header;
  header.serverTime = 12.5;
  header.sequence = sequence;
  std::vector<wire::TransformRecord> records;
  for (uint64_t i = 0; i < kRecords; ++i) {
    wire::TransformRecord record;
    record.id = benchsupport::MakeId(50'000'000 + i);
    record.position = {static_cast<double>(i), 1.0, 2.0};
    records.push_back(record);
  }
  return wire::TransformsDatagram(header, game::entity::Id{}, records);
}

// A platform socket whose last datagram came from `host` (a loopback address), so that
// its GetIncomingAddress() is what the datagram callback sees of that sender. Throws when
// no datagram arrives within 10 s.
std::unique_ptr<orvex::net::UdpSocket> SocketThatHeardFrom(const std::string& host) {
  orvex::net::UdpEndpoint peer(orvex::net::UdpEndpoint::BindTag{}, host, 0, 16);
  auto heard = std::make_shared<std::atomic<bool>>(false);
  auto socket = std::make_unique<orvex::net::UdpSocket>(host, peer.GetLocalPort(), 16);
  socket->Receive([heard](const orvex::net::UdpSocket&, orvex::filesystem::ReadOnlyStream&&) {
    heard->store(true);
  });
  auto replied = std::make_shared<std::atomic<bool>>(false);
  peer.Receive(
      [&peer, replied](const orvex::net::UdpEndpoint& from, orvex::filesystem::ReadOnlyStream&&) {
        if (replied->exchange(true)) return;
        peer.SetDestination(from.GetIncomingAddress(), from.GetIncomingPort());
        orvex::filesystem::WriteValue(peer, uint8_t{1});
        peer.Flush();
      });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!heard->load() && std::chrono::steady_clock::now() < deadline) {
    orvex::filesystem::WriteValue(*socket, uint8_t{1});
    socket->Flush();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  peer.StopReceiving();
  if (!heard->load()) throw std::runtime_error("no loopback datagram arrived from " + host);
  return socket;
}

// The client and, for the direct case, a socket whose last sender was 127.0.0.1, which is
// what the client's sender check compares with the server's address.
struct Fixture {
  benchsupport::ConnectedClient connected;
  std::unique_ptr<orvex::net::UdpSocket> loopbackSender = SocketThatHeardFrom("127.0.0.1");
  wire::Bytes datagram = TransformDatagram(1);
  uint16_t clientPort = 0;

  Fixture() {
    // The client's datagram port, from its keep-alive.
    connected.Client().Send();
    while (auto received = connected.Server().NextDatagram(5000)) {
      if (!received->bytes.empty() && received->bytes[0] == LEAD_BYTE) {
        clientPort = received->port;
        break;
      }
    }
    if (clientPort == 0) throw std::runtime_error("intake_bench: the client sent no datagram");
  }
};

Fixture& TheFixture() {
  static Fixture fixture;
  return fixture;
}

void CountAllocations(benchmark::State& state, uint64_t allocations) {
  state.counters["allocs"] =
      benchmark::Counter(static_cast<double>(allocations), benchmark::Counter::kAvgIterations);
}

// ---------------------------------------------------------------------------------------
// One datagram through the callback's body, as the delivery thread hands it over (a view
// of the socket's batch buffer).

void IntakeClient(benchmark::State& state) {
  Fixture& f = TheFixture();
  client::Client& client = f.connected.Client();
  uint64_t allocations = 0;
  int64_t sinceDrain = 0;
  uint64_t mark = benchsupport::Allocations();
  for (auto _ : state) {
    client::ClientTestPeer::UdpMessage(client, *f.loopbackSender,
                                       ReadOnlyStream(f.datagram.data(), f.datagram.size()));
    if (++sinceDrain == kDrainEvery) {
      state.PauseTiming();
      allocations += benchsupport::Allocations() - mark;
      orvex::engine::RunSynchronized();
      sinceDrain = 0;
      mark = benchsupport::Allocations();
      state.ResumeTiming();
    }
  }
  allocations += benchsupport::Allocations() - mark;
  orvex::engine::RunSynchronized();
  CountAllocations(state, allocations);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.datagram.size()));
}

void IntakeMemcpy(benchmark::State& state) {
  Fixture& f = TheFixture();
  std::array<unsigned char, wire::kMaxDatagram> copy;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.datagram.data());
    if (std::memcmp(f.datagram.data(), networking::MAGIC, sizeof networking::MAGIC) == 0) {
      std::memcpy(copy.data(), f.datagram.data(), f.datagram.size());
    }
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.datagram.size()));
}

// ---------------------------------------------------------------------------------------
// End to end over loopback: bursts of kBurst datagrams sent with one sendmmsg; the time
// (wall clock) runs from the send to the moment the receiver has taken in the whole burst.

class Sender {
 public:
  Sender(uint16_t port, const wire::Bytes& datagram) : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
    if (fd_ < 0) throw std::runtime_error("intake_bench: no UDP socket");
    to_.sin_family = AF_INET;
    to_.sin_port = htons(port);
    to_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    iov_ = {const_cast<uint8_t*>(datagram.data()), datagram.size()};
    for (mmsghdr& message : messages_) {
      message = {};
      message.msg_hdr.msg_name = &to_;
      message.msg_hdr.msg_namelen = sizeof to_;
      message.msg_hdr.msg_iov = &iov_;
      message.msg_hdr.msg_iovlen = 1;
    }
  }
  ~Sender() { close(fd_); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  void Burst() {
    unsigned sent = 0;
    while (sent < kBurst) {
      const int n = sendmmsg(fd_, messages_.data() + sent, kBurst - sent, 0);
      if (n < 0) throw std::runtime_error("intake_bench: sendmmsg failed");
      sent += static_cast<unsigned>(n);
    }
  }

 private:
  int fd_;
  sockaddr_in to_{};
  iovec iov_{};
  std::array<mmsghdr, kBurst> messages_{};
};

// Sends bursts to `port` and waits each time until `count()` has grown by the burst.
// `afterBurst` runs outside the timed region.
void RunBursts(benchmark::State& state, uint16_t port, const std::function<uint64_t()>& count,
               const std::function<void()>& afterBurst) {
  Fixture& f = TheFixture();
  Sender sender(port, f.datagram);
  uint64_t lost = 0;
  for (auto _ : state) {
    const uint64_t target = count() + kBurst;
    sender.Burst();
    const auto deadline = Clock::now() + kBurstTimeout;
    while (count() < target && Clock::now() < deadline) std::this_thread::yield();
    if (count() < target) lost += target - count();
    if (afterBurst) {
      state.PauseTiming();
      afterBurst();
      state.ResumeTiming();
    }
  }
  if (lost != 0) state.SkipWithError("datagrams were lost on loopback; the figures would lie");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kBurst));
}

void LoopbackClient(benchmark::State& state) {
  Fixture& f = TheFixture();
  const client::Counters& counters = f.connected.Client().GetCounters();
  RunBursts(
      state, f.clientPort,
      [&] { return counters.datagramsAccepted.load(std::memory_order_relaxed); },
      [] { orvex::engine::RunSynchronized(); });
}

// The engine's UDP socket (batched receive on its delivery thread) with a callback that
// only counts: the client's socket without the client.
void LoopbackEngineSocket(benchmark::State& state) {
  orvex::net::UdpEndpoint socket(orvex::net::UdpEndpoint::BindTag{}, "127.0.0.1", 0,
                                 wire::kMaxDatagram);
  std::atomic<uint64_t> received{0};
  socket.Receive([&](const orvex::net::UdpEndpoint&, ReadOnlyStream&&) {
    received.fetch_add(1, std::memory_order_relaxed);
  });
  RunBursts(
      state, socket.GetLocalPort(), [&] { return received.load(std::memory_order_relaxed); },
      nullptr);
  socket.StopReceiving();
}

// A plain blocking recv() loop on a thread of its own that counts datagrams.
void LoopbackBareSocket(benchmark::State& state) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    state.SkipWithError("no bare UDP socket");
    return;
  }
  timeval wake{0, 100000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wake, sizeof wake);
  std::atomic<uint64_t> received{0};
  std::atomic<bool> stop{false};
  std::thread receiving([&] {
    std::vector<unsigned char> buffer(65536);
    while (!stop.load(std::memory_order_relaxed)) {
      if (recv(fd, buffer.data(), buffer.size(), 0) > 0) {
        received.fetch_add(1, std::memory_order_relaxed);
      }
    }
  });
  RunBursts(
      state, ntohs(address.sin_port), [&] { return received.load(std::memory_order_relaxed); },
      nullptr);
  stop = true;
  receiving.join();
  close(fd);
}

BENCHMARK(IntakeClient)->Name("Intake/ClientTestPeer::UdpMessage/transforms 23");
BENCHMARK(IntakeMemcpy)->Name("Intake/base:memcmp+memcpy/transforms 23");
BENCHMARK(LoopbackClient)->Name("Loopback/client::Client/burst 32")->UseRealTime();
BENCHMARK(LoopbackEngineSocket)->Name("Loopback/orvex::net::UdpEndpoint/burst 32")->UseRealTime();
BENCHMARK(LoopbackBareSocket)->Name("Loopback/base:recv_loop/burst 32")->UseRealTime();

}  // namespace
