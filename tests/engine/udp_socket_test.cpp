// UDP sockets: batched delivery, StopReceiving, sender addresses, simulated faults.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Wait.h"
#include "filesystem/StreamValues.h"
#include "net/UdpEndpoint.h"
#include "orvex/net/Socket.h"

namespace {

using orvex::filesystem::ReadOnlyStream;
using orvex::net::UdpEndpoint;
const UdpEndpoint::BindTag kBind;

// What a receiving socket saw; declared before the sockets, so it outlives their delivery threads.
struct Inbox {
  struct Datagram {
    uint32_t number;
    unsigned long size;
    std::string address;
    uint16_t port;
  };
  UdpEndpoint::Callback Callback() {
    return [this](const UdpEndpoint& socket, ReadOnlyStream&& stream) {
      std::lock_guard lock(mutex);
      got.push_back({ReadValue<uint32_t>(stream), stream.GetSize(), socket.GetIncomingAddress(),
                     socket.GetIncomingPort()});
    };
  }
  std::vector<Datagram> WaitFor(size_t count) {
    testlib::WaitUntil([&] { return Received().size() >= count; });
    return Received();
  }
  std::vector<Datagram> Received() {
    std::lock_guard lock(mutex);
    return got;
  }
  std::mutex mutex;
  std::vector<Datagram> got;
};

void Send(UdpEndpoint& socket, uint32_t first, uint32_t count, size_t padding = 0) {
  for (uint32_t i = first; i < first + count; ++i) {
    WriteValue(socket, i);
    for (size_t p = 0; p < padding; ++p) WriteValue<uint8_t>(socket, 0xEE);
    socket.Flush();
  }
}

TEST(UdpEndpoint, WritesFillADatagramAndBatchesArriveInOrderWithTheirSenderTillDeliveryStops) {
  Inbox inbox;
  UdpEndpoint server(kBind, "127.0.0.1", 0, 0), client("127.0.0.1", server.GetLocalPort(), 104);
  UdpEndpoint other("127.0.0.1", server.GetLocalPort(), 1400);
  WriteValue<uint8_t>(server, 1);
  EXPECT_THROW(server.Flush(), std::runtime_error) << "no destination yet";
  Send(client, 0, 39, 100);  // queued before delivery starts: the first reads are full batches
  WriteValue<uint32_t>(client, 39);
  client.Write(std::vector<uint8_t>(100, 0xEE).data(), 100);
  EXPECT_THROW(WriteValue<uint8_t>(client, 3), std::runtime_error) << "overflows the datagram";
  EXPECT_THROW(ReadValue<uint8_t>(client), std::logic_error);
  client.Flush(), client.Flush();  // the second is empty: nothing is sent
  server.Receive(inbox.Callback());
  EXPECT_THROW(server.Receive(inbox.Callback()), std::logic_error);
  EXPECT_THROW(server.Simulate("loss=1%"), std::logic_error);
  Send(client, 40, 60, 100);
  Send(other, 100, 1);
  const auto got = inbox.WaitFor(101);
  ASSERT_EQ(got.size(), 101u);
  for (uint32_t i = 0; i < 100; ++i) {
    EXPECT_EQ(got[i].number, i);
    EXPECT_EQ(got[i].size, 104u);
    EXPECT_EQ(got[i].port, client.GetLocalPort());
  }
  EXPECT_EQ(got[100].port, other.GetLocalPort()) << "a new sender replaces the last one";
  server.StopReceiving(), server.StopReceiving();  // idempotent
  EXPECT_EQ(server.GetDatagramsIn(), 101u);
  EXPECT_EQ(server.GetBytesIn(), 100u * 104u + 4u);
  EXPECT_EQ(client.GetDatagramsOut(), 100u);
  EXPECT_EQ(client.GetBytesOut(), 100u * 104u);
  Send(client, 101, 1);
  server.Receive(inbox.Callback());  // delivery can start again
  EXPECT_EQ(inbox.WaitFor(102).size(), 102u);
}

TEST(UdpEndpoint, CallbackExceptionsAreDroppedAndAStopEndsItsBatchOrWaitsForTheCallback) {
  Inbox inbox;
  UdpEndpoint server(kBind, "127.0.0.1", 0, 0), client("127.0.0.1", server.GetLocalPort(), 1400);
  Send(client, 0, 6);  // all six come in the first batch
  const auto record = inbox.Callback();
  int calls = 0;  // delivery thread only
  server.Receive([&](const UdpEndpoint& socket, ReadOnlyStream&& stream) {
    if (++calls == 4) server.StopReceiving();  // delivery ends after this one
    record(socket, std::move(stream));
    throw std::runtime_error("bad datagram");
  });
  ASSERT_EQ(inbox.WaitFor(4).size(), 4u);
  std::atomic<int> finished = 0;
  server.Receive([&](const UdpEndpoint& socket, ReadOnlyStream&& stream) {  // joins the stopped one
    record(socket, std::move(stream));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // widens the window only
    ++finished;
  });
  Send(client, 6, 1);
  EXPECT_EQ(inbox.WaitFor(5).at(4).number, 6u) << "4 and 5 came in the stopped batch: dropped";
  server.StopReceiving();
  EXPECT_EQ(finished, 1) << "StopReceiving waits for the callback in flight";
}

TEST(UdpEndpoint, SendersPrintNormalisedAndRepliesReachThem) {
  const struct {
    const char *name, *server, *sender;
    bool bound;  // the sender is bound to its address, else a client-form socket
  } rows[] = {{"IPv4", "127.0.0.1", "127.0.0.1", false},
              {"IPv6", "::1", "::1", false},
              {"IPv4 through dual-stack", "::", "127.0.0.1", true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Inbox atServer, atSender;
    try {
      UdpEndpoint server(kBind, row.server, 0, 1400);
      auto sender = row.bound
                        ? std::make_unique<UdpEndpoint>(kBind, row.sender, 0, 1400)
                        : std::make_unique<UdpEndpoint>(row.sender, server.GetLocalPort(), 1400);
      sender->SetDestination(row.sender, server.GetLocalPort());
      server.Receive(atServer.Callback()), sender->Receive(atSender.Callback());
      Send(*sender, 1, 1);
      const auto seen = atServer.WaitFor(1).at(0);
      EXPECT_EQ(seen.address, row.sender);
      EXPECT_EQ(seen.port, sender->GetLocalPort());
      server.SetDestination(seen.address, seen.port);
      EXPECT_EQ(server.GetRemoteAddress(), row.sender);
      Send(server, 2, 1);
      EXPECT_EQ(atSender.WaitFor(1).at(0).port, server.GetLocalPort());
    } catch (const std::runtime_error& e) {
      std::cout << row.name << " skipped: " << e.what() << "\n";  // no such loopback here
    }
  }
}

TEST(UdpEndpoint, SimulatedFaultsOfBothDirectionsReachTheCallback) {
  Inbox inbox, none;
  UdpEndpoint server(kBind, "127.0.0.1", 0, 0), client("127.0.0.1", server.GetLocalPort(), 1400);
  UdpEndpoint other("127.0.0.1", server.GetLocalPort(), 1400);
  EXPECT_THROW(server.Simulate("loss=5"), std::invalid_argument);
  server.Simulate("in.dup=100%,in.jitter=5ms,in.reorder=30%,seed=4,for=600s");
  client.Simulate("out.delay=10ms,out.jitter=10ms");  // held: the sender thread sends them
  other.Simulate("out.dup=100%,in.delay=0ms");        // undelayed: the copies leave from Flush
  server.Receive(inbox.Callback());
  other.Receive(none.Callback());
  Send(client, 0, 50);
  Send(other, 50, 1);
  std::vector<int> seen(51, 0);
  for (const auto& d : inbox.WaitFor(104)) ++seen.at(d.number);
  std::vector<int> expected(51, 2);
  expected[50] = 4;
  EXPECT_EQ(seen, expected) << "every datagram twice, none lost; the duplicated one four times";
  EXPECT_EQ(server.GetDatagramsIn(), 104u) << "what reached the callback, not the kernel's 52";
}

}  // namespace
