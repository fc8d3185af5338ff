// The test server against a raw client on real loopback sockets: the reads that client
// tests rely on (hello, exact bytes, whole messages, closing) and datagrams both ways.
#include "server/TestServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "orvex/net/Socket.h"

namespace {

using testserver::TestConnection;
using testserver::TestServer;
using wire::Bytes;
using wire::ByteWriter;

struct Raw {
  explicit Raw(TestServer& server)
      : tcp(std::make_unique<orvex::net::TcpSocket>(
            server.Host() == "::" ? "127.0.0.1" : server.Host(), server.Port(), 0, 5000)),
        connection(server.Accept()) {}

  void Send(const Bytes& bytes) {
    tcp->Write(bytes.data(), bytes.size());
    tcp->Flush();
  }

  std::unique_ptr<orvex::net::TcpSocket> tcp;
  std::unique_ptr<TestConnection> connection;
};

Bytes Hello(const std::string& token) {
  return ByteWriter().U8(7).Chars("TOVRANE!").U32(1).Text(token);
}

TEST(TestServerConnection, ReadsAHelloWhosePasswordFollowsLater) {
  TestServer server;
  Raw raw(server);
  raw.Send(Hello("tok"));
  std::thread late([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    raw.Send(ByteWriter().U8(6).Text("pw").U8(0x03));
  });
  const wire::Hello hello = raw.connection->ReadHello(5000);
  late.join();
  EXPECT_EQ(hello.token, "tok");
  EXPECT_TRUE(hello.hasPassword);
  EXPECT_EQ(hello.password, "pw");
  // The byte after the hello is kept for the next read.
  EXPECT_EQ(raw.connection->ReadMessage().code, 0x03);
}

TEST(TestServerConnection, HelloWithoutPasswordEndsAfterTheWait) {
  TestServer server;
  Raw raw(server);
  raw.Send(Hello(""));
  const wire::Hello hello = raw.connection->ReadHello(50);
  EXPECT_FALSE(hello.hasPassword);
  EXPECT_TRUE(raw.connection->Pending().empty());
}

TEST(TestServerConnection, MessagesArriveWholeAcrossSplitWrites) {
  TestServer server;
  Raw raw(server);
  const Bytes action = ByteWriter().U8(0x43).Entity(wire::Id{1, 2}).Block({5, 6, 7});
  std::thread pieces([&] {
    for (uint8_t byte : action) {
      raw.Send({byte});
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  const wire::ClientMessage message = raw.connection->ReadMessage();
  pieces.join();
  EXPECT_EQ(message.code, 0x43);
  EXPECT_EQ(message.payload, (Bytes{5, 6, 7}));
}

TEST(TestServerConnection, BoundedReadsThrowInsteadOfHanging) {
  TestServer server;
  Raw raw(server);
  raw.Send({1, 2, 3});
  EXPECT_EQ(raw.connection->ReadBytes(2), (Bytes{1, 2}));
  EXPECT_THROW(raw.connection->ReadBytes(2, 100), std::runtime_error);
  EXPECT_EQ(raw.connection->ReadAvailable(50, 1000), (Bytes{3}));
  EXPECT_THROW(raw.connection->ReadMessage(100), std::runtime_error);
  // A byte that no client message starts with is an error, not a wait.
  raw.Send({0x44});
  EXPECT_THROW(raw.connection->ReadMessage(), std::runtime_error);
}

TEST(TestServerConnection, SendsExactBytesAndSeesTheClientClose) {
  TestServer server;
  Raw raw(server);
  raw.connection->Send({0x04, 0x01, 0x00, 0x00, 0x00, 'w'});
  unsigned char got[6];
  raw.tcp->Read(got, sizeof got);
  EXPECT_EQ(Bytes(got, got + 6), (Bytes{0x04, 0x01, 0x00, 0x00, 0x00, 'w'}));
  EXPECT_FALSE(raw.connection->WaitClosed(50));
  raw.Send({0x02});
  raw.tcp.reset();
  EXPECT_TRUE(raw.connection->WaitClosed(5000));
  EXPECT_EQ(raw.connection->Pending(), (Bytes{0x02}));
}

TEST(TestServerConnection, CloseEndsTheClientsReads) {
  TestServer server;
  Raw raw(server);
  raw.connection->Close();
  unsigned char byte;
  EXPECT_THROW(raw.tcp->Read(&byte, 1), std::runtime_error);
}

TEST(TestServerConnection, ReaderRefusesAHostileCountBeforeAllocating) {
  TestServer server;
  Raw raw(server);
  raw.Send(ByteWriter().U8(0x7F).Module(wire::ModuleID("A_b")).U32(0xFFFFFFFF));
  EXPECT_THROW(wire::ReadClientMessage(raw.connection->Tcp()), std::runtime_error);
}

// ---------------------------------------------------------------------------------------

// A client-form UDP socket whose datagrams are collected.
struct Inbox {
  explicit Inbox(const std::string& host, uint16_t port) : udp(host, port, 1400) {
    udp.Receive(
        [this](const orvex::net::UdpSocket& socket, orvex::filesystem::ReadOnlyStream&& datagram) {
          std::lock_guard<std::mutex> lock(mutex);
          senders.push_back(socket.GetIncomingAddress());
          received.push_back(wire::BytesOf(datagram));
          arrived.notify_all();
        });
  }
  ~Inbox() { udp.StopReceiving(); }

  bool WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    return arrived.wait_for(lock, std::chrono::seconds(5),
                            [&] { return received.size() >= count; });
  }

  orvex::net::UdpSocket udp;
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<std::string> senders;
  std::vector<Bytes> received;
};

void ExchangeDatagrams(const std::string& serverHost, const std::string& clientTarget) {
  TestServer server(serverHost);
  Inbox client(clientTarget, server.Port());
  const Bytes keepAlive = ByteWriter().U8(7).U16(1).U16(2).U64(3).U8(3);
  client.udp.Write(keepAlive.data(), keepAlive.size());
  client.udp.Flush();
  auto datagram = server.NextDatagram();
  ASSERT_TRUE(datagram);
  EXPECT_EQ(datagram->bytes, keepAlive);
  EXPECT_EQ(datagram->address, clientTarget);
  EXPECT_EQ(datagram->port, client.udp.GetLocalPort());
  EXPECT_FALSE(server.NextDatagram(50));

  server.SendDatagram(datagram->address, datagram->port, {1, 2, 3});
  ASSERT_TRUE(client.WaitFor(1));
  EXPECT_EQ(client.received[0], (Bytes{1, 2, 3}));
  EXPECT_EQ(client.senders[0], clientTarget);
}

TEST(TestServerDatagrams, BothWaysOnIpv4) {
  ExchangeDatagrams("127.0.0.1", "127.0.0.1");
}

TEST(TestServerDatagrams, BothWaysOnIpv6AndDualStack) {
  try {
    orvex::net::UdpSocket probe(orvex::net::UdpSocket::BindTag{}, "::1", 0, 1400);
  } catch (const std::exception&) {
    GTEST_SKIP() << "no IPv6 loopback here";
  }
  ExchangeDatagrams("::1", "::1");
  ExchangeDatagrams("::", "127.0.0.1");
}

TEST(TestServerDatagrams, ForeignSenderComesFromAnotherAddress) {
  TestServer server;
  Inbox client("127.0.0.1", server.Port());
  const Bytes hello = {7};
  client.udp.Write(hello.data(), hello.size());
  client.udp.Flush();
  auto datagram = server.NextDatagram();
  ASSERT_TRUE(datagram);
  server.SendDatagramFrom("127.0.0.2", datagram->address, datagram->port, {9});
  ASSERT_TRUE(client.WaitFor(1));
  EXPECT_EQ(client.senders[0], "127.0.0.2");
  EXPECT_EQ(client.received[0], Bytes{9});
}

TEST(TestServerDatagrams, TcpAndUdpShareTheFreePort) {
  TestServer a, b;
  EXPECT_NE(a.Port(), 0);
  EXPECT_NE(a.Port(), b.Port());
  EXPECT_EQ(a.Udp().GetLocalPort(), a.Port());
}

}  // namespace
