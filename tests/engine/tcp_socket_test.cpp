// TCP sockets on loopback: buffering across segments, large transfers in both directions
// at once, hostile counts, closed and stalled peers, Poll, addresses and the listener.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "net/TcpListener.h"
#include "orvex/net/Socket.h"

namespace {

using orvex::filesystem::ReadOnlyStream;
using orvex::filesystem::Stream;
using orvex::net::TcpListener;
using orvex::net::TcpSocket;
using Bytes = std::vector<unsigned char>;

constexpr int kWaitMs = 5000;

// A connected pair over loopback.
struct Connection {
  explicit Connection(const std::string& host = "127.0.0.1", unsigned long bufferSize = 0,
                      int clientStallMs = kWaitMs, const std::string& connectHost = "")
      : listener(host, 0) {
    client = std::make_unique<TcpSocket>(connectHost.empty() ? host : connectHost,
                                         listener.GetPort(), bufferSize, clientStallMs);
    server = listener.Accept(kWaitMs);
    if (server == nullptr) throw std::runtime_error("no connection accepted");
  }

  TcpListener listener;
  std::unique_ptr<TcpSocket> client;
  std::unique_ptr<TcpSocket> server;
};

std::string ErrorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "no error";
}

Bytes Pattern(size_t size, unsigned seed) {
  Bytes bytes(size);
  uint32_t x = seed * 2654435761u + 1;
  for (auto& b : bytes) {
    x = x * 1664525u + 1013904223u;
    b = static_cast<unsigned char>(x >> 24);
  }
  return bytes;
}

bool Ipv6LoopbackWorks() {
  try {
    TcpListener probe("::1", 0);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

// ---------------------------------------------------------------------------------------

TEST(TcpStream, FieldsArriveWholeAcrossManySmallSegments) {
  // A 5-byte receive buffer makes every field straddle refills, and the 40-byte block
  // takes the direct path that bypasses the buffer.
  Connection c("127.0.0.1", 5);
  Stream record;
  record.WriteValue<uint8_t>(0x44);
  record.WriteValue<uint64_t>(0x0102030405060708ull);
  record.Write(std::string("a string of some length"));
  Bytes block = Pattern(40, 1);
  Stream embedded;
  embedded.Write(block.data(), block.size());
  record.Write(embedded);
  record.WriteValue<double>(2.5);
  const Bytes bytes(record.GetBuffer(), record.GetBuffer() + record.GetBufferSize());

  std::thread writer([&] {
    for (unsigned char b : bytes) {
      c.server->WriteValue(b);
      c.server->Flush();
    }
  });
  EXPECT_EQ(c.client->ReadValue<uint8_t>(), 0x44);
  EXPECT_EQ(c.client->ReadValue<uint64_t>(), 0x0102030405060708ull);
  std::string text;
  c.client->Read(text);
  EXPECT_EQ(text, "a string of some length");
  ReadOnlyStream sub = c.client->ReadStream();
  EXPECT_EQ(Bytes(sub.GetBuffer(), sub.GetBuffer() + sub.GetBufferSize()), block);
  EXPECT_EQ(c.client->ReadValue<double>(), 2.5);
  writer.join();
  EXPECT_EQ(c.client->GetBytesIn(), bytes.size());
  EXPECT_EQ(c.server->GetBytesOut(), bytes.size());
}

TEST(TcpStream, LargeWritesCrossBothWaysAtOnceWithOneReaderAndOneWriterEach) {
  // Each side flushes several MB while its own reader thread drains the other direction;
  // neither flush can finish unless reads and writes really run side by side.
  Connection c;
  const Bytes up = Pattern(6 << 20, 2);
  const Bytes down = Pattern(5 << 20, 3);
  Bytes gotUp(up.size()), gotDown(down.size());

  std::thread serverReader([&] { c.server->Read(gotUp.data(), gotUp.size()); });
  std::thread clientReader([&] { c.client->Read(gotDown.data(), gotDown.size()); });
  std::thread serverWriter([&] {
    c.server->Write(down.data(), down.size());
    c.server->Flush();
  });
  c.client->Write(up.data(), up.size());
  EXPECT_EQ(c.client->GetBufferSize(), up.size());
  c.client->Flush();
  EXPECT_EQ(c.client->GetBufferSize(), 0u);
  serverWriter.join();
  serverReader.join();
  clientReader.join();
  EXPECT_TRUE(gotUp == up);
  EXPECT_TRUE(gotDown == down);
}

TEST(TcpStream, HostileCountsAreRefusedBeforeAllocation) {
  Connection c;
  c.server->WriteValue<uint32_t>(0xFFFFFFFF);
  c.server->WriteValue<uint32_t>(0xFFFFFFFF);
  c.server->WriteValue<uint32_t>(65536);
  c.server->Flush();
  EXPECT_EQ(ErrorOf([&] {
              std::string text;
              c.client->Read(text);
            }),
            "string of 4294967295 bytes exceeds the limit of 16777216 bytes");
  EXPECT_EQ(ErrorOf([&] { c.client->ReadStream(); }),
            "stream of 4294967295 bytes exceeds the limit of 16777216 bytes");
  EXPECT_EQ(ErrorOf([&] { c.client->ReadString(65535); }),
            "string of 65536 bytes exceeds the limit of 65535 bytes");
}

TEST(TcpStream, ACountAtTheCapWaitsForItsBytesAndFailsCleanlyWhenThePeerLeaves) {
  Connection c;
  c.server->WriteValue<uint32_t>(static_cast<uint32_t>(Stream::kMaxBlockSize));
  c.server->Write(std::string("only a few bytes"));
  c.server->Flush();
  c.server.reset();
  EXPECT_EQ(ErrorOf([&] { c.client->ReadStream(); }), "Connection closed by peer");
}

TEST(TcpStream, EveryCutOfAMessageEndsInARuntimeError) {
  Stream message;
  message.WriteValue<uint8_t>(0x42);
  message.Write(std::string("name"));
  message.WriteValue<uint32_t>(7);
  const Bytes bytes(message.GetBuffer(), message.GetBuffer() + message.GetBufferSize());
  TcpListener listener("127.0.0.1", 0);
  for (size_t cut = 0; cut < bytes.size(); ++cut) {
    SCOPED_TRACE("cut at " + std::to_string(cut));
    TcpSocket client("127.0.0.1", listener.GetPort(), 0, kWaitMs);
    {
      auto server = listener.Accept(kWaitMs);
      ASSERT_NE(server, nullptr);
      server->Write(bytes.data(), cut);
      server->Flush();
    }
    EXPECT_EQ(ErrorOf([&] {
                client.ReadValue<uint8_t>();
                std::string name;
                client.Read(name);
                client.ReadValue<uint32_t>();
              }),
              "Connection closed by peer");
  }
}

// ---------------------------------------------------------------------------------------

TEST(TcpPeer, AClosedPeerFailsReadsAndFlushesWithoutSigpipe) {
  Connection c;
  c.server.reset();
  EXPECT_EQ(c.client->Poll(kWaitMs), 1);
  EXPECT_EQ(ErrorOf([&] { c.client->ReadValue<uint32_t>(); }), "Connection closed by peer");

  // The first bytes may still be taken by the kernel; the peer's reset fails a later flush.
  const Bytes chunk(64 << 10, 0x5A);
  std::string error;
  for (int i = 0; i < 200 && error.empty(); ++i) {
    c.client->Write(chunk.data(), chunk.size());
    try {
      c.client->Flush();
    } catch (const std::runtime_error& e) {
      error = e.what();
    }
  }
  EXPECT_EQ(error, "Connection closed by peer");
  c.client->WriteValue<uint8_t>(2);
  EXPECT_EQ(ErrorOf([&] { c.client->Flush(); }), "Connection closed by peer");
}

TEST(TcpPeer, APeerThatStopsReadingFailsTheFlushAfterTheStallLimit) {
  Connection c("127.0.0.1", 0, 300);
  EXPECT_EQ(c.client->GetStallLimitMs(), 300);
  const Bytes chunk(1 << 20, 0x33);
  std::string error;
  for (int i = 0; i < 512 && error.empty(); ++i) {
    c.client->Write(chunk.data(), chunk.size());
    try {
      c.client->Flush();
    } catch (const std::runtime_error& e) {
      error = e.what();
    }
  }
  EXPECT_EQ(error, "TCP flush stalled: the peer read nothing for 300 ms");
  // The stream was cut mid-message: later flushes fail at once.
  c.client->WriteValue<uint8_t>(2);
  EXPECT_EQ(ErrorOf([&] { c.client->Flush(); }), error);
}

TEST(TcpPeer, ShutdownWakesABlockedReader) {
  Connection c;
  std::string error;
  std::thread reader([&] { error = ErrorOf([&] { c.client->ReadValue<uint64_t>(); }); });
  c.client->Shutdown();
  reader.join();
  EXPECT_EQ(error, "Connection shut down");
}

TEST(TcpPoll, ReportsSilenceBufferedBytesAndEndOfStream) {
  Connection c;
  EXPECT_EQ(c.client->Poll(20), 0);

  c.server->WriteValue<uint64_t>(0x1111111122222222ull);
  c.server->Flush();
  ASSERT_EQ(c.client->Poll(kWaitMs), 1);
  EXPECT_EQ(c.client->ReadValue<uint32_t>(), 0x22222222u);
  // The rest already sits in the receive buffer; the kernel has nothing more.
  EXPECT_EQ(c.client->Poll(0), 1);
  EXPECT_EQ(c.client->ReadValue<uint32_t>(), 0x11111111u);
  EXPECT_EQ(c.client->Poll(0), 0);

  c.server.reset();
  EXPECT_EQ(c.client->Poll(kWaitMs), 1);
  EXPECT_THROW(c.client->ReadValue<uint8_t>(), std::runtime_error);
}

TEST(TcpPoll, ReadSomeTakesOnlyWhatIsWaiting) {
  Connection c;
  unsigned char buffer[16];
  EXPECT_EQ(c.client->ReadSome(buffer, sizeof buffer), 0u);
  c.server->Write(std::string("xy"));
  c.server->Flush();
  ASSERT_EQ(c.client->Poll(kWaitMs), 1);
  unsigned long got = 0;
  while (got < 6) got += c.client->ReadSome(buffer + got, sizeof buffer - got);
  EXPECT_EQ(Bytes(buffer, buffer + got), (Bytes{2, 0, 0, 0, 'x', 'y'}));
}

// ---------------------------------------------------------------------------------------

TEST(TcpAddress, BothEndsReportTheirPeer) {
  Connection c;
  EXPECT_EQ(c.client->GetRemoteAddress(), "127.0.0.1");
  EXPECT_EQ(c.client->GetRemotePort(), c.listener.GetPort());
  EXPECT_EQ(c.server->GetRemoteAddress(), "127.0.0.1");
  EXPECT_EQ(c.server->GetRemotePort(), c.client->GetLocalPort());
}

TEST(TcpAddress, Ipv6AndDualStackPeersPrintNormalised) {
  if (!Ipv6LoopbackWorks()) GTEST_SKIP() << "no IPv6 loopback";
  Connection v6("::1");
  EXPECT_EQ(v6.client->GetRemoteAddress(), "::1");
  EXPECT_EQ(v6.server->GetRemoteAddress(), "::1");

  Connection dual("::", 0, kWaitMs, "127.0.0.1");
  EXPECT_EQ(dual.server->GetRemoteAddress(), "127.0.0.1");
}

TEST(TcpAddress, ARefusedConnectionNamesTheTarget) {
  uint16_t port;
  {
    TcpListener gone("127.0.0.1", 0);
    port = gone.GetPort();
  }
  EXPECT_EQ(ErrorOf([&] { TcpSocket("127.0.0.1", port, 0, kWaitMs); }),
            "Connection to 127.0.0.1:" + std::to_string(port) + " failed: Connection refused");
}

TEST(TcpListening, AcceptTimesOutAndCloseWakesIt) {
  TcpListener listener("127.0.0.1", 0);
  EXPECT_EQ(listener.Accept(20), nullptr);

  std::unique_ptr<TcpSocket> accepted;
  bool returned = false;
  std::thread acceptor([&] {
    accepted = listener.Accept(-1);
    returned = true;
  });
  listener.Close();
  acceptor.join();
  EXPECT_TRUE(returned);
  EXPECT_EQ(accepted, nullptr);
  EXPECT_THROW(TcpSocket("127.0.0.1", listener.GetPort(), 0, kWaitMs), std::runtime_error);
}

}  // namespace
