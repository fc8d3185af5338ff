// game-client and replica-svg as whole processes: endings, flags, dump, picture placement.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "ChildProcess.h"
#include "Hex.h"
#include "Messages.h"
#include "ReplicaDiff.h"
#include "TestServer.h"
#include "Wait.h"
#include "common/Recording.h"
#include "server/GameServer.h"

namespace {

using nlohmann::json;
using testlib::ChildProcess;
using testlib::TextBytes;
using wire::Bytes;

constexpr const char* kSandbox = "TEST_sandbox";
constexpr const char* kOther = "TEST_other";
constexpr const char* kUser = "tester \xc3\xbc";

class GameClientTest : public ::testing::Test {
 protected:
  // game-client against the scripted server, its dump at Dump(`run`).
  std::unique_ptr<ChildProcess> Start(std::vector<std::string> args, int run = 0) {
    args.insert(args.end(), {"--port", std::to_string(server.Port()), "--dump", Dump(run)});
    return std::make_unique<ChildProcess>(testlib::ToolPath("game-client"), args, dir,
                                          "client" + std::to_string(run));
  }
  std::string Dump(int run = 0) const {
    return (dir / ("dump" + std::to_string(run) + ".json")).string();
  }
  // The next TCP record that is not a keep-alive must be exactly `expected`.
  void ExpectRecord(const Bytes& expected) {
    Bytes record = conn->ReadBytes(1, 10000);
    while (record[0] == 0x03) record = conn->ReadBytes(1, 10000);
    EXPECT_HEX_EQ(wire::Join({record, conn->ReadBytes(expected.size() - 1, 10000)}), expected);
  }

  testlib::ScratchDir dir;
  testserver::TestServer server;
  std::unique_ptr<testserver::TestConnection> conn;
  std::unique_ptr<ChildProcess> client;
};

TEST_F(GameClientTest, ReplicaIsTheServersStateWhenTheServerSaysGoodbye) {
  gameserver::Options options;
  options.entities = 40;
  options.eventsPerSecond = 60;
  options.rate = 50;
  options.freezeAfter = 1.5;
  options.mods = {"DEMO_sandbox", "DEMO_other"};
  options.parentEnvironment = 3;
  options.relativeEnvironment = 4;
  gameserver::GameServer game(options);
  game.Start();
  const auto start = std::chrono::steady_clock::now();
  ChildProcess client(
      testlib::ToolPath("game-client"),
      {"--port", std::to_string(game.Port()), "--quiet", "--environment", "3,4", "--dump", "-"},
      dir);
  // Churn, then a still scene: some ticks after the freeze the replica has the final state.
  ASSERT_TRUE(testlib::WaitUntil(
      [&] {
        const gameserver::Counters n = game.GetCounters();
        return n.creates > 0 && n.updates > 0 && n.moves > 0 && n.destroys > 0 &&
               std::chrono::steady_clock::now() - start > std::chrono::milliseconds(2000);
      },
      30000));
  const uint64_t ticks = game.GetCounters().ticks;
  ASSERT_TRUE(testlib::WaitUntil([&] { return game.GetCounters().ticks >= ticks + 10; }));
  game.Stop();
  ASSERT_EQ(client.Wait(), 0) << client.Stderr();
  EXPECT_EQ(client.Stderr(), "");
  EXPECT_EQ(testlib::ReplicaDifferences(game.StateJson(), client.Stdout()),
            std::vector<std::string>{});
}

// 300,000 entities, the scale game-client is built for (a tenth of it under the sanitizers,
// which would make it minutes long): the dump, written after the goodbye, holds every entity
// the client keeps, one a line, in the order of their ids, and every id reads back from its
// words.
TEST_F(GameClientTest, DumpOfAFullReplicaHoldsEveryEntityOneALine) {
  gameserver::Options options;
  options.entities = ORVEX_SANITIZED ? 30000 : 300000;
  options.rate = 2;
  options.eventsPerSecond = 0;
  gameserver::GameServer game(options);
  game.Start();
  size_t held = 0;
  for (const gameserver::EntityState& e : game.Snapshot()) held += e.text != "nointerface";
  const std::string stats = (dir / "stats.jsonl").string();
  ChildProcess client(
      testlib::ToolPath("game-client"),
      {"--port", std::to_string(game.Port()), "--quiet", "--stats", stats, "--dump", Dump()}, dir);
  // The goodbye would come after the creations anyway; waiting for them keeps the server's
  // grace period from closing the connection while the client still reads them.
  const std::string whole = "\"entities\":" + std::to_string(held) + ",";
  ASSERT_TRUE(testlib::WaitUntil(
      [&] { return testlib::ReadFile(stats).find(whole) != std::string::npos; }, 120000))
      << "the client never held " << held << " entities";
  game.Stop();
  ASSERT_EQ(client.Wait(), 0) << client.Stderr();
  std::ifstream dump(Dump());
  size_t lines = 0;
  std::pair<uint64_t, uint64_t> previous{0, 0};
  for (std::string line; std::getline(dump, line);) {
    if (line.rfind(R"(    {"id":)", 0) != 0) continue;
    if (line.back() == ',') line.pop_back();
    const json entity = json::parse(line);
    const game::entity::Id id{std::stoull(entity["words"][0].get<std::string>()),
                              std::stoull(entity["words"][1].get<std::string>())};
    ASSERT_EQ(entity["id"], id.ToString()) << "line " << lines;
    ASSERT_LT(previous, std::make_pair(id.word0, id.word1)) << "line " << lines;
    previous = {id.word0, id.word1};
    ++lines;
  }
  EXPECT_EQ(lines, held);
}

TEST_F(GameClientTest, EndingsExitStatusAndWhatTheRunLeaves) {
  const Bytes w = testlib::Welcome(), cut = wire::Join({w, {0x04, 9}}),
              no = testlib::Refusal("Wrong password");
  const std::string lost = "lost connection: the receiving thread ended", long65(65, 't');
  const struct {
    const char* name;
    std::vector<std::string> args;
    std::optional<Bytes> reply;  // to the hello; none: the client never connects
    char then;                   // 'c': close, 's': SIGTERM once the client runs
    int status;
    std::string err;     // all of standard error when quiet, else a part of it
    std::string ending;  // the dump's; "": no dump
  } rows[] = {
      {"time limit", {"--seconds", "0.5"}, w, ' ', 0, "the run ended (time)", "time"},
      {"signal", {"--quiet"}, w, 's', 0, "", "signal"},
      {"a message cut by the close", {}, cut, 'c', 1, lost, lost},
      {"refused", {"--password", "guess", "--quiet"}, no, ' ', 2, "Wrong password\n", ""},
      {"signal while waiting for the welcome", {"--quiet"}, Bytes{}, 's', 143, "", ""},
      {"token too long, reason last", {"--token", long65}, {}, ' ', 2, ":\nBad Token Length\n", ""},
  };
  for (int run = 0; run < int(std::size(rows)); ++run) {
    const auto& row = rows[run];
    SCOPED_TRACE(row.name);
    server.DiscardDatagrams();
    client = Start(row.args, run);
    if (row.reply) {
      conn = server.Accept();
      conn->ReadHello();
      conn->Send(*row.reply);
      // The first datagram comes once the constructor has returned.
      if (!row.reply->empty() && row.then == 's') {
        ASSERT_TRUE(server.NextDatagram(10000));
      }
      if (row.then == 'c') conn.reset();
    }
    if (row.then == 's') client->Signal(SIGTERM);
    ASSERT_EQ(client->Wait(), row.status) << client->Stderr();
    const std::string err = client->Stderr();
    const bool quiet = !row.args.empty() && row.args.back() == "--quiet";
    EXPECT_TRUE(quiet ? err == row.err : err.find(row.err) != std::string::npos) << err;
    EXPECT_EQ(err.find("replica:") != std::string::npos, !quiet && row.status < 2) << err;
    const std::string dump = testlib::ReadFile(Dump(run));
    EXPECT_EQ(dump.empty() ? "" : json::parse(dump)["ending"], row.ending);
  }
}

// A session recorded by game-client under loss and reordering replays through game-server
// --replay, following the recorded thread order, to the recorded replica in every field,
// every time, while other threads load the machine; replica-diff finds the runs equal and
// names a field changed by hand with its entity, frame and last writer.
TEST_F(GameClientTest, RecordedSessionReplaysToTheSameReplicaAndKeepsNoSecrets) {
  gameserver::Options options;
  options.entities = 30;
  options.eventsPerSecond = 20;
  options.password = "pass-word-7";
  gameserver::GameServer game(options);
  game.Start();
  const std::string file = dir / "session.pcapng";
  const auto digest = [this](int run) { return dir / ("digest" + std::to_string(run)); };
  ChildProcess recorded(
      testlib::ToolPath("game-client"),
      {"--port", std::to_string(game.Port()), "--seconds", "1.5", "--quiet", "--token", "token-9x",
       "--password", options.password, "--record", file, "--dump", Dump(0), "--digest", digest(0),
       "--simulate", "loss=10%,reorder=20%,seed=5"},
      dir, "recorded");
  ASSERT_EQ(recorded.Wait(), 0) << recorded.Stderr();
  game.Stop();
  const std::string bytes = testlib::ReadFile(file);
  EXPECT_EQ(bytes.find("token-9x"), std::string::npos);
  EXPECT_EQ(bytes.find(options.password), std::string::npos);

  const auto replica = [this](int run) {
    json dump = json::parse(testlib::ReadFile(Dump(run)));
    dump.erase("ending");  // the replay ends with the replay server's goodbye
    return dump;
  };
  EXPECT_FALSE(replica(0)["entities"].empty());
  std::atomic<bool> busy{true};
  std::vector<std::thread> load;
  for (int i = 0; i < 2; ++i) {
    load.emplace_back([&busy] {
      while (busy.load(std::memory_order_relaxed)) {
      }
    });
  }
  for (int run = 1; run <= 3; ++run) {
    ChildProcess replay(testlib::ToolPath("game-server"),
                        {"--replay", file, "--seconds", "60", "--port", "0", "--fast"}, dir,
                        "replay");
    ASSERT_TRUE(testlib::WaitUntil([&] { return !replay.Stdout().empty() || replay.Exited(); }));
    ChildProcess replayed(testlib::ToolPath("game-client"),
                          {"--port", testlib::Lines(replay.Stdout()).at(0), "--quiet", "--dump",
                           Dump(run), "--digest", digest(run), "--replay-order", file},
                          dir, "replayed");
    EXPECT_EQ(replayed.Wait(), 0) << replayed.Stderr();
    EXPECT_EQ(replayed.Stderr(), "");
    EXPECT_EQ(replay.Wait(), 0) << replay.Stderr();
    EXPECT_EQ(replica(run), replica(0)) << "replay " << run;
  }
  busy = false;
  for (std::thread& t : load) t.join();

  ChildProcess same(testlib::ToolPath("replica-diff"), {digest(0), digest(1)}, dir);
  EXPECT_EQ(same.Wait(), 0) << same.Stdout();
  EXPECT_NE(same.Stdout().find("the runs agree in all"), std::string::npos) << same.Stdout();
  // One entity's position, changed by hand in the first frame after the tenth that changes
  // anything.
  std::vector<std::string> lines = testlib::Lines(testlib::ReadFile(digest(1)));
  json changed, frame;
  for (std::string& line : lines) {
    frame = json::parse(line);
    if (frame.value("frame", 0) < 10 || frame["changed"].empty()) continue;
    changed = frame["changed"][0];
    std::string& fields = frame["changed"][0][2].get_ref<std::string&>();
    fields[12] = fields[12] == '0' ? '1' : '0';  // "position" is the fourth field
    frame["hash"] = "0";
    line = frame.dump();
    break;
  }
  std::ofstream hand(dir / "hand");
  for (const std::string& line : lines) hand << line << '\n';
  hand.close();
  ChildProcess diff(testlib::ToolPath("replica-diff"),
                    {digest(0), dir / "hand", "--recording", file, "--json"}, dir);
  EXPECT_EQ(diff.Wait(), 1) << diff.Stderr();
  const json found = json::parse(diff.Stdout());
  EXPECT_EQ(found["frame"], frame["frame"]);
  ASSERT_EQ(found["entities"].size(), 1u) << found;
  EXPECT_EQ(found["entities"][0]["words"], changed[1]);
  EXPECT_EQ(found["entities"][0]["fields"], json::array({"position"}));
  EXPECT_LE(found["entities"][0]["lastTouch"]["event"], found["events"]) << found;

  // A damaged recording is one line and its own status, never a crash; nor a replay that
  // waits for ever: frames go forward in time, at most a minute apart.
  const std::string cut = bytes.substr(0, bytes.size() / 2), garbage = "not a capture";
  std::string lengths = bytes;
  lengths[lengths.size() - 2] ^= 0x40;
  const auto timed = [&](uint64_t secondFrame) {
    {
      capture::CaptureFile made(dir / "timed.pcapng");
      made.SetTime(1'000'000);
      capture::TcpConnection tcp(made, 5000, 7777);
      tcp.FromServer({1});
      made.SetTime(secondFrame);
      tcp.FromServer({2});
    }
    return testlib::ReadFile(dir / "timed.pcapng");
  };
  const std::string minute = timed(61'000'000);
  EXPECT_EQ(recording::LoadRecording({minute.begin(), minute.end()}, "at").items.size(), 2u);
  for (const auto& [content, says] : {std::pair{cut, "cut short inside a block"},
                                      {lengths, "lengths disagree"},
                                      {garbage, "not a pcapng capture"},
                                      {timed(61'000'001), "more than a minute after"},
                                      {timed(999'999), "stamped before the one before"}}) {
    std::ofstream(dir / "bad.pcapng", std::ios::binary) << content;
    ChildProcess bad(testlib::ToolPath("game-server"), {"--replay", dir / "bad.pcapng"}, dir);
    EXPECT_EQ(bad.Wait(), 65) << says;
    const std::string err = bad.Stderr();
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_NE(err.find(says), std::string::npos) << err;
  }
}

TEST(ToolsCommandLine, VersionAndBadArguments) {
  testlib::ScratchDir dir;
  for (const char* tool : {"game-client", "game-server", "replica-svg", "replica-diff"}) {
    ChildProcess child(testlib::ToolPath(tool), {"--version"}, dir);
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(child.Stdout(), std::string(tool) + " " ORVEX_VERSION "\n");
  }
  const std::string gone = ": " + std::string(std::strerror(ENOENT));
  const struct {
    const char* tool;
    std::vector<std::string> args;
    std::string says;  // a part of the one line on standard error
  } rows[] = {
      {"game-client", {"--port", "port"}, ""},
      {"game-client", {"--environment", "-1,2"}, ""},
      {"game-client", {"--simulate", "loss=lots"}, ""},
      {"game-client", {"--dump", "/nonexistent/d"}, "/nonexistent/d" + gone},
      {"game-client", {"--stats", "/nonexistent/c"}, "/nonexistent/c" + gone},
      {"game-client", {"--record", "/nonexistent/r"}, "/nonexistent/r"},
      {"game-server", {"--mods", "3d_x"}, ""},
      {"game-server", {"--nonsense"}, ""},
      {"game-server", {"--fast"}, "--replay"},
      {"game-server", {"--simulate", "loss=lots", "--port", "0", "--quiet"}, ""},
      {"game-server", {"--final-state", "/nonexistent/s"}, "/nonexistent/s" + gone},
      {"game-server", {"--stats", "/nonexistent/t"}, "/nonexistent/t" + gone},
      {"replica-svg", {"only-one-argument"}, ""},
      {"replica-diff", {"only-one-argument"}, ""},
  };
  for (const auto& row : rows) {
    ChildProcess child(testlib::ToolPath(row.tool), row.args, dir);
    EXPECT_EQ(child.Wait(), 64) << row.tool << " " << row.args[0];
    const std::string err = child.Stderr();
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_NE(err.find(row.says), std::string::npos) << err;
  }
}

// Both tools' --stats: JSON lines with the documented keys; what the client took in and what
// its simulator dropped (less the copies it added) is what the server says it sent.
TEST(ToolsStats, ClientLossAgreesWithItsSimulatorAndTheServersSentCounts) {
  testlib::ScratchDir dir;
  ChildProcess server(testlib::ToolPath("game-server"),
                      {"--port", "0", "--quiet", "--seconds", "4", "--stats", dir / "server"}, dir,
                      "server");
  ASSERT_TRUE(testlib::WaitUntil([&] { return server.Stdout().find('\n') != std::string::npos; }));
  ChildProcess client(testlib::ToolPath("game-client"),
                      {"--port", testlib::Lines(server.Stdout())[0], "--quiet", "--stats",
                       dir / "client", "--simulate", "loss=20%,dup=5%,seed=9"},
                      dir, "client");
  ASSERT_EQ(server.Wait(), 0) << server.Stderr();
  ASSERT_EQ(client.Wait(), 0) << client.Stderr();
  uint64_t in = 0, dropped = 0, added = 0, reliable = 0;
  const auto lines = testlib::Lines(testlib::ReadFile(dir / "client"));
  ASSERT_GE(lines.size(), 3u);
  for (const std::string& text : lines) {
    const json line = json::parse(text);
    for (const char* key :
         {"t", "seconds", "in", "out", "state", "tcp", "ticks", "stale", "droppedOther", "jitterMs",
          "lateMs", "applyWaitMs", "frameMs", "frames", "entities", "silentMs", "simulator"}) {
      EXPECT_TRUE(line.contains(key)) << key << " in " << text;
    }
    in += line["in"]["datagrams"].get<uint64_t>();
    dropped += line["simulator"]["in"]["dropped"].get<uint64_t>();
    added += line["simulator"]["in"]["duplicated"].get<uint64_t>();
    reliable += line["tcp"]["reliable"].get<uint64_t>();
  }
  const json sent = json::parse(testlib::Lines(testlib::ReadFile(dir / "server")).back());
  ASSERT_EQ(sent["clients"].size(), 1u);
  const json& total = sent["clients"][0]["total"];
  EXPECT_EQ(in + dropped - added, total["datagrams"].get<uint64_t>());
  EXPECT_NEAR(double(dropped) / double(total["datagrams"]), 0.2, 0.1);
  // The welcome is part of the handshake, which the module does not count.
  EXPECT_EQ(reliable + 1, total["reliable"].get<uint64_t>());
}

wire::EntityCreate Create(const wire::Id& id, const char* module, const char* text,
                          const wire::Id& parent, glm::dvec3 position, Bytes data) {
  return {id, wire::ModuleID(module), text, parent, position, {0.5, -0.5, 0.5, -0.5}, 1,
          0,  std::move(data)};
}

// What the end-to-end test does not compare: the game state, non-finite numbers written as
// text, entities without an interface or destroyed left out; and the sandbox mod's echoes.
TEST_F(GameClientTest, DumpHoldsTheGameStateAndOnlyTheLiveEntities) {
  // The client answered: a joining client sends one connect record per mod (the user name,
  // from the sandbox mod), then a keep-alive datagram.
  client = Start({"--quiet", "--dump-keep", "1"});
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
  // A parent whose tag bytes are not UTF-8 (ff 82 81 80), and syncs that share the dump's
  // 1 MiB with the module messages: 400 KiB fit, 700 KiB more do not and are let go.
  const wire::Id odd{2, 1000}, gone{4, 4}, big{6, 6}, bigger{7, 7},
      strange{0x11223344808182FFull, 99};
  Bytes many;  // one module message more than the dump keeps
  const Bytes one = testlib::ModuleMessage(kOther, {'x'});
  for (int i = 0; i < 4097; ++i) many.insert(many.end(), one.begin(), one.end());
  conn->Send(wire::Join({
      many,
      testlib::World("arena"),
      testlib::Create(Create(odd, kSandbox, "ship", {}, {INFINITY, -INFINITY, NAN}, {0xFF})),
      testlib::Create(Create({9, 9}, kSandbox, "nointerface", {}, {}, {})),
      testlib::Create(Create(gone, kSandbox, "ship", {}, {}, {})),
      testlib::Create(
          Create(big, kSandbox, "ship", {}, {-0.0, 5e-324, DBL_MAX}, Bytes(400 << 10, 0xB1))),
      testlib::Create(Create(bigger, kSandbox, "ship", strange, {}, Bytes(700 << 10, 0xB2))),
      testlib::Destroy(gone),
      testlib::ModuleMessage(kSandbox, TextBytes("R-tcp")),
  }));
  ExpectRecord(testlib::ModuleRecord(kSandbox, TextBytes("R-tcp")));
  server.SendDatagram(first->address, first->port,
                      wire::ModuleDatagram(wire::ModuleID(kOther), TextBytes("R-udp")));
  ExpectRecord(testlib::ModuleRecord(kOther, TextBytes("R-udp")));
  conn->Send(testlib::Disconnect());
  EXPECT_EQ(client->Wait(), 0) << client->Stderr();
  const std::string text = testlib::ReadFile(Dump());
  const json dump = json::parse(text);
  EXPECT_EQ(dump["ending"], "the server disconnected");
  // One entity a line, for line tools; a double with no fraction keeps its ".0".
  int entityLines = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(R"(    {"id":)", 0) == 0 && line.find(R"("updateRate":0.0,)") != line.npos)
      ++entityLines;
  }
  EXPECT_EQ(entityLines, 3);
  EXPECT_EQ(std::make_tuple(dump["world"], dump["mode"], dump["config"], dump["username"]),
            std::make_tuple("arena", -3, "a=1", kUser));
  EXPECT_EQ(dump["moduleMessages"].size(), 4096u);
  EXPECT_EQ(dump["moduleMessagesLeftOut"], 3) << "4097 + R-tcp + R-udp kept to the newest 4096";
  const json& entities = dump["entities"];
  ASSERT_EQ(entities.size(), 3u);
  EXPECT_EQ(entities[0]["position"], json({"inf", "-inf", "nan"}));
  // Doubles read back bit for bit: negative zero, the smallest subnormal, the largest.
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(std::bit_cast<uint64_t>(entities[1]["position"][i].get<double>()),
              std::bit_cast<uint64_t>(std::array{-0.0, 5e-324, DBL_MAX}[i]))
        << "position[" << i << "]";
  }
  std::string hex;
  for (int i = 0; i < 400 << 10; ++i) hex += "b1";
  EXPECT_EQ(entities[1]["sync"], json({hex}));
  EXPECT_EQ(entities[2]["sync"], json::array());
  EXPECT_EQ(entities[2]["syncLeftOut"], 1);
  EXPECT_EQ(entities[2]["parentWords"], json({"1234605617159701247", "99"}));
  EXPECT_EQ(entities[2]["parent"].get<std::string>().substr(0, 12), "\uFFFD\uFFFD\uFFFD\uFFFD");
}

TEST_F(GameClientTest, ReplicaSvgPlacesRidersAlongTheirParentsRotation) {
  const json one = {1.0, 0.0, 0.0, 0.0}, quarter = {std::sqrt(0.5), 0.0, 0.0, std::sqrt(0.5)};
  auto entity = [](std::string id, std::string parent, json x, json turn) {
    return json{{"id", "ENTY" + id},         {"parent", parent.empty() ? "" : "ENTY" + parent},
                {"position", {x, 0.0, 0.0}}, {"orientation", turn},
                {"module", kSandbox},        {"text", "ship"},
                {"serverDriven", true}};
  };
  std::ofstream(dir / "in.json") << json{
      {"world", "w"},
      {"entities",
       {entity("1", "", 10.0, quarter), entity("2", "1", 1.0, one), entity("3", "99", -10.0, one),
        entity("4", "", "nan", one)}}}.dump();
  ChildProcess tool(testlib::ToolPath("replica-svg"), {dir / "in.json", dir / "out.svg"}, dir);
  ASSERT_EQ(tool.Wait(), 0) << tool.Stderr();
  EXPECT_NE(tool.Stdout().find("1 with a parent outside the replica"), std::string::npos);
  const std::string svg = testlib::ReadFile(dir / "out.svg");
  std::map<std::string, std::pair<double, double>> at;
  const std::regex circle(
      R"re(<circle cx="([-0-9.]+)" cy="([-0-9.]+)"[^>]*><title>[^<]* (ENTY\d)<)re");
  for (std::sregex_iterator it(svg.begin(), svg.end(), circle), end; it != end; ++it)
    at[(*it)[3]] = {std::stod((*it)[1]), std::stod((*it)[2])};
  // The rider's offset turned a quarter: above its parent (y grows down); the orphan stays
  // left of both, not joined by a line; the non-finite one is not drawn.
  ASSERT_EQ(at.size(), 3u) << svg;
  EXPECT_NEAR(at["ENTY2"].first, at["ENTY1"].first, 0.01);
  EXPECT_LT(at["ENTY2"].second, at["ENTY1"].second);
  EXPECT_LT(at["ENTY3"].first, at["ENTY1"].first);
  EXPECT_NE(svg.find("<line "), std::string::npos);
  EXPECT_EQ(svg.find("<line "), svg.rfind("<line "));
}

}  // namespace
