// The reference server in-process against a raw client that speaks the protocol byte by
// byte: handshake, scene, state datagrams, echo, bookkeeping, time-out; and its CLI.
#include "server/GameServer.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvex/net/Socket.h"

namespace {

using gameserver::GameServer;
using wire::Bytes;
using wire::ByteWriter;
using wire::Id;

bool Eventually(const std::function<bool()>& condition, int timeoutMs = 10000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

Bytes HelloBytes(const std::string& token, const std::string* password = nullptr) {
  ByteWriter w;
  w.U8(7).Chars("TOVRANE!").U32(1).Text(token);
  if (password != nullptr) w.U8(6).Text(*password);
  return w;
}

// A server-to-client TCP message as a client decodes it.
struct Message {
  uint8_t code = 0;
  Id id, parent;
  wire::ModuleID module;
  std::string text;
  glm::dvec3 position{};
  wire::Orientation orientation;
  uint8_t smooth = 0, forceSnap = 0, admin = 0;
  Bytes data;
};

struct Welcome {
  uint16_t version = 0, tag = 0;
  uint64_t playerId = 0;
  std::string username;
  std::vector<std::string> mods;
  int32_t mode = 0;
  std::string config;
};

// A client made of bare sockets. Reads decode the layouts independently of the writers.
class Player {
 public:
  Player(uint16_t port, const Bytes& hello) : tcp_("127.0.0.1", port, 0, 5000) { Send(hello); }

  void Send(const Bytes& bytes) {
    tcp_.Write(bytes.data(), bytes.size());
    tcp_.Flush();
  }

  uint8_t Status() {
    Await(5000);
    return tcp_.ReadValue<uint8_t>();
  }
  std::string Reason() { return tcp_.ReadString(65535); }

  Welcome ReadWelcome() {
    if (Status() != 1) throw std::runtime_error("refused: " + Reason());
    Welcome w;
    w.version = tcp_.ReadValue<uint16_t>();
    w.tag = tcp_.ReadValue<uint16_t>();
    w.playerId = tcp_.ReadValue<uint64_t>();
    tcp_.Read(w.username);
    for (std::string mod = tcp_.ReadString(65535); !mod.empty(); mod = tcp_.ReadString(65535)) {
      w.mods.push_back(mod);
    }
    w.mode = tcp_.ReadValue<int32_t>();
    w.config.resize(tcp_.ReadValue<uint32_t>());
    tcp_.Read(reinterpret_cast<unsigned char*>(w.config.data()), w.config.size());
    welcome_ = w;
    return w;
  }

  Message Next(int timeoutMs = 5000) {
    Await(timeoutMs);
    Message m;
    m.code = tcp_.ReadValue<uint8_t>();
    switch (m.code) {
      case 0x04:
        tcp_.Read(m.text);
        break;
      case 0x05:
        tcp_.Read(m.text);
        m.admin = tcp_.ReadValue<uint8_t>();
        break;
      case 0x40:
        m.id = tcp_.ReadValue<Id>();
        m.module = tcp_.ReadValue<wire::ModuleID>();
        tcp_.Read(m.text);
        m.parent = tcp_.ReadValue<Id>();
        m.position = tcp_.ReadValue<glm::dvec3>();
        m.orientation = tcp_.ReadValue<wire::Orientation>();
        m.smooth = tcp_.ReadValue<uint8_t>();
        m.forceSnap = tcp_.ReadValue<uint8_t>();
        m.data = Block();
        break;
      case 0x41:
        m.id = tcp_.ReadValue<Id>();
        break;
      case 0x42:
        m.id = tcp_.ReadValue<Id>();
        m.parent = tcp_.ReadValue<Id>();
        m.position = tcp_.ReadValue<glm::dvec3>();
        m.orientation = tcp_.ReadValue<wire::Orientation>();
        m.smooth = tcp_.ReadValue<uint8_t>();
        m.forceSnap = tcp_.ReadValue<uint8_t>();
        m.data = Block();
        break;
      case 0x46:
        m.id = tcp_.ReadValue<Id>();
        m.smooth = tcp_.ReadValue<uint8_t>();
        m.position = tcp_.ReadValue<glm::dvec3>();
        m.orientation = tcp_.ReadValue<wire::Orientation>();
        break;
      case 0x7F:
        m.module = tcp_.ReadValue<wire::ModuleID>();
        m.data = Block();
        break;
      case 0x02:
        break;
      default:
        throw std::runtime_error("server sent code " + std::to_string(m.code));
    }
    return m;
  }

  // Messages until one with `code` arrives (returned), or throws on time-out.
  Message NextOf(uint8_t code) {
    for (;;) {
      Message m = Next();
      if (m.code == code) return m;
    }
  }

  // Every message until the server closes the connection.
  std::vector<Message> UntilClosed() {
    std::vector<Message> messages;
    for (;;) {
      try {
        messages.push_back(Next(10000));
      } catch (const std::runtime_error&) {
        return messages;
      }
    }
  }

  // The 13-byte datagram header for this player.
  ByteWriter DatagramHeader(uint16_t tagDelta = 0) const {
    ByteWriter w;
    w.U8(7).U16(1).U16(static_cast<uint16_t>(welcome_.tag + tagDelta)).U64(welcome_.playerId);
    return w;
  }

 private:
  void Await(int timeoutMs) {
    if (tcp_.Poll(timeoutMs) != 1) throw std::runtime_error("nothing from the server");
  }
  Bytes Block() {
    Bytes bytes(tcp_.ReadValue<uint32_t>());
    tcp_.Read(bytes.data(), bytes.size());
    return bytes;
  }

  orvex::net::TcpSocket tcp_;
  Welcome welcome_;
};

// A client-form UDP socket that keeps what it receives.
class Inbox {
 public:
  explicit Inbox(uint16_t port) : udp_("127.0.0.1", port, 1400) {
    udp_.Receive([this](const orvex::net::UdpSocket&, orvex::filesystem::ReadOnlyStream&& d) {
      std::lock_guard<std::mutex> lock(mutex_);
      received_.push_back(wire::BytesOf(d));
      arrived_.notify_all();
    });
  }
  ~Inbox() { udp_.StopReceiving(); }

  void Send(const Bytes& bytes) {
    udp_.Write(bytes.data(), bytes.size());
    udp_.Flush();
  }

  // Waits until `done` holds over the datagrams received so far.
  bool WaitUntil(const std::function<bool(const std::vector<Bytes>&)>& done) {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::seconds(10), [&] { return done(received_); });
  }
  std::vector<Bytes> Received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }

 private:
  orvex::net::UdpSocket udp_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Bytes> received_;
};

gameserver::Options Quiet(size_t entities = 8) {
  gameserver::Options options;
  options.entities = entities;
  options.eventsPerSecond = 0;
  options.rate = 50;
  return options;
}

// ---------------------------------------------------------------------------------------

TEST(GameServerHandshake, WelcomesEachClientWithItsOwnIdentityThenTheWorld) {
  gameserver::Options options = Quiet(4);
  options.mods = {"DEMO_sandbox", "test_other"};
  options.world = "moon";
  options.mode = 5;
  options.config = "gravity=1.5";
  options.adminToken = "root";
  GameServer server(options);
  server.Start();

  Player first(server.Port(), HelloBytes("token"));
  Player second(server.Port(), HelloBytes("root"));
  const Welcome a = first.ReadWelcome();
  const Welcome b = second.ReadWelcome();
  EXPECT_EQ(a.version, 1);
  EXPECT_NE(a.playerId, b.playerId);
  EXPECT_NE(a.username, b.username);
  EXPECT_FALSE(a.username.empty());
  EXPECT_EQ(a.mods, (std::vector<std::string>{"DEMO_sandbox", "TEST_other"}));
  EXPECT_EQ(a.mode, 5);
  EXPECT_EQ(a.config, std::string("gravity=1.5\0", 12));

  const Message world = first.Next();
  EXPECT_EQ(world.code, 0x04);
  EXPECT_EQ(world.text, "moon");
  const Message status = first.Next();
  EXPECT_EQ(status.code, 0x05);
  EXPECT_EQ(status.admin, 0);
  second.Next();
  EXPECT_EQ(second.Next().admin, 1);
  EXPECT_EQ(server.GetCounters().clientsAccepted, 2u);
}

TEST(GameServerHandshake, RefusesWithAReason) {
  gameserver::Options options = Quiet(0);
  options.password = "sesame";
  GameServer server(options);
  server.Start();

  const std::string right = "sesame", wrong = "open";
  struct Case {
    Bytes hello;
    std::string reason;  // empty: accepted
  };
  const std::vector<Case> cases = {
      {HelloBytes("t"), "Wrong password"},
      {HelloBytes("t", &wrong), "Wrong password"},
      {HelloBytes("t", &right), ""},
      {HelloBytes(std::string(64, 't'), &right), ""},
      {HelloBytes(std::string(65, 't'), &right), "token"},
      {ByteWriter().U8(7).Chars("TOVRANE?").U32(1).Text("t"), "Not a game client"},
      {ByteWriter().U8(7).Chars("TOVRANE!").U32(2).Text("t"), "version 2"},
  };
  for (const Case& c : cases) {
    Player player(server.Port(), c.hello);
    const uint8_t status = player.Status();
    if (c.reason.empty()) {
      EXPECT_EQ(status, 1);
    } else {
      ASSERT_EQ(status, 0) << c.reason;
      const std::string reason = player.Reason();
      EXPECT_NE(reason.find(c.reason), std::string::npos) << reason;
    }
  }
  EXPECT_EQ(server.GetCounters().clientsRefused, 5u);
}

// ---------------------------------------------------------------------------------------

TEST(GameServerScene, CreatesDescribeTheSceneParentsFirst) {
  gameserver::Options options = Quiet(24);
  options.mods = {"DEMO_sandbox", "DEMO_other"};
  GameServer server(options);
  server.Start();
  Player player(server.Port(), HelloBytes("t"));
  player.ReadWelcome();
  player.NextOf(0x05);

  std::unordered_set<Id> seen;
  std::map<std::string, int> texts;
  size_t children = 0;
  std::vector<gameserver::EntityState> snapshot = server.Snapshot();
  ASSERT_EQ(snapshot.size(), 24u);
  for (const gameserver::EntityState& expected : snapshot) {
    const Message create = player.Next();
    ASSERT_EQ(create.code, 0x40);
    EXPECT_FALSE(create.id.IsNull());
    EXPECT_TRUE(seen.insert(create.id).second);
    if (!create.parent.IsNull()) {
      EXPECT_TRUE(seen.count(create.parent)) << "parent announced after its child";
      ++children;
    }
    ++texts[create.text];
    EXPECT_EQ(create.data.size(), 8u);
    EXPECT_EQ(create.id, expected.id);
    EXPECT_EQ(create.parent, expected.parent);
    EXPECT_EQ(create.module.String(), expected.module);
    EXPECT_EQ(create.text, expected.text);
    EXPECT_EQ(create.position, expected.position);
    EXPECT_EQ(create.orientation, expected.orientation);
  }
  EXPECT_GT(children, 0u);
  EXPECT_GT(texts["ship"], texts["static"] + texts["nointerface"]);
  EXPECT_GT(texts["static"], 0);
  EXPECT_GT(texts["nointerface"], 0);
  EXPECT_EQ(texts.size(), 3u);
}

// A state datagram as a client decodes it: header fields and record ids.
struct StateDatagram {
  uint8_t code = 0;
  double time = 0;
  uint64_t sequence = 0, parentEnvironment = 0, relativeEnvironment = 0;
  Id parent;
  int32_t divisor = 0;
  std::vector<Id> ids;
  bool endMarker = false;
};

StateDatagram Decode(const Bytes& d) {
  StateDatagram s;
  orvex::filesystem::ReadOnlyStream in(d);
  char magic[8];
  in.Read(reinterpret_cast<unsigned char*>(magic), 8);
  EXPECT_EQ(std::string(magic, 8), "TOVRANE!");
  s.code = in.ReadValue<uint8_t>();
  if (s.code != 0x44 && s.code != 0x45) return s;
  s.time = in.ReadValue<double>();
  s.sequence = in.ReadValue<uint64_t>();
  s.parentEnvironment = in.ReadValue<uint64_t>();
  s.relativeEnvironment = in.ReadValue<uint64_t>();
  if (s.code == 0x44) s.parent = in.ReadValue<Id>();
  s.divisor = in.ReadValue<int32_t>();
  const size_t record = s.code == 0x44 ? 56 : 64;
  while (in.GetBufferSize() >= record) {
    const Id id = in.ReadValue<Id>();
    Bytes rest(record - 16);
    in.Read(rest.data(), rest.size());
    s.ids.push_back(id);
  }
  s.endMarker = in.GetBufferSize() == 16 && in.ReadValue<Id>() == Id{};
  return s;
}

TEST(GameServerDatagrams, StateFlowsOnceTheClientsHeaderNamesIt) {
  gameserver::Options options = Quiet(40);
  options.parentEnvironment = 3;
  GameServer server(options);
  server.Start();
  Player player(server.Port(), HelloBytes("t"));
  player.ReadWelcome();
  std::unordered_map<Id, Id> parentOf;
  for (Message m = player.NextOf(0x40);; m = player.Next()) {
    parentOf[m.id] = m.parent;
    if (parentOf.size() == 40) break;
  }
  EXPECT_EQ(server.GetCounters().datagramsOut, 0u) << "no address known yet";

  Inbox inbox(server.Port());
  // A header with the wrong tag names nobody.
  inbox.Send(player.DatagramHeader(1).U8(0x03));
  ASSERT_TRUE(Eventually([&] { return server.GetCounters().datagramsRejected == 1; }));
  EXPECT_EQ(server.GetCounters().datagramsOut, 0u);

  inbox.Send(player.DatagramHeader().U8(0x03));
  // Wait for three full ticks of both kinds.
  auto complete = [](const std::vector<Bytes>& all) {
    std::map<uint64_t, size_t> transforms, physics;
    for (const Bytes& d : all) {
      StateDatagram s = Decode(d);
      (s.code == 0x44 ? transforms : physics)[s.sequence] += s.ids.size();
    }
    size_t full = 0;
    for (auto& [sequence, count] : transforms) full += count == 40 && physics.count(sequence);
    return full >= 3;
  };
  ASSERT_TRUE(inbox.WaitUntil(complete));

  std::map<uint64_t, size_t> transformsPerTick;
  for (const Bytes& d : inbox.Received()) {
    EXPECT_LE(d.size(), wire::kMaxDatagram);
    const StateDatagram s = Decode(d);
    EXPECT_TRUE(s.endMarker);
    EXPECT_GT(s.sequence, 0u);
    EXPECT_EQ(s.divisor, 1);
    EXPECT_EQ(s.parentEnvironment, 3u);
    EXPECT_EQ(s.relativeEnvironment, 0u);
    for (const Id& id : s.ids) {
      ASSERT_TRUE(parentOf.count(id));
      if (s.code == 0x44) {
        EXPECT_EQ(parentOf[id], s.parent) << "record grouped under another parent";
      } else {
        EXPECT_TRUE(parentOf[id].IsNull()) << "physics for an entity with a parent";
      }
    }
  }
  EXPECT_NE(server.Clients().at(0).datagramPort, 0);
}

TEST(GameServerDatagrams, DualStackServerStreamsToAnIpv4Client) {
  gameserver::Options options = Quiet(2);
  options.host = "::";
  GameServer server(options);
  try {
    server.Start();
  } catch (const std::runtime_error& e) {
    GTEST_SKIP() << "no dual-stack socket here: " << e.what();
  }
  Player player(server.Port(), HelloBytes("t"));
  player.ReadWelcome();
  Inbox inbox(server.Port());
  inbox.Send(player.DatagramHeader().U8(0x03));
  ASSERT_TRUE(inbox.WaitUntil([](const std::vector<Bytes>& all) { return !all.empty(); }));
  EXPECT_EQ(server.Clients().at(0).datagramAddress, "127.0.0.1");
}

// ---------------------------------------------------------------------------------------

TEST(GameServerClients, ModuleMessagesComeBackOnTheirOwnChannel) {
  GameServer server(Quiet(0));
  server.Start();
  Player player(server.Port(), HelloBytes("t"));
  player.ReadWelcome();
  const wire::ModuleID module("TEST_echo");

  player.Send(ByteWriter().U8(0x7F).Module(module).Block({1, 2, 3}));
  const Message echo = player.NextOf(0x7F);
  EXPECT_EQ(echo.module, module);
  EXPECT_EQ(echo.data, (Bytes{1, 2, 3}));

  Inbox inbox(server.Port());
  inbox.Send(player.DatagramHeader().U8(0x7F).Module(module).Block({4, 5}));
  const Bytes expected = wire::ModuleDatagram(module, {4, 5});
  ASSERT_TRUE(inbox.WaitUntil([&](const std::vector<Bytes>& all) {
    return std::find(all.begin(), all.end(), expected) != all.end();
  }));
  EXPECT_EQ(server.Clients().at(0).moduleMessages, 1u);
  EXPECT_EQ(server.Clients().at(0).moduleDatagrams, 1u);
}

TEST(GameServerClients, EntityActionsAreCountedPerClient) {
  GameServer server(Quiet(2));
  server.Start();
  Player player(server.Port(), HelloBytes("t"));
  player.ReadWelcome();
  const Id entity{0x1111, 0x2222};
  player.Send(ByteWriter()
                  .U8(0x43)
                  .Entity(entity)
                  .Block({9})
                  .U8(0x03)
                  .U8(0x43)
                  .Entity(entity)
                  .Block({7, 7})
                  .U8(0x7F)
                  .Module(wire::ModuleID("TEST_barrier"))
                  .Block({}));
  // Messages are taken in order: once the echo is back, both actions were logged.
  player.NextOf(0x7F);
  const gameserver::ClientInfo info = server.Clients().at(0);
  EXPECT_EQ(info.entityActions, 2u);
  EXPECT_EQ(info.lastActionEntity, entity);
  EXPECT_EQ(info.lastActionPayload, (Bytes{7, 7}));
  EXPECT_EQ(server.GetCounters().tcpKeepAlives, 1u);
}

TEST(GameServerClients, SilentClientsAreToldAndDropped) {
  gameserver::Options options = Quiet(1);
  options.clientTimeoutMs = 300;
  GameServer server(options);
  server.Start();
  Player silent(server.Port(), HelloBytes("t"));
  silent.ReadWelcome();
  const std::vector<Message> rest = silent.UntilClosed();
  ASSERT_FALSE(rest.empty());
  EXPECT_EQ(rest.back().code, 0x02);
  ASSERT_TRUE(Eventually([&] { return server.GetCounters().clientsTimedOut == 1; }));
  EXPECT_FALSE(server.Clients().at(0).connected);
  EXPECT_EQ(server.Clients().at(0).dropReason, "timed out");
}

TEST(GameServerClients, HalfAHelloIsCutOff) {
  gameserver::Options options = Quiet(1);
  options.helloTimeoutMs = 300;
  GameServer server(options);
  server.Start();
  orvex::net::TcpSocket stuck("127.0.0.1", server.Port(), 0, 5000);
  const Bytes half = ByteWriter().U8(7).Chars("TOV");
  stuck.Write(half.data(), half.size());
  stuck.Flush();
  ASSERT_EQ(stuck.Poll(10000), 1);
  unsigned char byte;
  EXPECT_THROW(stuck.Read(&byte, 1), std::runtime_error);
  EXPECT_TRUE(server.Clients().empty());
}

TEST(GameServerClients, DisconnectAndBrokenClientsLeave) {
  GameServer server(Quiet(1));
  server.Start();
  {
    Player polite(server.Port(), HelloBytes("a"));
    polite.ReadWelcome();
    polite.Send({0x02});
    polite.UntilClosed();
  }
  {
    Player rude(server.Port(), HelloBytes("b"));
    rude.ReadWelcome();
    rude.Send({0x44});  // not a client message
    rude.UntilClosed();
  }
  ASSERT_TRUE(Eventually([&] { return server.GetCounters().clientsLeft == 2; }));
  EXPECT_EQ(server.Clients().at(0).dropReason, "left");
  EXPECT_NE(server.Clients().at(1).dropReason.find("0x44"), std::string::npos);
}

// ---------------------------------------------------------------------------------------

// A replica built from the TCP messages alone ends up equal to the server's own state.
TEST(GameServerScene, ReplicaFromTcpMessagesMatchesTheSnapshot) {
  gameserver::Options options = Quiet(24);
  options.eventsPerSecond = 150;
  options.rate = 100;
  GameServer server(options);
  server.Start();
  Player player(server.Port(), HelloBytes("t"));
  player.ReadWelcome();

  ASSERT_TRUE(Eventually([&] {
    const gameserver::Counters n = server.GetCounters();
    return n.destroys >= 4 && n.creates >= 4 && n.updates >= 4 && n.moves >= 4;
  }));
  server.Stop();

  std::unordered_map<Id, Message> replica;
  for (const Message& m : player.UntilClosed()) {
    switch (m.code) {
      case 0x40:
        EXPECT_FALSE(replica.count(m.id)) << "created twice";
        EXPECT_TRUE(m.parent.IsNull() || replica.count(m.parent)) << "unknown parent";
        replica[m.id] = m;
        break;
      case 0x41:
        for (const auto& [id, other] : replica) EXPECT_NE(other.parent, m.id) << "orphaned";
        EXPECT_EQ(replica.erase(m.id), 1u) << "destroyed an unknown entity";
        break;
      case 0x42:
        ASSERT_TRUE(replica.count(m.id)) << "updated an unknown entity";
        // A client holds no replica of these; an update for one would be fatal to it.
        EXPECT_NE(replica[m.id].text, "nointerface");
        replica[m.id].position = m.position;
        replica[m.id].orientation = m.orientation;
        replica[m.id].data = m.data;
        break;
      case 0x46:
        ASSERT_TRUE(replica.count(m.id)) << "moved an unknown entity";
        EXPECT_NE(replica[m.id].text, "nointerface");
        replica[m.id].position = m.position;
        replica[m.id].orientation = m.orientation;
        break;
    }
  }
  const std::vector<gameserver::EntityState> snapshot = server.Snapshot();
  ASSERT_EQ(replica.size(), snapshot.size());
  for (const gameserver::EntityState& e : snapshot) {
    ASSERT_TRUE(replica.count(e.id));
    const Message& r = replica[e.id];
    EXPECT_EQ(r.parent, e.parent);
    EXPECT_EQ(r.text, e.text);
    EXPECT_EQ(r.position, e.position);
    EXPECT_EQ(r.orientation, e.orientation);
    EXPECT_EQ(r.data, ByteWriter().U32(e.serial).U32(e.revision).bytes());
  }
}

// ---------------------------------------------------------------------------------------

std::string GameServerPath() {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "game-server").string();
}

// Runs the command; returns its exit status and its standard output.
std::pair<int, std::string> RunCommand(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return {-1, ""};
  char buffer[256];
  while (fgets(buffer, sizeof buffer, pipe) != nullptr) output += buffer;
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

TEST(GameServerCommandLine, BadArgumentsExit64WithOneLine) {
  if (!std::filesystem::exists(GameServerPath())) GTEST_SKIP() << "game-server not built";
  for (const char* args : {"--rate 0", "--mods 3d_x", "--port 70000", "--nonsense",
                           "--simulate loss=lots --port 0 --quiet"}) {
    const auto [status, output] = RunCommand(GameServerPath() + " " + std::string(args) + " 2>&1");
    EXPECT_EQ(status, 64) << args;
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << args << ": " << output;
  }
}

TEST(GameServerCommandLine, PrintsThePortFirstAndWritesTheFinalState) {
  if (!std::filesystem::exists(GameServerPath())) GTEST_SKIP() << "game-server not built";
  const std::string state =
      (std::filesystem::temp_directory_path() / ("gs-state-" + std::to_string(getpid()) + ".json"))
          .string();
  const auto [status, output] = RunCommand(GameServerPath() + " --port 0 --seconds 0.3 --quiet " +
                                           "--entities 5 --final-state " + state);
  EXPECT_EQ(status, 0);
  const int port = std::stoi(output);
  EXPECT_GT(port, 0);
  EXPECT_EQ(output, std::to_string(port) + "\n");
  std::ifstream file(state);
  const nlohmann::json json = nlohmann::json::parse(file);
  EXPECT_EQ(json["entities"].size(), 5u);
  EXPECT_EQ(json["entities"][0]["module"], "DEMO_sandbox");
  EXPECT_EQ(json["port"], port);
  std::filesystem::remove(state);
}

}  // namespace
