// The headless game end to end: the built game-client runs as a child process against the
// in-process reference server (a whole scene) and against the scripted test server (exact
// bytes both ways), and replica-svg draws a dump.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "server/GameServer.h"
#include "server/TestServer.h"
#include "server/Wire.h"

extern char** environ;

namespace {

using nlohmann::json;
using wire::Bytes;
using wire::ByteWriter;
using wire::Id;

#ifdef GAME_CLIENT_PATH
constexpr const char* kGameClient = GAME_CLIENT_PATH;
constexpr const char* kReplicaSvg = REPLICA_SVG_PATH;
#else
constexpr const char* kGameClient = "";
constexpr const char* kReplicaSvg = "";
#endif

constexpr int kExitUsage = 64;

bool Eventually(const std::function<bool()>& condition, int timeoutMs = 20000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Hex(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (uint8_t b : bytes) {
    text += kDigits[b >> 4];
    text += kDigits[b & 15];
  }
  return text;
}

Bytes Text(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

// A scratch directory for one test, removed at the end.
class ScratchDir {
 public:
  ScratchDir() {
    static std::atomic<int> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            ("game-client-test-" + std::to_string(getpid()) + "-" + std::to_string(++counter));
    std::filesystem::create_directories(path_);
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// A tool run as a child process, its stdout and stderr going to files. The destructor kills
// a child that is still running.
class ChildProcess {
 public:
  ChildProcess(const std::string& program, const std::vector<std::string>& args,
               const ScratchDir& dir)
      : out_(dir / "stdout.txt"), err_(dir / "stderr.txt") {
    std::vector<std::string> argv{program};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> pointers;
    for (std::string& a : argv) pointers.push_back(a.data());
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int failed =
        posix_spawn(&pid_, program.c_str(), &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
      pid_ = -1;
      throw std::runtime_error("cannot start " + program + ": " + std::strerror(failed));
    }
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    if (pid_ > 0 && !Exited()) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  bool Exited() {
    if (done_) return true;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
    done_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
  }
  // The exit status (128 + signal when killed); a child still running after `timeoutMs` is
  // killed and the test fails.
  int Wait(int timeoutMs = 30000) {
    if (!Eventually([this] { return Exited(); }, timeoutMs)) {
      ADD_FAILURE() << "the child did not exit within " << timeoutMs << " ms; stderr:\n"
                    << Stderr();
      kill(pid_, SIGKILL);
      Eventually([this] { return Exited(); });
    }
    return status_;
  }
  void Signal(int signal) { kill(pid_, signal); }
  std::string Stdout() const { return ReadFile(out_); }
  std::string Stderr() const { return ReadFile(err_); }

 private:
  std::filesystem::path out_, err_;
  pid_t pid_ = -1;
  bool done_ = false;
  int status_ = -1;
};

uint64_t Bits(double value) {
  return std::bit_cast<uint64_t>(value);
}

// The double of a dump number, which may be "inf", "-inf" or "nan".
double DumpNumber(const json& value) {
  if (value.is_string()) {
    const std::string text = value.get<std::string>();
    if (text == "inf") return INFINITY;
    if (text == "-inf") return -INFINITY;
    if (text == "nan") return NAN;
    ADD_FAILURE() << "not a number: " << value;
    return 0;
  }
  EXPECT_TRUE(value.is_number_float()) << "written without '.' or exponent: " << value;
  return value.get<double>();
}

std::string IdKey(const json& pair) {
  return pair.at(0).get<std::string>() + ":" + pair.at(1).get<std::string>();
}
std::string IdKey(const Id& id) {
  return std::to_string(id.word0) + ":" + std::to_string(id.word1);
}

class GameClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(kGameClient)) GTEST_SKIP() << "game-client not built";
  }

  std::unique_ptr<ChildProcess> StartClient(uint16_t port, std::vector<std::string> extra) {
    std::vector<std::string> args{"--host", "127.0.0.1", "--port", std::to_string(port),
                                  "--dump", DumpPath()};
    args.insert(args.end(), extra.begin(), extra.end());
    return std::make_unique<ChildProcess>(kGameClient, args, dir);
  }
  std::string DumpPath() const { return (dir / "dump.json").string(); }
  json Dump() const {
    std::ifstream in(DumpPath());
    if (!in) {
      ADD_FAILURE() << "no dump written";
      return json::object();
    }
    return json::parse(in);
  }

  ScratchDir dir;
};

// ---------------------------------------------------------------------------------------
// Against the reference server: a whole scene, replicated.

TEST_F(GameClientTest, ReplicatesTheReferenceServersSceneAndStopsOnSigterm) {
  gameserver::Options options;
  options.entities = 40;
  options.eventsPerSecond = 0;  // a fixed population, so the snapshot is the replica's truth
  options.mods = {"DEMO_sandbox", "DEMO_other"};
  options.world = "arena";
  options.mode = 2;
  options.config = "gravity=1";
  gameserver::GameServer server(options);
  server.Start();
  auto client = StartClient(server.Port(), {"--quiet"});

  // Wait until the server streams state to the client, then for a few more ticks of it.
  ASSERT_TRUE(Eventually([&] {
    const auto clients = server.Clients();
    return clients.size() == 1 && !clients[0].datagramAddress.empty();
  })) << client->Stderr();
  const uint64_t ticks = server.GetCounters().ticks;
  ASSERT_TRUE(Eventually([&] { return server.GetCounters().ticks >= ticks + 3; }));
  client->Signal(SIGTERM);
  ASSERT_EQ(client->Wait(), 0) << client->Stderr();
  EXPECT_EQ(client->Stderr(), "");

  const gameserver::ClientInfo info = server.Clients().at(0);
  const json dump = Dump();
  EXPECT_EQ(dump["playerId"], std::to_string(info.playerId));
  EXPECT_EQ(dump["username"], info.username);
  EXPECT_EQ(dump["admin"], false);
  EXPECT_EQ(dump["error"], "");
  EXPECT_EQ(dump["world"], "arena");
  EXPECT_EQ(dump["mode"], 2);
  EXPECT_EQ(dump["mods"], json({"DEMO_sandbox", "DEMO_other"}));
  EXPECT_EQ(dump["config"], "gravity=1");
  EXPECT_GT(DumpNumber(dump["timestamp"]), 0.0);

  // Every entity with an interface is in the replica, as the server describes it.
  std::map<std::string, gameserver::EntityState> expected;
  for (const gameserver::EntityState& e : server.Snapshot()) {
    if (e.text != "nointerface") expected[IdKey(e.id)] = e;
  }
  ASSERT_EQ(dump["entities"].size(), expected.size());
  std::set<uint32_t> aimIds;
  for (const json& e : dump["entities"]) {
    const std::string key = IdKey(e["id"]);
    ASSERT_TRUE(expected.count(key)) << key;
    const gameserver::EntityState& s = expected[key];
    EXPECT_EQ(IdKey(e["parent"]), IdKey(s.parent)) << key;
    EXPECT_EQ(e["module"], s.module) << key;
    EXPECT_EQ(e["text"], s.text) << key;
    EXPECT_EQ(e["sync"], json({Hex(ByteWriter().U32(s.serial).U32(s.revision))})) << key;
    EXPECT_EQ(e["serverDriven"], s.text != "static") << key;
    EXPECT_EQ(e["ready"], true) << key;
    aimIds.insert(e["aimId"].get<uint32_t>());
    if (s.text != "static") {
      // Transform datagrams reached the entity and set its rate.
      EXPECT_GT(DumpNumber(e["updateRate"]), 0.0) << key;
      EXPECT_EQ(e["hasTarget"], true) << key;
    }
  }
  EXPECT_EQ(aimIds.size(), expected.size()) << "every interface has an aim id of its own";
  EXPECT_EQ(aimIds.count(0), 0u);

  // Each mod's connect message (its user name) came back from the server's echo.
  const Bytes hello = ByteWriter().Text(info.username);
  EXPECT_EQ(dump["moduleMessages"], json({{{"module", "DEMO_sandbox"}, {"payload", Hex(hello)}},
                                          {{"module", "DEMO_other"}, {"payload", Hex(hello)}}}));
}

TEST_F(GameClientTest, RunsForItsSecondsAndSummarisesUnlessQuiet) {
  gameserver::Options options;
  options.entities = 12;
  options.eventsPerSecond = 0;
  gameserver::GameServer server(options);
  server.Start();
  auto client = StartClient(server.Port(), {"--seconds", "1", "--fps", "30"});
  ASSERT_EQ(client->Wait(), 0) << client->Stderr();
  const std::string err = client->Stderr();
  EXPECT_NE(err.find("game-client: the run ended (time)"), std::string::npos) << err;
  for (const char* figure : {"replica:", "datagrams:", "dropped:", "reliable:", "bytes:"}) {
    EXPECT_NE(err.find(figure), std::string::npos) << figure << " missing from\n" << err;
  }
  size_t withInterface = 0;
  for (const gameserver::EntityState& e : server.Snapshot())
    withInterface += e.text != "nointerface";
  EXPECT_EQ(Dump()["entities"].size(), withInterface);
}

TEST_F(GameClientTest, RefusalsAndConstructorFailuresExitTwoWithTheReasonLast) {
  gameserver::Options options;
  options.password = "secret";
  options.entities = 2;
  options.eventsPerSecond = 0;
  gameserver::GameServer server(options);
  server.Start();

  auto quiet = StartClient(server.Port(), {"--password", "guess", "--quiet"});
  EXPECT_EQ(quiet->Wait(), 2);
  EXPECT_EQ(quiet->Stderr(), "Wrong password\n");
  EXPECT_FALSE(std::filesystem::exists(DumpPath()));

  auto chatty = StartClient(server.Port(), {});
  EXPECT_EQ(chatty->Wait(), 2);
  const std::vector<std::string> lines = Lines(chatty->Stderr());
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "Wrong password");

  auto longToken = StartClient(server.Port(), {"--token", std::string(65, 't'), "--quiet"});
  EXPECT_EQ(longToken->Wait(), 2);
  EXPECT_EQ(longToken->Stderr(), "Bad Token Length\n");

  auto admitted =
      StartClient(server.Port(), {"--password", "secret", "--quiet", "--seconds", "0.5"});
  EXPECT_EQ(admitted->Wait(), 0) << admitted->Stderr();
  EXPECT_EQ(Dump()["entities"].size(), 2u);
}

TEST_F(GameClientTest, BadArgumentsExit64WithOneLine) {
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"--port", "7777"},
      {"--host", "127.0.0.1"},
      {"--host", "127.0.0.1", "--port", "0"},
      {"--host", "127.0.0.1", "--port", "port"},
      {"--host", "127.0.0.1", "--port", "7777", "--fps", "0"},
      {"--host", "127.0.0.1", "--port", "7777", "--seconds", "-1"},
      {"--host", "127.0.0.1", "--port", "7777", "--environment", "1"},
      {"--host", "127.0.0.1", "--port", "7777", "--environment", "1,x"},
      {"--host", "127.0.0.1", "--port", "7777", "--environment", "-1,2"},
      {"--host", "127.0.0.1", "--port", "7777", "--nonsense"},
      {"--host", "127.0.0.1", "--port", "7777", "--simulate", "loss=lots"},
  };
  for (const std::vector<std::string>& args : cases) {
    ChildProcess child(kGameClient, args, dir);
    std::string shown;
    for (const std::string& a : args) shown += a + " ";
    EXPECT_EQ(child.Wait(), kExitUsage) << shown;
    const std::string err = child.Stderr();
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << shown << ": " << err;
    EXPECT_EQ(err.rfind("game-client: ", 0), 0u) << shown << ": " << err;
  }
  ChildProcess help(kGameClient, {"--help"}, dir);
  EXPECT_EQ(help.Wait(), 0);
  EXPECT_NE(help.Stdout().find("--environment"), std::string::npos);
}

// ---------------------------------------------------------------------------------------
// Against the scripted server: exact bytes.

constexpr const char* kSandbox = "TEST_sandbox";
constexpr const char* kOther = "TEST_other";
constexpr uint64_t kPlayerId = 0xFEDCBA9876543210ull;
constexpr uint16_t kServerTag = 0xBEEF;

Bytes WelcomeBytes() {
  wire::Welcome welcome;
  welcome.serverTag = kServerTag;
  welcome.playerId = kPlayerId;
  welcome.username = "tester \xc3\xbc";
  welcome.mods = {kSandbox, kOther};
  welcome.mode = -3;
  welcome.config = {'a', '=', '1', '\0', 'b', '\0'};
  orvex::filesystem::Stream out;
  wire::WriteWelcome(out, welcome);
  return wire::BytesOf(out);
}

Bytes ModuleRecord(const char* module, const Bytes& payload) {
  return ByteWriter().U8(0x7F).Module(wire::ModuleID(module)).Block(payload);
}

Bytes ClientDatagramHeader() {
  return ByteWriter().U8(7).U16(1).U16(kServerTag).U64(kPlayerId);
}

class ScriptedServerTest : public GameClientTest {
 protected:
  // Starts the client, answers its hello with the welcome and checks what a joining client
  // sends first: one connect record per mod in one flush, then a keep-alive datagram.
  void Join(std::vector<std::string> extra = {"--quiet"}) {
    client = StartClient(server.Port(), extra);
    conn = server.Accept();
    const wire::Hello hello = conn->ReadHello();
    EXPECT_FALSE(hello.hasPassword);
    conn->Send(WelcomeBytes());
    const Bytes username = ByteWriter().Text("tester \xc3\xbc");
    for (const char* mod : {kSandbox, kOther}) {
      const Bytes record = ModuleRecord(mod, username);
      ASSERT_EQ(conn->ReadBytes(record.size()), record) << mod;
    }
    const std::optional<testserver::ReceivedDatagram> first = server.NextDatagram(10000);
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(first->bytes, ByteWriter().Append(ClientDatagramHeader()).U8(0x03).bytes());
    clientAddress = first->address;
    clientPort = first->port;
  }

  // The next TCP record that is not a keep-alive must be exactly `expected`.
  void ExpectRecord(const Bytes& expected) {
    Bytes code = conn->ReadBytes(1);
    while (code[0] == 0x03) code = conn->ReadBytes(1);
    Bytes record = code;
    const Bytes rest = conn->ReadBytes(expected.size() - 1);
    record.insert(record.end(), rest.begin(), rest.end());
    EXPECT_EQ(Hex(record), Hex(expected));
  }
  // The next datagram that is not a keep-alive must be exactly `expected`.
  void ExpectDatagram(const Bytes& expected) {
    for (;;) {
      const auto datagram = server.NextDatagram(10000);
      ASSERT_TRUE(datagram.has_value()) << "no datagram";
      if (datagram->bytes.size() == 14 && datagram->bytes[13] == 0x03) continue;
      EXPECT_EQ(Hex(datagram->bytes), Hex(expected));
      return;
    }
  }

  void SendModuleMessage(const char* module, const Bytes& payload) {
    orvex::filesystem::Stream out;
    wire::WriteModuleMessage(out, wire::ModuleID(module), payload);
    conn->Send(wire::BytesOf(out));
  }
  void SendModuleDatagram(const char* module, const Bytes& payload) {
    server.SendDatagram(clientAddress, clientPort,
                        wire::ModuleDatagram(wire::ModuleID(module), payload));
  }
  void Send(const std::function<void(orvex::filesystem::Stream&)>& write) {
    orvex::filesystem::Stream out;
    write(out);
    conn->Send(wire::BytesOf(out));
  }
  // Tells the client goodbye; the game was asked to quit, so it ends with status 0.
  void Disconnect() {
    Send([](auto& out) { wire::WriteDisconnect(out); });
    EXPECT_EQ(client->Wait(), 0) << client->Stderr();
  }

  testserver::TestServer server;
  std::unique_ptr<testserver::TestConnection> conn;
  std::unique_ptr<ChildProcess> client;
  std::string clientAddress;
  uint16_t clientPort = 0;
};

wire::EntityCreate Create(Id id, const char* module, const char* text, Id parent,
                          glm::dvec3 position, Bytes data) {
  wire::EntityCreate create;
  create.id = id;
  create.module = wire::ModuleID(module);
  create.text = text;
  create.parent = parent;
  create.position = position;
  create.orientation = {0.5, -0.5, 0.5, -0.5};
  create.smooth = 1;
  create.forceSnap = 0;
  create.data = std::move(data);
  return create;
}

TEST_F(ScriptedServerTest, DumpHoldsTheReplicaAndTheGameStateExactly) {
  Join({"--quiet", "--environment", "7,9"});
  const Id ship{5, 900}, rider{5, 7}, odd{2, 1000}, dropped{9, 9}, unloaded{3, 3}, gone{4, 4};
  Send([&](auto& out) {
    wire::WriteWorld(out, "arena");
    wire::WriteAdminStatus(out, "admin", 1);
    wire::WriteEntityCreate(out,
                            Create(ship, kSandbox, "ship", {}, {0.1, -2.5e-300, 1e300}, {1, 2, 3}));
    wire::WriteEntityCreate(out, Create(rider, kOther, "static", ship, {-0.0, 1.0 / 3, 4}, {}));
    wire::WriteEntityCreate(
        out, Create(odd, kSandbox, "ship", ship, {INFINITY, -INFINITY, NAN}, {0xFF}));
    wire::WriteEntityCreate(out, Create(dropped, kSandbox, "nointerface", {}, {}, {}));
    wire::WriteEntityCreate(out, Create(unloaded, "TEST_unloaded", "ship", {}, {}, {}));
    wire::WriteEntityCreate(out, Create(gone, kSandbox, "ship", {}, {}, {}));
    wire::EntityUpdate update;
    update.id = ship;
    update.position = {7, 8, 9};
    update.orientation = {1, 0, 0, 0};
    update.smooth = 0;
    update.forceSnap = 1;
    update.data = {0xAA, 0xBB};
    wire::WriteEntityUpdate(out, update);
    wire::WriteEntityDestroy(out, gone);
  });
  // The echo of a module message sent after them shows that the client carried them out,
  // so the datagrams below cannot overtake them.
  SendModuleMessage(kSandbox, Text("R-tcp barrier"));
  ExpectRecord(ModuleRecord(kSandbox, Text("R-tcp barrier")));
  // State datagrams for this environment (the client was started in 7,9), then one from
  // another environment that only clears the target.
  wire::StateHeader header;
  header.serverTime = 123.25;
  header.sequence = 1;
  header.parentEnvironment = 7;
  header.relativeEnvironment = 9;
  wire::TransformRecord moved;
  moved.id = ship;
  moved.position = {-1.5, 2.5, 0.125};
  moved.orientation[0] = 0.6f, moved.orientation[3] = 0.8f;
  server.SendDatagram(clientAddress, clientPort, wire::TransformsDatagram(header, {}, {moved}));
  header.sequence = 2;
  server.SendDatagram(
      clientAddress, clientPort,
      wire::PhysicsDatagram(header, {wire::PhysicsRecord{ship, {1, 2, 3}, {4, 5, 6}}}));
  // Likewise for datagrams: this echo follows the state datagrams' intake.
  SendModuleDatagram(kOther, Text("R-barrier"));
  ExpectRecord(ModuleRecord(kOther, Text("R-barrier")));
  SendModuleMessage(kOther, Text("X-recorded only"));
  Disconnect();
  EXPECT_EQ(client->Stderr(), "");

  const json dump = Dump();
  const nlohmann::ordered_json ordered = nlohmann::ordered_json::parse(ReadFile(DumpPath()));
  std::vector<std::string> keys;
  for (const auto& [key, value] : ordered.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"playerId", "username", "admin", "error", "world",
                                            "mode", "mods", "timestamp", "config", "entities",
                                            "moduleMessages"}));

  EXPECT_EQ(dump["playerId"], "18364758544493064720");
  EXPECT_EQ(dump["username"], "tester \xc3\xbc");
  EXPECT_EQ(dump["admin"], true);
  EXPECT_EQ(dump["error"], "");
  EXPECT_EQ(dump["world"], "arena");
  EXPECT_EQ(dump["mode"], -3);
  EXPECT_EQ(dump["mods"], json({kSandbox, kOther}));
  EXPECT_EQ(Bits(DumpNumber(dump["timestamp"])), Bits(123.25));
  EXPECT_EQ(dump["config"], "a=1");

  // Sorted by word 0, then word 1; no entity without an interface, none destroyed.
  const json& entities = dump["entities"];
  ASSERT_EQ(entities.size(), 3u);
  EXPECT_EQ(entities[0]["id"], json({"2", "1000"}));
  EXPECT_EQ(entities[1]["id"], json({"5", "7"}));
  EXPECT_EQ(entities[2]["id"], json({"5", "900"}));

  const json& o = entities[0];
  EXPECT_EQ(o["parent"], json({"5", "900"}));
  EXPECT_EQ(o["position"], json({"inf", "-inf", "nan"}));
  EXPECT_EQ(o["sync"], json({"ff"}));

  const json& r = entities[1];
  EXPECT_EQ(r["module"], kOther);
  EXPECT_EQ(r["text"], "static");
  EXPECT_EQ(r["serverDriven"], false);
  EXPECT_TRUE(std::signbit(DumpNumber(r["position"][0])));
  EXPECT_EQ(Bits(DumpNumber(r["position"][1])), Bits(1.0 / 3));
  EXPECT_EQ(r["sync"], json({""}));
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(Bits(DumpNumber(r["orientation"][i])), Bits(i % 2 ? -0.5 : 0.5));
  }

  const json& s = entities[2];
  EXPECT_EQ(s["parent"], json({"0", "0"}));
  EXPECT_EQ(s["module"], kSandbox);
  EXPECT_EQ(s["text"], "ship");
  // The update snapped both transforms; then the datagram set the target, and, the entity
  // having a target already, nothing else.
  EXPECT_EQ(s["position"], json({7.0, 8.0, 9.0}));
  EXPECT_EQ(s["targetPosition"], json({-1.5, 2.5, 0.125}));
  EXPECT_EQ(Bits(DumpNumber(s["targetOrientation"][0])), Bits(static_cast<double>(0.6f)));
  EXPECT_EQ(Bits(DumpNumber(s["targetOrientation"][3])), Bits(static_cast<double>(0.8f)));
  EXPECT_EQ(s["velocity"], json({1.0, 2.0, 3.0}));
  EXPECT_EQ(s["physicsExtra"], json({4.0, 5.0, 6.0}));
  EXPECT_EQ(Bits(DumpNumber(s["updateRate"])), Bits(20.0));
  EXPECT_EQ(s["smooth"], 0);
  EXPECT_EQ(s["forceSnap"], 1);
  EXPECT_EQ(s["serverDriven"], true);
  EXPECT_EQ(s["hasTarget"], true);
  EXPECT_EQ(s["velocityReset"], true);
  EXPECT_EQ(s["stale"], false);
  EXPECT_EQ(s["ready"], true);
  EXPECT_GT(s["aimId"].get<int>(), 0);
  EXPECT_EQ(s["sync"], json({"010203", "aabb"}));

  EXPECT_EQ(dump["moduleMessages"],
            json({{{"module", kSandbox}, {"payload", Hex(Text("R-tcp barrier"))}},
                  {{"module", kOther}, {"payload", Hex(Text("R-barrier"))}},
                  {{"module", kOther}, {"payload", Hex(Text("X-recorded only"))}}}));
}

TEST_F(ScriptedServerTest, ModuleMessagesAreEchoedOnTheChannelTheirFirstByteNames) {
  Join();
  const Bytes header = ClientDatagramHeader();
  SendModuleMessage(kSandbox, Text("R over tcp"));
  ExpectRecord(ModuleRecord(kSandbox, Text("R over tcp")));
  SendModuleMessage(kSandbox, Text("U over tcp"));
  ExpectDatagram(ByteWriter().Append(header).Append(ModuleRecord(kSandbox, Text("U over tcp"))));
  SendModuleDatagram(kOther, Text("R over udp"));
  ExpectRecord(ModuleRecord(kOther, Text("R over udp")));
  SendModuleDatagram(kOther, Text("U over udp"));
  ExpectDatagram(ByteWriter().Append(header).Append(ModuleRecord(kOther, Text("U over udp"))));

  // Two waiting payloads leave as two records, and two datagrams, in order.
  SendModuleMessage(kSandbox, Text("R1"));
  SendModuleMessage(kSandbox, Text("R2"));
  ExpectRecord(ModuleRecord(kSandbox, Text("R1")));
  ExpectRecord(ModuleRecord(kSandbox, Text("R2")));
  SendModuleMessage(kSandbox, Text("U1"));
  SendModuleMessage(kSandbox, Text("U2"));
  ExpectDatagram(ByteWriter().Append(header).Append(ModuleRecord(kSandbox, Text("U1"))));
  ExpectDatagram(ByteWriter().Append(header).Append(ModuleRecord(kSandbox, Text("U2"))));

  // Other first bytes, and empty payloads, are only recorded: the next record is the echo.
  SendModuleMessage(kSandbox, Text("x"));
  SendModuleMessage(kSandbox, {});
  SendModuleMessage("TEST_unloaded", Text("R nobody"));
  SendModuleMessage(kSandbox, Text("R last"));
  ExpectRecord(ModuleRecord(kSandbox, Text("R last")));
  Disconnect();

  const json dump = Dump();
  std::vector<std::string> recorded;
  for (const json& m : dump["moduleMessages"]) {
    recorded.push_back(m["module"].get<std::string>() + " " + m["payload"].get<std::string>());
  }
  const std::string sandbox = std::string(kSandbox) + " ", other = std::string(kOther) + " ";
  EXPECT_EQ(recorded, (std::vector<std::string>{
                          sandbox + Hex(Text("R over tcp")), sandbox + Hex(Text("U over tcp")),
                          other + Hex(Text("R over udp")), other + Hex(Text("U over udp")),
                          sandbox + Hex(Text("R1")), sandbox + Hex(Text("R2")),
                          sandbox + Hex(Text("U1")), sandbox + Hex(Text("U2")),
                          sandbox + Hex(Text("x")), sandbox, sandbox + Hex(Text("R last"))}));
}

TEST_F(ScriptedServerTest, ActionMessagesQueueEntityActionsOnKnownEntities) {
  Join();
  const Id target{11, 12};
  Send([&](auto& out) {
    wire::WriteEntityCreate(out, Create(target, kOther, "static", {}, {}, {}));
  });
  auto action = [](const Id& id, const std::string& bytes) {
    return ByteWriter().U8('A').Entity(id).Chars(bytes).bytes();
  };
  auto record = [](const Id& id, const std::string& bytes) {
    return ByteWriter().U8(0x43).Entity(id).Block(Text(bytes)).bytes();
  };
  // An unknown entity and an id cut short queue nothing: the next record is the known one's.
  SendModuleMessage(kSandbox, action(Id{11, 13}, "lost"));
  Bytes cutShort = action(target, "");
  cutShort.pop_back();
  SendModuleMessage(kSandbox, cutShort);
  SendModuleMessage(kSandbox, action(target, "fire"));
  ExpectRecord(record(target, "fire"));
  SendModuleMessage(kSandbox, action(target, ""));
  ExpectRecord(record(target, ""));
  SendModuleDatagram(kOther, action(target, "by datagram"));
  ExpectRecord(record(target, "by datagram"));
  Disconnect();
}

TEST_F(ScriptedServerTest, DisconnectEndsTheRunAndTheSummaryTellsWhy) {
  Join({});
  Disconnect();
  const std::string err = client->Stderr();
  EXPECT_NE(err.find("game-client: the run ended (the game was asked to quit)"), std::string::npos)
      << err;
  EXPECT_EQ(Dump()["error"], "");
}

TEST_F(ScriptedServerTest, LostConnectionEndsWithStatusOneAndTheError) {
  Join();
  conn.reset();
  // Echoes to write make the client find the connection gone at its next flushes.
  for (int i = 0; i < 200 && !client->Exited(); ++i) {
    SendModuleDatagram(kSandbox, Text("R are you there"));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(client->Wait(), 1) << client->Stderr();
  EXPECT_EQ(Dump()["error"], "Disconnected from server");
}

// SLOW: about 16 s of real time. The module gives up on a server after more than 15 s of
// silence, a limit the headless game cannot shorten from outside; kept because it is the
// only end-to-end check that a frozen server ends the game.
TEST_F(ScriptedServerTest, SilentServerIsLeftAfterFifteenSecondsSlow) {
  Join();
  conn->Send({0x03});  // one sign of life starts the module's silence watch
  EXPECT_EQ(client->Wait(60000), 0);
  const std::vector<std::string> lines = Lines(client->Stderr());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "Disconnected from server"), lines.end())
      << client->Stderr();
  EXPECT_EQ(Dump()["error"], "");
}

// ---------------------------------------------------------------------------------------
// replica-svg

TEST_F(GameClientTest, ReplicaSvgPlacesRidersAlongTheirParentsRotation) {
  if (!std::filesystem::exists(kReplicaSvg)) GTEST_SKIP() << "replica-svg not built";
  const double h = std::sqrt(0.5);
  auto entity = [](const char* word1, const char* parent, json position, json orientation) {
    const json parentId = parent[0] ? json({"1", parent}) : json({"0", "0"});
    return json{{"id", {"1", word1}},  {"parent", parentId},   {"module", "TEST_sandbox"},
                {"text", "ship"},      {"position", position}, {"orientation", orientation},
                {"serverDriven", true}};
  };
  json dump = {{"world", "w"},
               {"entities",
                {entity("1", "", {10.0, 0.0, 0.0}, {h, 0.0, 0.0, h}),  // a quarter turn
                 entity("2", "1", {1.0, 0.0, 0.0}, {1.0, 0.0, 0.0, 0.0}),
                 entity("3", "99", {-10.0, 0.0, 0.0}, {1.0, 0.0, 0.0, 0.0}),
                 entity("4", "", {"nan", 0.0, 0.0}, {1.0, 0.0, 0.0, 0.0})}}};
  std::ofstream(dir / "in.json") << dump.dump();
  ChildProcess tool(kReplicaSvg, {(dir / "in.json").string(), (dir / "out.svg").string()}, dir);
  ASSERT_EQ(tool.Wait(), 0) << tool.Stderr();
  EXPECT_NE(tool.Stdout().find("1 with a parent outside the replica"), std::string::npos)
      << tool.Stdout();

  const std::string svg = ReadFile(dir / "out.svg");
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
  // The orphan stays at its own position, left of both.
  EXPECT_LT(at["1:3"].first, at["1:1"].first);
  const std::regex line("<line ");
  EXPECT_EQ(
      std::distance(std::sregex_iterator(svg.begin(), svg.end(), line), std::sregex_iterator()), 1);

  ChildProcess bad(kReplicaSvg, {"only-one-argument"}, dir);
  EXPECT_EQ(bad.Wait(), kExitUsage);
}

}  // namespace
