// The reference server against clients made of bare sockets: what it sends, byte for byte
// as the wire codec writes it, how it keeps and drops its clients, and its command line.
#include "server/GameServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include <nlohmann/json.hpp>

#include "ChildProcess.h"
#include "Hex.h"
#include "Messages.h"
#include "UdpInbox.h"
#include "Wait.h"
#include "orvex/net/Socket.h"

namespace {

using gameserver::GameServer;
using testlib::Hello;
using wire::Bytes;

gameserver::Options Still(size_t entities) {
  gameserver::Options options;
  options.entities = entities;
  options.eventsPerSecond = 0;
  options.rate = 50;
  return options;
}

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
  orvex::net::TcpSocket tcp;
};

// Reads what a welcomed client is sent first and checks it byte for byte: the welcome with
// the identity the server keeps for it, the world, the admin status and one create per
// entity of the scene. Returns the client's bookkeeping.
gameserver::ClientInfo Join(Player& player, const GameServer& server, bool admin = false) {
  const Bytes first = player.Read(1);
  const gameserver::ClientInfo info = server.Clients().back();
  const gameserver::Options& o = server.GetOptions();
  std::vector<std::string> mods;
  for (const std::string& mod : o.mods) mods.push_back(wire::ModuleID(mod).String());
  Bytes expected =
      wire::Join({testlib::Welcome({1, info.serverTag, info.playerId, info.username, mods, o.mode,
                                    wire::ConfigText(o.config)}),
                  testlib::World(o.world), testlib::Admin(admin ? "admin" : "player", admin)});
  for (const gameserver::EntityState& e : server.Snapshot()) {
    const Bytes data = wire::ByteWriter().U32(e.serial).U32(e.revision);
    expected =
        wire::Join({expected, testlib::Create({e.id, wire::ModuleID(e.module), e.text, e.parent,
                                               e.position, e.orientation, 1, 0, data})});
  }
  EXPECT_HEX_EQ(wire::Join({first, player.Read(expected.size() - 1)}), expected);
  return info;
}

TEST(GameServerHandshake, WelcomesEachClientWithItsOwnIdentityThenTheSceneParentsFirst) {
  gameserver::Options options = Still(24);
  options.mods = {"DEMO_sandbox", "test_other"};
  options.world = "moon";
  options.mode = 5;
  options.config = "gravity=1.5";
  options.adminToken = "root";
  GameServer server(options);
  server.Start();
  Player first(server, Hello("token"));
  const gameserver::ClientInfo a = Join(first, server);
  Player second(server, Hello("root"));
  const gameserver::ClientInfo b = Join(second, server, true);
  EXPECT_NE(a.playerId, b.playerId);
  EXPECT_NE(a.username, b.username);

  std::unordered_set<wire::Id> seen;
  std::set<std::string> texts;
  size_t children = 0;
  for (const gameserver::EntityState& e : server.Snapshot()) {
    EXPECT_TRUE(e.parent.IsNull() || seen.count(e.parent)) << "parent announced after its child";
    children += !e.parent.IsNull();
    seen.insert(e.id);
    texts.insert(e.text);
  }
  EXPECT_GT(children, 0u);
  EXPECT_EQ(texts, (std::set<std::string>{"ship", "static", "nointerface"}));
}

TEST(GameServerHandshake, RefusesWithAReason) {
  gameserver::Options options = Still(0);
  options.password = "sesame";
  options.helloTimeoutMs = 300;
  GameServer server(options);
  server.Start();
  const struct {
    const char* name;
    Bytes hello;
    std::string reason;  // empty: welcomed
  } rows[] = {
      {"no password", Hello("t"), "Wrong password"},
      {"wrong password", Hello("t", "open"), "Wrong password"},
      {"token of 64", Hello(std::string(64, 't'), "sesame"), ""},
      {"token of 65", Hello(std::string(65, 't'), "sesame"),
       "Malformed hello: hello token of 65 bytes is over the limit of 64 bytes"},
      {"not the magic", wire::ByteWriter().U8(7).Chars("TOVRANE?").U32(1).Text("t"),
       "Not a game client"},
      {"version 2", wire::ByteWriter().U8(7).Chars("TOVRANE!").U32(2).Text("t"),
       "Unsupported hello version 2"},
      {"no hello", {}, "No hello"},
  };
  for (const auto& row : rows) {
    Player player(server, row.hello);
    if (row.reason.empty()) {
      EXPECT_EQ(player.Read(1), Bytes{1}) << row.name;
    } else {
      EXPECT_HEX_EQ(player.UntilClosed(), testlib::Refusal(row.reason)) << row.name;
    }
  }
  EXPECT_EQ(server.GetCounters().clientsRefused, 6u);
}

TEST(GameServerClients, EchoesModuleMessagesOnTheirChannelAndStreamsStateToTheAddressLearnt) {
  for (const char* host : {"127.0.0.1", "::"}) {
    SCOPED_TRACE(host);
    gameserver::Options options = Still(2);
    options.host = host;
    GameServer server(options);
    try {
      server.Start();
    } catch (const std::runtime_error& e) {
      GTEST_SKIP() << "no dual-stack socket here: " << e.what();
    }
    Player player(server, Hello("t"));
    const gameserver::ClientInfo info = Join(player, server);
    const wire::Id entity{0x1111, 0x2222};
    player.Send(wire::Join({testlib::ActionRecord(entity, {9}),
                            {0x03},
                            testlib::ActionRecord(entity, {7, 7}),
                            testlib::ModuleRecord("TEST_echo", {1, 2, 3})}));
    // Messages are taken in order: once the echo is back, both actions were logged.
    const Bytes echo = testlib::ModuleMessage("TEST_echo", {1, 2, 3});
    EXPECT_HEX_EQ(player.Read(echo.size()), echo);
    EXPECT_EQ(server.Clients().at(0).entityActions, 2u);
    EXPECT_EQ(server.Clients().at(0).lastActionEntity, entity);
    EXPECT_EQ(server.Clients().at(0).lastActionPayload, (Bytes{7, 7}));
    EXPECT_EQ(server.GetCounters().tcpKeepAlives, 1u);

    // A header with another tag names nobody; the right one gets the state and the echo.
    testlib::UdpInbox inbox(server.Port());
    inbox.Send(
        wire::Join({testlib::ClientDatagramHeader(1, info.serverTag + 1, info.playerId), {0x03}}));
    ASSERT_TRUE(testlib::WaitUntil([&] { return server.GetCounters().datagramsRejected == 1; }));
    EXPECT_EQ(server.GetCounters().datagramsOut, 0u);
    inbox.Send(wire::Join({testlib::ClientDatagramHeader(1, info.serverTag, info.playerId),
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
    EXPECT_EQ(server.Clients().at(0).moduleDatagrams, 1u);
  }
}

TEST(GameServerClients, ClientsLeaveTheirWay) {
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
    Player player(server, Hello("t"));
    Join(player, server);
    player.Send(row.send);
    EXPECT_HEX_EQ(player.UntilClosed(), row.rest);
    ASSERT_TRUE(testlib::WaitUntil([&] { return !server.Clients().at(0).connected; }));
    EXPECT_EQ(server.Clients().at(0).dropReason, row.reason);
  }
}

TEST(GameServerCommandLine, PrintsThePortFirstAndWritesTheFinalState) {
  testlib::ScratchDir dir;
  testlib::ChildProcess server(testlib::ToolPath("game-server"),
                               {"--port", "0", "--seconds", "0.3", "--quiet", "--entities", "5",
                                "--final-state", (dir / "state.json").string()},
                               dir);
  ASSERT_EQ(server.Wait(), 0) << server.Stderr();
  const int port = std::stoi(server.Stdout());
  EXPECT_EQ(server.Stdout(), std::to_string(port) + "\n");
  const nlohmann::json state = nlohmann::json::parse(testlib::ReadFile(dir / "state.json"));
  EXPECT_EQ(state["port"], port);
  EXPECT_EQ(state["entities"].size(), 5u);
}

}  // namespace
