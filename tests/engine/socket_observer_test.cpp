// Socket observers: which events a socket's traffic makes, shown once to every observer, and
// the end of an observation that waits for the call under way.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <tuple>

#include "Wait.h"
#include "filesystem/StreamValues.h"
#include "net/SocketObserver.h"
#include "net/TcpConnection.h"
#include "net/TcpListener.h"
#include "net/UdpEndpoint.h"

namespace {

using orvex::net::EngineSocket;
using orvex::net::SocketEvent;
using orvex::net::SocketObservation;
using orvex::net::SocketObserver;
using orvex::net::UdpEndpoint;
using Kind = SocketEvent::Kind;

// How often each kind of event came, per socket, direction, peer port and size.
using Key = std::tuple<const EngineSocket*, Kind, bool, uint16_t, unsigned long>;

struct Tally : SocketObserver {
  void OnSocketEvent(const SocketEvent& event) noexcept override {
    std::lock_guard lock(mutex);
    ++count[{&event.socket, event.kind, event.incoming, event.peerPort, event.size}];
    if (event.kind == Kind::kDatagramJudged) (event.incoming ? in : out) = event.simulated;
  }
  std::map<Key, int> Counts() {
    std::lock_guard lock(mutex);
    return count;
  }
  std::mutex mutex;
  std::map<Key, int> count;
  orvex::net::SimulatedPath::Stats in, out;
};

// One datagram, duplicated on its way out and each copy again on its way in; three TCP
// bytes each way. Two observers see the same events, each once.
TEST(SocketObserver, EachHappeningReachesEveryObserverOnceWithItsSocketPeerAndSize) {
  Tally first, second;  // declared before the sockets and observations: they outlive both
  UdpEndpoint server(UdpEndpoint::BindTag{}, "127.0.0.1", 0, 0);
  UdpEndpoint client("127.0.0.1", server.GetLocalPort(), 1400);
  orvex::net::TcpListener listener("127.0.0.1", 0);
  orvex::net::TcpConnection connection("127.0.0.1", listener.GetPort(), 0, 5000);
  std::unique_ptr<orvex::net::TcpConnection> accepted = listener.Accept(5000);
  ASSERT_NE(accepted, nullptr);
  server.Simulate("in.dup=100%");
  client.Simulate("out.dup=100%");
  std::atomic<int> delivered{0};
  server.Receive([&](const UdpEndpoint&, orvex::filesystem::ReadOnlyStream&&) { ++delivered; });
  const uint16_t s = server.GetLocalPort(), c = client.GetLocalPort(), l = listener.GetPort();
  {
    SocketObservation observeFirst(first), observeSecond(second);
    WriteValue<uint32_t>(client, 7);
    client.Flush();
    ASSERT_TRUE(testlib::WaitUntil([&] { return delivered.load() == 4; }));
    WriteValue<uint8_t>(connection, 1), WriteValue<uint16_t>(connection, 2);
    connection.Flush();
    EXPECT_EQ(ReadValue<uint16_t>(*accepted), 0x0201u);
    EXPECT_EQ(ReadValue<uint8_t>(*accepted), 0u);
  }
  const std::map<Key, int> expected{
      {{&client, Kind::kDatagramFlushed, false, s, 4}, 1},
      {{&client, Kind::kDatagramTransmitted, false, s, 4}, 2},
      {{&client, Kind::kDatagramJudged, false, s, 4}, 1},
      {{&server, Kind::kDatagramJudged, true, c, 4}, 2},
      {{&server, Kind::kDatagramDelivered, true, c, 4}, 4},
      {{&connection, Kind::kTcpFlushed, false, l, 3}, 1},
      {{accepted.get(), Kind::kTcpRead, true, connection.GetLocalPort(), 2}, 1},
      {{accepted.get(), Kind::kTcpRead, true, connection.GetLocalPort(), 1}, 1},
  };
  EXPECT_EQ(first.Counts(), expected);
  EXPECT_EQ(second.Counts(), expected);
  EXPECT_EQ(first.out.duplicated, 1u);
  EXPECT_EQ(first.in.admitted, 2u);
  EXPECT_EQ(first.in.duplicated, 2u);
  EXPECT_TRUE(client.IsClientForm());
  EXPECT_TRUE(connection.IsClientForm());
  EXPECT_FALSE(server.IsClientForm());
  EXPECT_FALSE(accepted->IsClientForm());
}

// An observation ends while its observer is inside a call on a socket's thread: the end
// stops new calls at once but returns only after that call, so the observer may then go.
TEST(SocketObservation, EndsAfterTheCallUnderWayAndStartsNoOther) {
  struct Blocking : SocketObserver {
    void OnSocketEvent(const SocketEvent& event) noexcept override {
      if (&event.socket != held) {
        ++others;
        return;
      }
      entered = true;
      while (!release) std::this_thread::yield();
      endedDuringCall = ended.load();
    }
    const EngineSocket* held = nullptr;
    std::atomic<int> others{0};
    std::atomic<bool> entered{false}, release{false}, ended{false}, endedDuringCall{false};
  } observer;
  UdpEndpoint sink(UdpEndpoint::BindTag{}, "127.0.0.1", 0, 0);
  UdpEndpoint writer("127.0.0.1", sink.GetLocalPort(), 64),
      probe("127.0.0.1", sink.GetLocalPort(), 64);
  observer.held = &writer;
  auto observation = std::make_unique<SocketObservation>(observer);
  std::jthread writing([&] {
    WriteValue<uint8_t>(writer, 1);
    writer.Flush();
  });
  ASSERT_TRUE(testlib::WaitUntil([&] { return observer.entered.load(); }));
  std::jthread ending([&] {
    observation.reset();
    observer.ended = true;
  });
  // Once a flush on another socket no longer reaches the observer, the end has begun.
  EXPECT_TRUE(testlib::WaitUntil([&] {
    const int before = observer.others.load();
    WriteValue<uint8_t>(probe, 2);
    probe.Flush();
    return observer.others.load() == before;
  }));
  EXPECT_FALSE(observer.ended.load()) << "the end returned while a call was under way";
  observer.release = true;
  ending.join();
  writing.join();
  EXPECT_FALSE(observer.endedDuringCall.load());
  EXPECT_TRUE(observer.ended.load());
}

}  // namespace
