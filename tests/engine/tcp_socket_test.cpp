// TCP sockets: broken or stalled peers as errors, Poll, the listener.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "filesystem/StreamValues.h"
#include "net/TcpConnection.h"
#include "net/TcpListener.h"
#include "orvex/net/Socket.h"

namespace {

using orvex::net::TcpConnection;
using orvex::net::TcpListener;
using Bytes = std::vector<uint8_t>;

// A connected pair over loopback.
struct Connection {
  // Listening on "::", the client connects over IPv4.
  explicit Connection(const std::string& host = "127.0.0.1", int stallMs = 5000)
      : listener(host, 0),
        client(std::make_unique<TcpConnection>(host == "::" ? "127.0.0.1" : host,
                                               listener.GetPort(), 0, stallMs)),
        server(listener.Accept(5000)) {
    if (server == nullptr) throw std::runtime_error("no connection accepted");
  }
  TcpListener listener;
  std::unique_ptr<TcpConnection> client, server;
  std::jthread reader;  // a slow peer's, stopped and joined first
};

std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no error";
}

// Writing until the broken connection shows fails the flush, and every later flush at once.
// A peer that keeps taking a little is held to one deadline for the whole flush: a limit
// per wait would let its 64 MiB flush end well after some 6 s.
TEST(TcpConnection, AFlushOnABrokenConnectionFailsAndKeepsFailing) {
  const auto slowly = [](Connection& c) {
    c.reader = std::jthread([&c](std::stop_token stop) {
      static unsigned char some[1 << 20];
      while (!stop.stop_requested()) {
        c.server->Read(some, sizeof some);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
    });
  };
  const struct {
    const char* name;
    int stallMs;
    std::function<void(Connection&)> breakIt;
    std::string error;
    size_t chunk = 1 << 20;  // bytes a flush
    int flushes = 512;       // at most
  } rows[] = {
      {"peer closed", 5000, [](Connection& c) { c.server.reset(); }, "Connection closed by peer"},
      {"peer stopped reading", 300, [](Connection&) {},
       "TCP flush stalled: the peer did not take it within 300 ms"},
      {"shut down", 5000, [](Connection& c) { c.client->Shutdown(); }, "Connection shut down"},
      {"peer takes 1 MiB every 100 ms", 300, slowly,
       "TCP flush stalled: the peer did not take it within 300 ms", 64 << 20, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Connection c("127.0.0.1", row.stallMs);
    row.breakIt(c);
    const Bytes chunk(row.chunk, 0x5A);
    std::string error = "no error";
    for (int i = 0; i < row.flushes && error == "no error"; ++i) {
      c.client->Write(chunk.data(), chunk.size());
      error = ErrorOf([&] { c.client->Flush(); });
    }
    EXPECT_EQ(error, row.error);
    EXPECT_EQ(c.client->GetBufferSize(), 0u);
    WriteValue<uint8_t>(*c.client, 2);
    EXPECT_EQ(ErrorOf([&] { c.client->Flush(); }), row.error);
  }
}

// A read ends in an error at the end, a stalled peer or a shutdown.
TEST(TcpConnection, PollSeesBufferedBytesAndAReadEndsAtTheEndAStallOrAShutdown) {
  Connection c;
  EXPECT_EQ(c.client->Poll(20), 0);
  WriteValue<uint64_t>(*c.server, 0x1111111122222222ull), c.server->Flush();
  ASSERT_EQ(c.client->Poll(5000), 1);
  EXPECT_EQ(ReadValue<uint32_t>(*c.client), 0x22222222u);
  EXPECT_EQ(c.client->Poll(0), 1) << "the rest sits in the receive buffer";
  uint8_t rest[8];
  EXPECT_EQ(c.client->ReadSome(rest, sizeof rest), 4u);
  EXPECT_EQ(c.client->Poll(0), 0);
  EXPECT_EQ(c.client->ReadSome(rest, sizeof rest), 0u);
  c.server.reset();
  EXPECT_EQ(c.client->Poll(5000), 1);
  Connection silent("127.0.0.1", 300);  // a peer that stops sending halfway
  EXPECT_EQ(ErrorOf([&] { ReadValue<uint8_t>(*silent.client); }),
            "TCP read stalled: no byte for 300 ms");
  std::string error;
  std::thread reader([&] { error = ErrorOf([&] { ReadValue<uint8_t>(*silent.server); }); });
  silent.server->Shutdown();
  reader.join();
  EXPECT_EQ(error, "Connection shut down");
}

// Addresses print as the UDP suite pins them; a listener on "::" takes IPv4 peers too.
TEST(TcpConnection, ListenerWaitsWithoutTimeOutRefusesOnceClosedAndTakesIpv4OnDualStack) {
  Connection c;
  EXPECT_EQ(c.server->GetRemotePort(), c.client->GetLocalPort());
  const std::string port = std::to_string(c.listener.GetPort());
  TcpConnection pending("127.0.0.1", c.listener.GetPort(), 0, 5000);
  EXPECT_NE(c.listener.Accept(-1), nullptr) << "without a time-out it waits for the connection";
  c.listener.Close();
  EXPECT_EQ(c.listener.Accept(-1), nullptr);
  EXPECT_EQ(ErrorOf([&] { TcpConnection("127.0.0.1", c.listener.GetPort(), 0, 5000); }),
            "Connection to 127.0.0.1:" + port + " failed: Connection refused");
  try {
    Connection dual("::");
    EXPECT_EQ(dual.server->GetRemoteAddress(), "127.0.0.1");
  } catch (const std::runtime_error& e) {
    GTEST_SKIP() << "no IPv6 loopback: " << e.what();
  }
}

}  // namespace
