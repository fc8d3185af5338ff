// game-server against bare-socket clients: what it sends, and how it keeps and drops them.
#include "server/GameServer.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <unordered_set>
#include <vector>

#include "Hex.h"
#include "Messages.h"
#include "UdpInbox.h"
#include "Wait.h"
#include "net/TcpConnection.h"
#include "orvex/net/Socket.h"
#include "server/Replay.h"

namespace {

using gameserver::GameServer;
using testlib::Hello;
using wire::Bytes;

// A client's TCP connection; reads throw when nothing comes for 10 s.
struct Player {
  Player(const GameServer& server, const Bytes& hello) : tcp("127.0.0.1", server.Port(), 0, 10000) {
    Send(hello);
  }
  void Send(const Bytes& bytes) {
    tcp.Write(bytes.data(), bytes.size());
    tcp.Flush();
  }
  Bytes Read(size_t size) {
    Bytes bytes(size);
    tcp.Read(bytes.data(), size);
    return bytes;
  }
  Bytes UntilClosed() {
    Bytes bytes;
    try {
      for (;;) bytes.push_back(Read(1)[0]);
    } catch (const std::exception&) {
      return bytes;
    }
  }
  // What a welcomed client is sent first, byte for byte: the welcome with the identity the
  // server keeps for it, the world, the admin status and one create per entity.
  gameserver::ClientInfo Join(const GameServer& server, bool admin = false) {
    const Bytes first = Read(1);
    const gameserver::ClientInfo info = server.Clients().back();
    const gameserver::Options& o = server.GetOptions();
    std::vector<std::string> mods;
    for (const std::string& mod : o.mods) mods.push_back(wire::ModuleID(mod).String());
    Bytes expected =
        wire::Join({testlib::Welcome({1, info.serverTag, info.playerId, info.username, mods, o.mode,
                                      wire::ConfigText(o.config)}),
                    testlib::World(o.world), testlib::Admin(admin ? "admin" : "player", admin)});
    for (const gameserver::EntityState& e : server.Snapshot()) {
      expected = wire::Join(
          {expected, testlib::Create({e.id, wire::ModuleID(e.module), e.text, e.parent, e.position,
                                      e.orientation, 1, 0,
                                      wire::ByteWriter().U32(e.serial).U32(e.revision)})});
    }
    EXPECT_HEX_EQ(wire::Join({first, Read(expected.size() - 1)}), expected);
    return info;
  }
  orvex::net::TcpConnection tcp;
};

gameserver::Options Still(size_t entities) {
  gameserver::Options options;
  options.entities = entities;
  options.eventsPerSecond = 0;
  options.password = "sesame";
  options.helloTimeoutMs = 300;
  return options;
}

TEST(GameServer, WelcomesEachClientThenEchoesAndStreamsStateToTheAddressLearnt) {
  gameserver::Options options = Still(24);
  options.mods = {"DEMO_sandbox", "test_other"};
  options.world = "moon";
  options.config = "gravity=1.5";
  options.adminToken = "root";
  GameServer server(options);
  server.Start();
  Player first(server, Hello("token", "sesame"));
  const gameserver::ClientInfo a = first.Join(server);
  Player second(server, Hello("root", "sesame"));
  const gameserver::ClientInfo b = second.Join(server, true);
  EXPECT_NE(a.playerId, b.playerId);
  EXPECT_NE(a.username, b.username);
  std::unordered_set<wire::Id> seen;
  for (const gameserver::EntityState& e : server.Snapshot()) {
    if (!e.parent.IsNull()) {
      EXPECT_EQ(seen.count(e.parent), 1u) << "parent announced after its child";
    }
    seen.insert(e.id);
  }
  const wire::Id entity{0x1111, 0x2222};
  first.Send(wire::Join({testlib::ActionRecord(entity, {9}),
                         {0x03},
                         testlib::ActionRecord(entity, {7, 7}),
                         testlib::ModuleRecord("TEST_echo", {1, 2, 3})}));
  // Messages are taken in order: once the echo is back, both actions were logged.
  const Bytes echo = testlib::ModuleMessage("TEST_echo", {1, 2, 3});
  EXPECT_HEX_EQ(first.Read(echo.size()), echo);
  const gameserver::ClientInfo logged = server.Clients().at(0);
  EXPECT_EQ(logged.figures[gameserver::kEntityActions], 2u);
  EXPECT_EQ(logged.lastActionEntity, entity);
  EXPECT_EQ(logged.lastActionPayload, (Bytes{7, 7}));
  EXPECT_EQ(server.GetCounters().tcpKeepAlives, 1u);

  // A header with another tag names nobody; the right one gets the state and the echo.
  testlib::UdpInbox inbox(server.Port());
  inbox.Send(wire::Join({testlib::ClientDatagramHeader(1, a.serverTag + 1, a.playerId), {0x03}}));
  ASSERT_TRUE(testlib::WaitUntil([&] { return server.GetCounters().datagramsRejected == 1; }));
  EXPECT_EQ(server.GetCounters().datagramsOut, 0u);
  inbox.Send(wire::Join({testlib::ClientDatagramHeader(1, a.serverTag, a.playerId),
                         testlib::ModuleRecord("TEST_echo", {4, 5})}));
  const Bytes datagramEcho = wire::ModuleDatagram(wire::ModuleID("TEST_echo"), {4, 5});
  ASSERT_TRUE(inbox.WaitUntil([&](const std::vector<Bytes>& all) {
    auto has = [&](uint8_t code) {
      return std::any_of(all.begin(), all.end(),
                         [&](const Bytes& d) { return d.size() > 8 && d[8] == code; });
    };
    return has(0x44) && has(0x45) && std::find(all.begin(), all.end(), datagramEcho) != all.end();
  }));
  EXPECT_EQ(server.Clients().at(0).datagramAddress, "127.0.0.1");
}

TEST(GameServer, RefusesWithAReason) {
  GameServer server(Still(0));
  server.Start();
  const wire::ByteWriter hello = wire::ByteWriter().U8(7).Chars("TOVRANE!");
  const struct {
    const char* name;
    Bytes hello;
    std::string reason;  // empty: welcomed
  } rows[] = {
      {"no password", Hello("t"), "Wrong password"},
      {"token of 64", Hello(std::string(64, 't'), "sesame"), ""},
      {"token of 65", Hello(std::string(65, 't'), "sesame"),
       "Malformed hello: hello token of 65 bytes is over the limit of 64 bytes"},
      {"not the magic", wire::ByteWriter().U8(7).Chars("TOVRANE?").U32(1).Text("t"),
       "Not a game client"},
      {"version 2", wire::ByteWriter(hello).U32(2).Text("t"), "Unsupported hello version 2"},
      {"no hello", {}, "No hello"},
  };
  for (const auto& row : rows) {
    Player player(server, row.hello);
    const Bytes reply = row.reason.empty() ? player.Read(1) : player.UntilClosed();
    EXPECT_HEX_EQ(reply, row.reason.empty() ? Bytes{1} : testlib::Refusal(row.reason)) << row.name;
  }
  EXPECT_EQ(server.GetCounters().clientsRefused, 5u);
}

TEST(GameServer, ClientsLeaveTheirWay) {
  const struct {
    const char* name;
    int timeoutMs;
    Bytes send, rest;  // what the client sends after the join, what it is sent after that
    std::string reason;
  } rows[] = {
      {"silent: told and dropped", 300, {}, testlib::Disconnect(), "timed out"},
      {"disconnect", 60000, {0x02}, {}, "left"},
      {"no client message", 60000, {0x44}, {}, "unknown client message code 0x44"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    gameserver::Options options = Still(0);
    options.clientTimeoutMs = row.timeoutMs;
    GameServer server(options);
    server.Start();
    Player player(server, Hello("t", "sesame"));
    player.Join(server);
    player.Send(row.send);
    EXPECT_HEX_EQ(player.UntilClosed(), row.rest);
    ASSERT_TRUE(testlib::WaitUntil([&] { return !server.Clients().at(0).connected; }));
    EXPECT_EQ(server.Clients().at(0).dropReason, row.reason);
  }
}

// The replay keeps pace with its client by what waits unread in the client's UDP socket, as
// the kernel's tables say: three datagrams sent and none read are there, and gone once read.
TEST(Replay, SeesWhatWaitsUnreadInAClientsSocket) {
  const int client = socket(AF_INET, SOCK_DGRAM, 0), sender = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(getsockname(client, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const uint16_t port = ntohs(address.sin_port);
  EXPECT_EQ(gameserver::UnreadDatagramBytes(port), 0u);
  const char payload[100] = {};
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(sendto(sender, payload, sizeof payload, 0, reinterpret_cast<sockaddr*>(&address),
                     sizeof address),
              100);
  }
  EXPECT_GE(gameserver::UnreadDatagramBytes(port).value_or(0), 300u);
  char buffer[200];
  for (int i = 0; i < 3; ++i) ASSERT_EQ(recv(client, buffer, sizeof buffer, 0), 100);
  EXPECT_EQ(gameserver::UnreadDatagramBytes(port), 0u);
  close(client), close(sender);
}

}  // namespace
