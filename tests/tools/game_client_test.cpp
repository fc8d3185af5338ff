// The headless game as a whole process: its exit codes and flags, its dump against the
// server's state, the sandbox mod's echoes, and replica-svg's placement of a dump.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ChildProcess.h"
#include "Hex.h"
#include "Messages.h"
#include "ReplicaDiff.h"
#include "Wait.h"
#include "server/GameServer.h"
#include "server/TestServer.h"

namespace {

using nlohmann::json;
using testlib::ChildProcess;
using testlib::TextBytes;
using wire::Bytes;

// Bytes as the dump writes them: two lower-case hex digits each.
std::string HexText(const Bytes& bytes) {
  std::string text = testlib::Hex(bytes);
  text.erase(std::remove_if(text.begin(), text.end(), ::isspace), text.end());
  return text;
}

class GameClientTest : public ::testing::Test {
 protected:
  // game-client against `port`, its dump at Dump(`run`).
  std::unique_ptr<ChildProcess> Start(uint16_t port, std::vector<std::string> extra, int run = 0) {
    std::vector<std::string> args{"--host", "127.0.0.1", "--port", std::to_string(port),
                                  "--dump", Dump(run)};
    args.insert(args.end(), extra.begin(), extra.end());
    return std::make_unique<ChildProcess>(testlib::ToolPath("game-client"), args, dir,
                                          "client" + std::to_string(run));
  }
  std::string Dump(int run = 0) const {
    return (dir / ("dump" + std::to_string(run) + ".json")).string();
  }

  testlib::ScratchDir dir;
};

TEST_F(GameClientTest, ReplicaIsTheServersStateWhenTheServerSaysGoodbye) {
  gameserver::Options options;
  options.entities = 40;
  options.eventsPerSecond = 60;
  options.rate = 50;
  options.freezeAfter = 1.5;
  options.mods = {"DEMO_sandbox", "DEMO_other"};
  options.world = "arena";
  options.mode = 2;
  options.config = "gravity=1";
  options.parentEnvironment = 3;
  options.relativeEnvironment = 4;
  gameserver::GameServer server(options);
  server.Start();
  const auto start = std::chrono::steady_clock::now();
  auto client = Start(server.Port(), {"--quiet", "--environment", "3,4"});
  // Churn, then a still scene: some ticks after the freeze the replica has the final state.
  ASSERT_TRUE(testlib::WaitUntil(
      [&] {
        const gameserver::Counters n = server.GetCounters();
        return n.creates > 0 && n.updates > 0 && n.moves > 0 && n.destroys > 0 &&
               std::chrono::steady_clock::now() - start > std::chrono::milliseconds(2000);
      },
      30000));
  const uint64_t ticks = server.GetCounters().ticks;
  ASSERT_TRUE(testlib::WaitUntil([&] { return server.GetCounters().ticks >= ticks + 10; }));
  server.Stop();
  ASSERT_EQ(client->Wait(), 0) << client->Stderr();
  EXPECT_EQ(client->Stderr(), "");
  EXPECT_EQ(testlib::ReplicaDifferences(server.StateJson(), testlib::ReadFile(Dump())),
            std::vector<std::string>{});

  const gameserver::ClientInfo info = server.Clients().at(0);
  const json dump = json::parse(testlib::ReadFile(Dump()));
  const std::string hello = HexText(wire::ByteWriter().Text(info.username));
  EXPECT_EQ(dump["playerId"], std::to_string(info.playerId));
  EXPECT_EQ(dump["username"], info.username);
  EXPECT_EQ(dump["mods"], json({"DEMO_sandbox", "DEMO_other"}));
  // Each mod's connect message (the user name) came back from the server's echo.
  EXPECT_EQ(dump["moduleMessages"], json({{{"module", "DEMO_sandbox"}, {"payload", hello}},
                                          {{"module", "DEMO_other"}, {"payload", hello}}}));
}

TEST_F(GameClientTest, ExitStatusAndWhatTheRunLeaves) {
  gameserver::Options options;
  options.password = "secret";
  options.entities = 2;
  options.eventsPerSecond = 0;
  gameserver::GameServer server(options);
  server.Start();
  const struct {
    const char* name;
    std::vector<std::string> args;
    bool signal;
    int status;
    std::string err;     // all of standard error when quiet, else a part of it
    std::string ending;  // the dump's; "": no dump
  } rows[] = {
      {"time limit",
       {"--password", "secret", "--seconds", "0.5"},
       false,
       0,
       "game-client: the run ended (time)",
       "time"},
      {"signal", {"--password", "secret", "--quiet"}, true, 0, "", "signal"},
      {"refused", {"--password", "guess", "--quiet"}, false, 2, "Wrong password\n", ""},
      {"refused, the reason last", {}, false, 2, "\nWrong password\n", ""},
      {"token too long",
       {"--token", std::string(65, 't'), "--quiet"},
       false,
       2,
       "Bad Token Length\n",
       ""},
  };
  for (int run = 0; run < int(std::size(rows)); ++run) {
    const auto& row = rows[run];
    SCOPED_TRACE(row.name);
    const size_t welcomed = server.Clients().size();
    auto client = Start(server.Port(), row.args, run);
    if (row.signal) {
      ASSERT_TRUE(testlib::WaitUntil([&] {
        const auto clients = server.Clients();
        return clients.size() > welcomed && clients.back().datagramPort != 0;
      }));
      client->Signal(SIGTERM);
    }
    ASSERT_EQ(client->Wait(), row.status) << client->Stderr();
    const std::string err = client->Stderr();
    const bool quiet = std::find(row.args.begin(), row.args.end(), "--quiet") != row.args.end();
    EXPECT_TRUE(quiet ? err == row.err : err.find(row.err) != std::string::npos) << err;
    EXPECT_EQ(err.find("replica:") != std::string::npos, !quiet && row.status == 0) << err;
    const std::string dump = testlib::ReadFile(Dump(run));
    EXPECT_EQ(dump.empty() ? "" : json::parse(dump)["ending"], row.ending);
  }
}

TEST_F(GameClientTest, BadArgumentsExit64WithOneLine) {
  const std::vector<std::string> to = {"--host", "127.0.0.1", "--port", "7777"};
  auto with = [&](std::vector<std::string> more) {
    more.insert(more.begin(), to.begin(), to.end());
    return more;
  };
  const std::vector<std::pair<const char*, std::vector<std::string>>> rows = {
      {"game-client", {"--host", "127.0.0.1", "--port", "0"}},
      {"game-client", {"--host", "127.0.0.1", "--port", "port"}},
      {"game-client", with({"--fps", "0"})},
      {"game-client", with({"--seconds", "-1"})},
      {"game-client", with({"--environment", "1"})},
      {"game-client", with({"--environment", "1,x"})},
      {"game-client", with({"--environment", "-1,2"})},
      {"game-client", with({"--nonsense"})},
      {"game-client", with({"--simulate", "loss=lots"})},
      {"game-client", with({"--dump", "/nonexistent/dump.json"})},
      {"game-server", {"--rate", "0"}},
      {"game-server", {"--mods", "3d_x"}},
      {"game-server", {"--port", "70000"}},
      {"game-server", {"--nonsense"}},
      {"game-server", {"--simulate", "loss=lots", "--port", "0", "--quiet"}},
      {"replica-svg", {"only-one-argument"}},
  };
  for (const auto& [tool, args] : rows) {
    std::string shown = tool;
    for (const std::string& a : args) shown += " " + a;
    ChildProcess child(testlib::ToolPath(tool), args, dir);
    EXPECT_EQ(child.Wait(), 64) << shown;
    const std::string err = child.Stderr();
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << shown << ": " << err;
  }
  ChildProcess help(testlib::ToolPath("game-client"), {"--help"}, dir);
  EXPECT_EQ(help.Wait(), 0);
  EXPECT_NE(help.Stdout().find("--environment"), std::string::npos);
}

// ---------------------------------------------------------------------------------------
// Against the scripted server: exact bytes both ways.

constexpr const char* kSandbox = "TEST_sandbox";
constexpr const char* kOther = "TEST_other";
constexpr const char* kUser = "tester \xc3\xbc";

class ScriptedServerTest : public GameClientTest {
 protected:
  // Starts the client and answers its hello; a joining client sends one connect record per
  // mod, then a keep-alive datagram.
  void Join(std::vector<std::string> extra = {"--quiet"}) {
    client = Start(server.Port(), extra);
    conn = server.Accept();
    EXPECT_FALSE(conn->ReadHello().hasPassword);
    wire::Welcome welcome = testlib::DefaultWelcome();
    welcome.username = kUser;
    welcome.mods = {kSandbox, kOther};
    welcome.mode = -3;
    welcome.config = {'a', '=', '1', '\0', 'b', '\0'};
    conn->Send(testlib::Welcome(welcome));
    for (const char* mod : {kSandbox, kOther})
      ExpectRecord(testlib::ModuleRecord(mod, wire::ByteWriter().Text(kUser)));
    const auto first = server.NextDatagram(10000);
    ASSERT_TRUE(first.has_value());
    EXPECT_HEX_EQ(first->bytes, testlib::KeepAliveDatagram());
    address = first->address;
    port = first->port;
  }
  // The next TCP record that is not a keep-alive must be exactly `expected`.
  void ExpectRecord(const Bytes& expected) {
    Bytes record = conn->ReadBytes(1, 10000);
    while (record[0] == 0x03) record = conn->ReadBytes(1, 10000);
    EXPECT_HEX_EQ(wire::Join({record, conn->ReadBytes(expected.size() - 1, 10000)}), expected);
  }
  void SendDatagram(const Bytes& bytes) { server.SendDatagram(address, port, bytes); }
  // Says goodbye; the run ends with status 0.
  void Disconnect() {
    conn->Send(testlib::Disconnect());
    EXPECT_EQ(client->Wait(), 0) << client->Stderr();
  }

  testserver::TestServer server;
  std::unique_ptr<testserver::TestConnection> conn;
  std::unique_ptr<ChildProcess> client;
  std::string address;
  uint16_t port = 0;
};

wire::EntityCreate Create(const wire::Id& id, const char* module, const char* text,
                          const wire::Id& parent, glm::dvec3 position, Bytes data) {
  return {id, wire::ModuleID(module), text, parent, position, {0.5, -0.5, 0.5, -0.5}, 1,
          0,  std::move(data)};
}

constexpr const char* kDump = R"({
  "playerId": "1234605616436508552",
  "username": "tester ü",
  "admin": true,
  "error": "",
  "ending": "the server disconnected",
  "world": "arena",
  "mode": -3,
  "mods": ["TEST_sandbox", "TEST_other"],
  "timestamp": 123.25,
  "config": "a=1",
  "entities": [
    {"id": ["2", "1000"], "parent": ["5", "900"], "module": "TEST_sandbox", "text": "ship", "position": ["inf", "-inf", "nan"], "targetPosition": [0.0, 0.0, 0.0], "velocity": [0.0, 0.0, 0.0], "physicsExtra": [0.0, 0.0, 0.0], "orientation": [0.5, -0.5, 0.5, -0.5], "targetOrientation": [1.0, 0.0, 0.0, 0.0], "updateRate": 0.0, "smooth": 1, "forceSnap": 0, "serverDriven": true, "hasTarget": false, "velocityReset": true, "stale": false, "ready": true, "aimId": 3, "sync": ["ff"], "syncLeftOut": 0},
    {"id": ["5", "7"], "parent": ["5", "900"], "module": "TEST_other", "text": "static", "position": [-0.0, 0.33333333333333331, 4.0], "targetPosition": [0.0, 0.0, 0.0], "velocity": [0.0, 0.0, 0.0], "physicsExtra": [0.0, 0.0, 0.0], "orientation": [0.5, -0.5, 0.5, -0.5], "targetOrientation": [1.0, 0.0, 0.0, 0.0], "updateRate": 0.0, "smooth": 1, "forceSnap": 0, "serverDriven": false, "hasTarget": false, "velocityReset": true, "stale": false, "ready": true, "aimId": 2, "sync": [""], "syncLeftOut": 0},
    {"id": ["5", "900"], "parent": ["0", "0"], "module": "TEST_sandbox", "text": "ship", "position": [7.0, 8.0, 9.0], "targetPosition": [-1.5, 2.5, 0.125], "velocity": [1.0, 2.0, 3.0], "physicsExtra": [4.0, 5.0, 6.0], "orientation": [1.0, 0.0, 0.0, 0.0], "targetOrientation": [0.60000002384185791, 0.0, 0.0, 0.80000001192092896], "updateRate": 20.0, "smooth": 0, "forceSnap": 1, "serverDriven": true, "hasTarget": true, "velocityReset": true, "stale": false, "ready": true, "aimId": 1, "sync": ["010203", "aabb"], "syncLeftOut": 0}
  ],
  "moduleMessages": [
    {"module": "TEST_sandbox", "payload": "522d7463702062617272696572"},
    {"module": "TEST_other", "payload": "522d62617272696572"},
    {"module": "TEST_other", "payload": "582d7265636f72646564206f6e6c79"}
  ],
  "moduleMessagesLeftOut": 0
}
)";

// The whole dump, exactly: the game state, entities sorted by id without those that have no
// interface or were destroyed, numbers that read back bit for bit (-0, 1/3, inf, nan), the
// state datagrams' values and the module messages in order of arrival.
TEST_F(ScriptedServerTest, DumpHoldsTheReplicaAndTheGameStateExactly) {
  Join({"--quiet", "--environment", "7,9"});
  const wire::Id ship{5, 900}, rider{5, 7}, odd{2, 1000}, gone{4, 4};
  conn->Send(wire::Join({
      testlib::World("arena"),
      testlib::Admin("admin", 1),
      testlib::Create(Create(ship, kSandbox, "ship", {}, {0.1, -2.5e-300, 1e300}, {1, 2, 3})),
      testlib::Create(Create(rider, kOther, "static", ship, {-0.0, 1.0 / 3, 4}, {})),
      testlib::Create(Create(odd, kSandbox, "ship", ship, {INFINITY, -INFINITY, NAN}, {0xFF})),
      testlib::Create(Create({9, 9}, kSandbox, "nointerface", {}, {}, {})),
      testlib::Create(Create({3, 3}, "TEST_unloaded", "ship", {}, {}, {})),
      testlib::Create(Create(gone, kSandbox, "ship", {}, {}, {})),
      testlib::Update({ship, {}, {7, 8, 9}, {1, 0, 0, 0}, 0, 1, {0xAA, 0xBB}}),
      testlib::Destroy(gone),
      testlib::ModuleMessage(kSandbox, TextBytes("R-tcp barrier")),
  }));
  // The echo shows that the client carried out what came before it, so the datagrams
  // below cannot overtake it.
  ExpectRecord(testlib::ModuleRecord(kSandbox, TextBytes("R-tcp barrier")));
  const wire::StateHeader header{123.25, 1, 7, 9, 1};
  SendDatagram(
      wire::TransformsDatagram(header, {}, {{ship, {-1.5, 2.5, 0.125}, {0.6f, 0, 0, 0.8f}}}));
  SendDatagram(wire::PhysicsDatagram({123.25, 2, 7, 9, 1}, {{ship, {1, 2, 3}, {4, 5, 6}}}));
  SendDatagram(wire::ModuleDatagram(wire::ModuleID(kOther), TextBytes("R-barrier")));
  ExpectRecord(testlib::ModuleRecord(kOther, TextBytes("R-barrier")));
  conn->Send(testlib::ModuleMessage(kOther, TextBytes("X-recorded only")));
  Disconnect();
  EXPECT_EQ(client->Stderr(), "");
  EXPECT_EQ(testlib::ReadFile(Dump()), kDump);
}

TEST_F(ScriptedServerTest, LostConnectionEndsWithStatusOne) {
  Join();
  conn.reset();
  // Echoes to write make the client find the connection gone at its next flushes.
  for (int i = 0; i < 200 && !client->Exited(); ++i) {
    SendDatagram(wire::ModuleDatagram(wire::ModuleID(kSandbox), TextBytes("R are you there")));
    testlib::WaitUntil([&] { return client->Exited(); }, 50);
  }
  EXPECT_EQ(client->Wait(), 1) << client->Stderr();
  const std::string ending = json::parse(testlib::ReadFile(Dump()))["ending"];
  EXPECT_EQ(ending.rfind("lost connection: ", 0), 0u) << ending;
}

TEST_F(GameClientTest, ReplicaSvgPlacesRidersAlongTheirParentsRotation) {
  const double h = std::sqrt(0.5);
  auto entity = [](const char* word1, const char* parent, json position, json orientation) {
    return json{
        {"id", {"1", word1}},   {"parent", {parent[0] ? "1" : "0", parent[0] ? parent : "0"}},
        {"module", kSandbox},   {"text", "ship"},
        {"position", position}, {"orientation", orientation},
        {"serverDriven", true}};
  };
  const json dump = {{"world", "w"},
                     {"entities",
                      {entity("1", "", {10.0, 0.0, 0.0}, {h, 0.0, 0.0, h}),  // a quarter turn
                       entity("2", "1", {1.0, 0.0, 0.0}, {1.0, 0.0, 0.0, 0.0}),
                       entity("3", "99", {-10.0, 0.0, 0.0}, {1.0, 0.0, 0.0, 0.0}),
                       entity("4", "", {"nan", 0.0, 0.0}, {1.0, 0.0, 0.0, 0.0})}}};
  std::ofstream(dir / "in.json") << dump.dump();
  ChildProcess tool(testlib::ToolPath("replica-svg"),
                    {(dir / "in.json").string(), (dir / "out.svg").string()}, dir);
  ASSERT_EQ(tool.Wait(), 0) << tool.Stderr();
  EXPECT_NE(tool.Stdout().find("1 with a parent outside the replica"), std::string::npos)
      << tool.Stdout();

  const std::string svg = testlib::ReadFile(dir / "out.svg");
  std::map<std::string, std::pair<double, double>> at;
  const std::regex circle(
      R"re(<circle cx="([-0-9.]+)" cy="([-0-9.]+)"[^>]*><title>[^<]* (\d+:\d+)</title>)re");
  for (auto it = std::sregex_iterator(svg.begin(), svg.end(), circle); it != std::sregex_iterator();
       ++it) {
    at[(*it)[3]] = {std::stod((*it)[1]), std::stod((*it)[2])};
  }
  ASSERT_EQ(at.size(), 3u) << svg;  // the non-finite one is not drawn
  // The rider's offset (1, 0) turned a quarter: straight above its parent (SVG y grows down).
  EXPECT_NEAR(at["1:2"].first, at["1:1"].first, 0.01);
  EXPECT_LT(at["1:2"].second, at["1:1"].second);
  // The orphan stays at its own position, left of both; one line joins rider and parent.
  EXPECT_LT(at["1:3"].first, at["1:1"].first);
  size_t lines = 0;
  for (size_t i = svg.find("<line "); i != std::string::npos; i = svg.find("<line ", i + 1))
    ++lines;
  EXPECT_EQ(lines, 1u);
}

}  // namespace
