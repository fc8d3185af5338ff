// UDP sockets on loopback: the datagram buffer, batched delivery in order, sender
// addresses of every family, stopping delivery, and the simulator behind Simulate.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "orvex/net/Socket.h"

namespace {

using orvex::filesystem::ReadOnlyStream;
using orvex::net::UdpSocket;

constexpr auto kWait = std::chrono::seconds(10);

// What a receiving socket saw, filled by the delivery thread. Declared before the sockets
// that call into it, so that it outlives their delivery threads.
struct Inbox {
  struct Datagram {
    uint32_t number = 0;
    unsigned long size = 0;
    std::string address;
    uint16_t port = 0;
  };

  UdpSocket::Callback Callback() {
    return [this](const UdpSocket& socket, ReadOnlyStream&& stream) {
      Datagram d{stream.ReadValue<uint32_t>(), stream.GetSize(), socket.GetIncomingAddress(),
                 socket.GetIncomingPort()};
      std::lock_guard lock(mutex);
      datagrams.push_back(d);
      changed.notify_all();
    };
  }

  // Waits until `count` datagrams arrived (or the generous time-out passed).
  std::vector<Datagram> WaitFor(size_t count) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, kWait, [&] { return datagrams.size() >= count; });
    return datagrams;
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Datagram> datagrams;
};

void SendNumbered(UdpSocket& socket, uint32_t first, uint32_t count, size_t padding = 0) {
  for (uint32_t i = first; i < first + count; ++i) {
    socket.WriteValue(i);
    for (size_t p = 0; p < padding; ++p) socket.WriteValue<uint8_t>(0xEE);
    socket.Flush();
  }
}

bool CanBind(const std::string& host) {
  try {
    UdpSocket probe(UdpSocket::BindTag{}, host, 0, 0);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

// ---------------------------------------------------------------------------------------

TEST(UdpDatagram, WritesFillOneBufferThatFlushSendsAndEmpties) {
  Inbox inbox;
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  UdpSocket client("127.0.0.1", server.GetLocalPort(), 8);
  client.WriteValue<uint32_t>(1);
  client.WriteValue<uint32_t>(2);
  try {
    client.WriteValue<uint8_t>(3);
    ADD_FAILURE() << "an overflowing write was taken";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "UDP datagram of 9 bytes exceeds the buffer of 8 bytes");
  }
  EXPECT_EQ(client.GetBufferSize(), 8u);
  EXPECT_THROW(client.ReadValue<uint8_t>(), std::logic_error);

  client.Flush();
  EXPECT_EQ(client.GetBufferSize(), 0u);
  EXPECT_EQ(client.GetDatagramsOut(), 1u);
  EXPECT_EQ(client.GetBytesOut(), 8u);
  client.Flush();  // empty: nothing is sent
  EXPECT_EQ(client.GetDatagramsOut(), 1u);

  server.Receive(inbox.Callback());
  auto got = inbox.WaitFor(1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].number, 1u);
  EXPECT_EQ(got[0].size, 8u);
}

TEST(UdpDelivery, BatchedDatagramsAllArriveInOrderWithTheirSender) {
  Inbox inbox;
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  UdpSocket client("127.0.0.1", server.GetLocalPort(), 1400);
  // Queued before delivery starts, so the first reads take full batches.
  SendNumbered(client, 0, 40, 100);
  server.Receive(inbox.Callback());
  SendNumbered(client, 40, 60, 100);

  auto got = inbox.WaitFor(100);
  ASSERT_EQ(got.size(), 100u);
  for (uint32_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].number, i);
    EXPECT_EQ(got[i].size, 104u);
    EXPECT_EQ(got[i].address, "127.0.0.1");
    EXPECT_EQ(got[i].port, client.GetLocalPort());
  }
  server.StopReceiving();
  EXPECT_EQ(server.GetDatagramsIn(), 100u);
  EXPECT_EQ(server.GetBytesIn(), 100u * 104u);
}

TEST(UdpDelivery, TheServerRepliesToTheSenderItSaw) {
  Inbox atServer, atClient;
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  UdpSocket client("127.0.0.1", server.GetLocalPort(), 1400);
  EXPECT_EQ(client.GetRemoteAddress(), "127.0.0.1");
  EXPECT_EQ(client.GetRemotePort(), server.GetLocalPort());
  server.Receive(atServer.Callback());
  client.Receive(atClient.Callback());

  SendNumbered(client, 7, 1);
  auto seen = atServer.WaitFor(1);
  ASSERT_EQ(seen.size(), 1u);
  server.SetDestination(seen[0].address, seen[0].port);
  SendNumbered(server, 8, 1);
  auto reply = atClient.WaitFor(1);
  ASSERT_EQ(reply.size(), 1u);
  EXPECT_EQ(reply[0].number, 8u);
  EXPECT_EQ(reply[0].address, "127.0.0.1");
  EXPECT_EQ(reply[0].port, server.GetLocalPort());
}

TEST(UdpDelivery, AForeignSenderShowsItsOwnAddress) {
  Inbox inbox;
  if (!CanBind("127.0.0.2")) GTEST_SKIP() << "127.0.0.2 is not usable here";
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  UdpSocket friendly("127.0.0.1", server.GetLocalPort(), 1400);
  UdpSocket foreign(UdpSocket::BindTag{}, "127.0.0.2", 0, 1400);
  foreign.SetDestination("127.0.0.1", server.GetLocalPort());
  server.Receive(inbox.Callback());
  SendNumbered(friendly, 1, 1);
  inbox.WaitFor(1);
  SendNumbered(foreign, 2, 1);
  auto got = inbox.WaitFor(2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].address, "127.0.0.1");
  EXPECT_EQ(got[1].address, "127.0.0.2");
  EXPECT_EQ(got[1].port, foreign.GetLocalPort());
}

TEST(UdpDelivery, Ipv6AndDualStackSendersPrintNormalised) {
  Inbox atServer, atClient;
  if (!CanBind("::1")) GTEST_SKIP() << "no IPv6 loopback";
  {
    Inbox inbox;
    UdpSocket server(UdpSocket::BindTag{}, "::1", 0, 0);
    UdpSocket client("::1", server.GetLocalPort(), 1400);
    server.Receive(inbox.Callback());
    SendNumbered(client, 1, 1);
    auto got = inbox.WaitFor(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].address, "::1");
  }
  // An IPv4 client of a dual-stack server: seen as plain IPv4, and reachable by that text.
  UdpSocket server(UdpSocket::BindTag{}, "::", 0, 0);
  UdpSocket client("127.0.0.1", server.GetLocalPort(), 1400);
  server.Receive(atServer.Callback());
  client.Receive(atClient.Callback());
  SendNumbered(client, 1, 1);
  auto got = atServer.WaitFor(1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].address, "127.0.0.1");
  server.SetDestination(got[0].address, got[0].port);
  EXPECT_EQ(server.GetRemoteAddress(), "127.0.0.1");
  SendNumbered(server, 2, 1);
  EXPECT_EQ(atClient.WaitFor(1).size(), 1u);
}

TEST(UdpDelivery, ExceptionsFromTheCallbackAreDiscarded) {
  Inbox inbox;
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  UdpSocket client("127.0.0.1", server.GetLocalPort(), 1400);
  auto record = inbox.Callback();
  server.Receive([&](const UdpSocket& socket, ReadOnlyStream&& stream) {
    record(socket, std::move(stream));
    throw std::runtime_error("bad datagram");
  });
  SendNumbered(client, 0, 5);
  EXPECT_EQ(inbox.WaitFor(5).size(), 5u);
}

TEST(UdpDelivery, TheStreamViewsTheBatchAndItsCopyKeepsTheBytes) {
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  UdpSocket client("127.0.0.1", server.GetLocalPort(), 1400);
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<ReadOnlyStream> kept;
  bool viewed = false;
  server.Receive([&](const UdpSocket&, ReadOnlyStream&& stream) {
    std::lock_guard lock(mutex);
    viewed = !stream.OwnsBytes();
    kept.push_back(stream);
    arrived.notify_all();
  });
  SendNumbered(client, 0, 3);
  {
    std::unique_lock lock(mutex);
    arrived.wait_for(lock, kWait, [&] { return kept.size() == 3; });
  }
  server.StopReceiving();
  ASSERT_EQ(kept.size(), 3u);
  EXPECT_TRUE(viewed);
  for (uint32_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(kept[i].OwnsBytes());
    EXPECT_EQ(kept[i].ReadValue<uint32_t>(), i);
  }
}

// ---------------------------------------------------------------------------------------

TEST(UdpStop, StopReceivingWaitsForTheCallbackInFlightAndEndsDelivery) {
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  UdpSocket client("127.0.0.1", server.GetLocalPort(), 1400);
  std::mutex mutex;
  std::condition_variable entered;
  int calls = 0;
  bool finished = false;
  server.Receive([&](const UdpSocket&, ReadOnlyStream&&) {
    {
      std::lock_guard lock(mutex);
      ++calls;
      entered.notify_all();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // widens the window only
    std::lock_guard lock(mutex);
    finished = true;
  });
  SendNumbered(client, 0, 1);
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(entered.wait_for(lock, kWait, [&] { return calls == 1; }));
  }
  server.StopReceiving();
  {
    std::lock_guard lock(mutex);
    EXPECT_TRUE(finished);
  }
  SendNumbered(client, 1, 3);
  server.StopReceiving();  // idempotent
  std::lock_guard lock(mutex);
  EXPECT_EQ(calls, 1);
}

TEST(UdpStop, StopReceivingFromTheCallbackEndsDeliveryAfterIt) {
  Inbox inbox;
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  UdpSocket client("127.0.0.1", server.GetLocalPort(), 1400);
  // Sent before delivery starts: all four come in the first batch.
  SendNumbered(client, 0, 4);
  auto record = inbox.Callback();
  server.Receive([&](const UdpSocket& socket, ReadOnlyStream&& stream) {
    record(socket, std::move(stream));
    server.StopReceiving();
  });
  EXPECT_EQ(inbox.WaitFor(1).size(), 1u);
  server.StopReceiving();
  EXPECT_EQ(inbox.WaitFor(1).size(), 1u);

  // Delivery can start again.
  server.Receive(inbox.Callback());
  SendNumbered(client, 4, 1);
  auto got = inbox.WaitFor(2);
  EXPECT_GE(got.size(), 2u);
}

TEST(UdpStop, ReceiveTwiceIsRefused) {
  Inbox inbox;
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  server.Receive(inbox.Callback());
  EXPECT_THROW(server.Receive(inbox.Callback()), std::logic_error);
  EXPECT_THROW(server.Simulate("loss=1%"), std::logic_error);
}

// ---------------------------------------------------------------------------------------

TEST(UdpSimulation, DuplicationDeliversEveryDatagramTwice) {
  Inbox inbox;
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  UdpSocket client("127.0.0.1", server.GetLocalPort(), 1400);
  server.Simulate("in.dup=100%");
  server.Receive(inbox.Callback());
  SendNumbered(client, 0, 10);
  auto got = inbox.WaitFor(20);
  ASSERT_EQ(got.size(), 20u);
  for (uint32_t i = 0; i < 20; ++i) EXPECT_EQ(got[i].number, i / 2);
}

TEST(UdpSimulation, DelayedAndReorderedDatagramsAllArriveOnce) {
  Inbox inbox;
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  UdpSocket client("127.0.0.1", server.GetLocalPort(), 1400);
  server.Simulate("in.delay=5ms,in.jitter=5ms,in.reorder=30%,seed=4");
  client.Simulate("out.delay=10ms,out.jitter=10ms");
  server.Receive(inbox.Callback());
  SendNumbered(client, 0, 50);
  auto got = inbox.WaitFor(50);
  ASSERT_EQ(got.size(), 50u);
  std::vector<int> seen(50, 0);
  for (const auto& d : got) {
    ASSERT_LT(d.number, 50u);
    ++seen[d.number];
    EXPECT_EQ(d.port, client.GetLocalPort());
  }
  EXPECT_EQ(seen, std::vector<int>(50, 1));
}

TEST(UdpSimulation, BadSettingsAreRefused) {
  UdpSocket server(UdpSocket::BindTag{}, "127.0.0.1", 0, 0);
  EXPECT_THROW(server.Simulate("loss=5"), std::invalid_argument);
  server.Simulate("loss=5%");
  server.Simulate("");
}

}  // namespace
