// Hostile and broken servers, on real loopback sockets: lengths that ask for gigabytes,
// messages and datagrams cut short, NaN and infinite numbers, unknown codes, a flood of
// datagrams from a stranger, a connection that ends mid-message, a server that stops
// reading. The client may end its receiving thread or refuse to connect, with one clear
// line; it may not crash, hang or let memory follow the server's numbers. Each case checks
// what the player would see.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "client/ClientHarness.h"
#include "client/OutboundSupport.h"
#include "client/TestMods.h"
#include "game/Networking.h"
#include "support_helpers/StderrCapture.h"

namespace clienttest {

using testing_support::StderrCapture;
namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using game::entity::Orientation;
using orvex::filesystem::Stream;
using testing::HasSubstr;
using wire::ByteWriter;

// Growth of the peak resident memory that a hostile count may cause at most. Honest
// traffic in these cases needs a few MiB; following a count would need gigabytes.
constexpr long kMemoryBoundMb = 256;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// The process's peak resident memory so far.
long PeakResidentMb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

size_t CountOf(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

Bytes WelcomeBytes(const wire::Welcome& welcome) {
  return Encode([&](Stream& s) { wire::WriteWelcome(s, welcome); });
}

// An accepted welcome up to the user name: status, version, server tag, player id.
ByteWriter WelcomeHead() {
  ByteWriter w;
  w.U8(1).U16(1).U16(0x0A0B).U64(42);
  return w;
}

// A welcome up to its mod list, then `count` mod names of 65535 bytes each.
ByteWriter LongModList(int count) {
  ByteWriter w = WelcomeHead().Text("pilot");
  const std::string name(65535, 'm');
  for (int i = 0; i < count; ++i) w.Text(name);
  return w;
}

wire::EntityCreate Creation(Id id, const std::string& text) {
  wire::EntityCreate message;
  message.id = id;
  message.module = EntityMod::Id();
  message.text = text;
  message.position = {1, 2, 3};
  message.smooth = 1;
  message.data = {1, 2, 3, 4};
  return message;
}

Bytes CreateMessage(const wire::EntityCreate& message) {
  return Encode([&](Stream& s) { wire::WriteEntityCreate(s, message); });
}

// A create whose fields end where the sub-stream count begins, for a count of one's own.
ByteWriter CreateHead(Id id) {
  ByteWriter w;
  w.U8(networking::MSG_ENTITY_CREATE).Entity(id).Module(EntityMod::Id()).Text("ship");
  w.Entity(Id{}).Vec3({1, 2, 3}).Quat({}).U8(1).U8(0);
  return w;
}

wire::TransformRecord At(Id id, glm::dvec3 position) {
  wire::TransformRecord record;
  record.id = id;
  record.position = position;
  return record;
}

Bytes Transforms(uint64_t sequence, Id parent, const std::vector<wire::TransformRecord>& records) {
  wire::StateHeader header;
  header.sequence = sequence;
  return wire::TransformsDatagram(header, parent, records);
}

Bytes Physics(uint64_t sequence, const std::vector<wire::PhysicsRecord>& records) {
  wire::StateHeader header;
  header.sequence = sequence;
  return wire::PhysicsDatagram(header, records);
}

// Loads the mod HOST_chatter: every frame it writes `bytes` bytes as one reliable module
// message, so that each Send() has something to flush.
void LoadChatter(size_t bytes) {
  LoadSendMod("HOST_chatter",
              [payload = Bytes(bytes, 0x5A)](orvex::filesystem::WriteOnlyStream& reliable,
                                             orvex::filesystem::WriteOnlyStream&) {
                WriteBytes(reliable, payload);
              });
}

// Every case runs on the fake clock: the send step's keep-alive timers are statics of the
// process, and the outbound suites count on their having started on that clock.
class HostileTest : public ClientTest {
 protected:
  void SetUp() override { Fresh(); }
  void TearDown() override {
    ClearSendScripts();
    ClientTest::TearDown();
  }
  // The state of a new case, for cases that try one server after another.
  static void Fresh() {
    ResetProcessState();
    FakeClock::Install();
    EntityMod::Install();
    RecorderMod::Install();
  }
};

// ---------------------------------------------------------------------------------------
// The welcome

class HostileWelcome : public HostileTest {};

TEST_F(HostileWelcome, HugeCountsAreRefusedBeforeAnythingIsAllocated) {
  struct Case {
    const char* field;
    Bytes reply;
    const char* count;
  };
  const Case cases[] = {
      {"user name", WelcomeHead().U32(0xFFFFFFFF), "4294967295"},
      {"mod name", WelcomeHead().Text("pilot").U32(65536), "65536"},
      {"configuration", WelcomeHead().Text("pilot").Text("").I32(3).U32(0xFFFFFFFF), "4294967295"},
      {"refusal reason", ByteWriter().U8(0).U32(0x80000000), "2147483648"},
      // Names that are each within their cap but never end: 256 of the longest cross the
      // list's cap with the last one, so no byte is left unread when the client gives up.
      {"mod list", LongModList(256), "16777216"},
  };
  const long before = PeakResidentMb();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.field);
    // The server sends the count and stays connected: only the count can end the wait.
    const std::string error = ConstructionError(c.reply);
    EXPECT_THAT(error, HasSubstr(c.count));
    EXPECT_THAT(error, HasSubstr("exceeds the limit"));
    EXPECT_EQ(error.find('\n'), std::string::npos);
  }
  EXPECT_LT(PeakResidentMb() - before, kMemoryBoundMb);
}

TEST_F(HostileWelcome, EveryTruncationEndsTheConstructorWithTheClosedConnection) {
  wire::Welcome welcome = DefaultWelcome();
  welcome.mods = {"CORE_ship", "DEMO_sandbox"};
  const Bytes whole = WelcomeBytes(welcome);
  testserver::TestServer server;
  for (size_t length = 0; length < whole.size(); ++length) {
    Connecting connecting(server.Port());
    auto connection = server.Accept();
    connection->ReadHello(0);
    connection->Send(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
    connection->Close();
    try {
      connecting.Finish();
      ADD_FAILURE() << "a welcome of " << length << " of " << whole.size() << " bytes connected";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "Connection closed by peer") << "after " << length << " bytes";
    }
  }
  EXPECT_TRUE(Game::_mods.empty());
}

// Found by fuzz_welcome: the configuration text went to game::Config::Parse, which reads to
// a zero byte, without one inside the count.
TEST_F(HostileWelcome, ConfigurationTextNeedsItsZeroByte) {
  wire::Welcome welcome = DefaultWelcome();
  welcome.config = {'g', 'o'};
  EXPECT_EQ(ConstructionError(WelcomeBytes(welcome)), "Configuration text is not zero-terminated");
  EXPECT_EQ(Game::config.ParseCount(), 0);

  // The text ends at its first zero byte, wherever that lies inside the count.
  welcome.config = {'a', 'b', '\0', 'c', 'd'};
  EXPECT_EQ(ConstructionError(WelcomeBytes(welcome)), "");
  EXPECT_EQ(Game::config.Text(), "ab");

  // A process that hosts the server never parses the text, so it takes any.
  Game::_is_server = true;
  welcome.config = {'g', 'o'};
  EXPECT_EQ(ConstructionError(WelcomeBytes(welcome)), "");
  EXPECT_EQ(Game::config.ParseCount(), 1);
}

// ---------------------------------------------------------------------------------------
// Reliable messages

class HostileReliable : public HostileTest {};

TEST_F(HostileReliable, HugeCountsEndTheReceivingThreadWithOneLine) {
  const Id existing = EntityId(1);
  struct Case {
    const char* field;
    Bytes message;
    const char* count;
  };
  const Case cases[] = {
      {"world name", ByteWriter().U8(networking::MSG_WORLD).U32(0xFFFFFFFF), "4294967295"},
      {"privilege text", ByteWriter().U8(networking::MSG_ADMIN_STATUS).U32(0x80000000),
       "2147483648"},
      {"interface name",
       ByteWriter()
           .U8(networking::MSG_ENTITY_CREATE)
           .Entity(EntityId(2))
           .Module(EntityMod::Id())
           .U32(0xFFFFFFFF),
       "4294967295"},
      {"creation data", CreateHead(EntityId(2)).U32(0x80000000), "2147483648"},
      {"update data",
       ByteWriter()
           .U8(networking::MSG_ENTITY_UPDATE)
           .Entity(existing)
           .Entity(Id{})
           .Vec3({})
           .Quat({})
           .U8(0)
           .U8(1)
           .U32(0xFFFFFFFF),
       "4294967295"},
      {"module payload",
       ByteWriter().U8(networking::MSG_FOR_MODULE).Module(RecorderMod::Id()).U32(0x80000000),
       "2147483648"},
  };
  const long before = PeakResidentMb();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.field);
    Fresh();
    // Captures before any thread of the client runs.
    StderrCapture capture;
    Session session;
    session.SendReliable(CreateMessage(Creation(existing, "ship")));
    session.Connection().Send(c.message);
    ASSERT_TRUE(capture.WaitFor("ERROR: "));
    session.StopReceiving();
    EXPECT_EQ(CountOf(capture.Text(), "ERROR: "), 1u);
    EXPECT_THAT(capture.Text(), HasSubstr(c.count));
    // Nothing half-read was carried out, and the game still runs: the player sees the
    // replica as it was until the send step notices the silence.
    EXPECT_EQ(FindEntity(EntityId(2)), nullptr);
    EXPECT_NE(FindEntity(existing), nullptr);
    EXPECT_TRUE(RecorderMod::Payloads().empty());
    EXPECT_TRUE(client::Client::error.empty());
  }
  EXPECT_LT(PeakResidentMb() - before, kMemoryBoundMb);
}

TEST_F(HostileReliable, ACountWhoseBytesNeverComeCostsOnlyWhatArrived) {
  StderrCapture capture;
  Session session;
  Game::_current_world = "Harbour";
  // 16 MiB is accepted as a count; 64 KiB of it arrive, then the connection ends.
  const long before = PeakResidentMb();
  session.Connection().Send(
      ByteWriter().U8(networking::MSG_WORLD).U32(16u << 20).Append(Bytes(64 << 10, 'w')));
  session.Connection().Close();
  ASSERT_TRUE(capture.WaitFor("ERROR: Connection closed by peer"));
  session.StopReceiving();
  EXPECT_EQ(CountOf(capture.Text(), "ERROR: "), 1u);
  EXPECT_LT(PeakResidentMb() - before, 64);
  // Nothing half-read is carried out: the world keeps its name.
  EXPECT_EQ(Game::_current_world, "Harbour");
}

TEST_F(HostileReliable, EveryTruncatedCreationEndsTheThreadAndCreatesNothing) {
  const Id id = EntityId(7);
  const Bytes whole = CreateMessage(Creation(id, "ship"));
  for (size_t length = 1; length < whole.size(); ++length) {
    Fresh();
    StderrCapture capture;
    Session session;
    session.Connection().Send(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
    session.Connection().Close();
    ASSERT_TRUE(capture.WaitFor("ERROR: ")) << "after " << length << " bytes";
    session.StopReceiving();
    EXPECT_EQ(capture.Text(), "ERROR: Connection closed by peer\n") << "after " << length;
    EXPECT_EQ(FindEntity(id), nullptr) << "after " << length << " bytes";
  }
}

TEST_F(HostileReliable, AConnectionEndingMidMessageEndsTheGameWithDisconnected) {
  LoadChatter(1);
  StderrCapture capture;
  Session session;
  const Bytes creation = CreateHead(EntityId(3));
  session.Connection().Send(Bytes(creation.begin(), creation.begin() + 20));
  session.Connection().Close();
  ASSERT_TRUE(capture.WaitFor("ERROR: Connection closed by peer"));
  // The game goes on calling Send(); once a flush meets the closed connection the module
  // tells the game why it ends.
  EXPECT_TRUE(WaitUntil([&] {
    session.Client().Send();
    return !client::Client::error.empty();
  }));
  EXPECT_EQ(client::Client::error, "Disconnected from server");
  EXPECT_TRUE(Game::QuitRequested());
  EXPECT_EQ(FindEntity(EntityId(3)), nullptr);
}

TEST_F(HostileReliable, NaNAndInfinityAreTakenAsTheyComeAndTheNextMessageRepairs) {
  Session session;
  wire::EntityCreate create = Creation(EntityId(1), "ship");
  create.position = {kNaN, kInf, -kInf};
  create.orientation = {kInf, kNaN, 0, 0};
  session.SendReliable(CreateMessage(create));
  const ClientSideEntity::Ptr entity = FindEntity(EntityId(1));
  ASSERT_NE(entity, nullptr);
  EXPECT_TRUE(std::isnan(glm::dvec3(entity->position).x));
  EXPECT_EQ(glm::dvec3(entity->position).y, kInf);

  wire::EntityMove move{EntityId(1), 0, {kInf, kNaN, 1}, {kNaN, 0, 0, 0}};
  wire::EntityUpdate repair;
  repair.id = EntityId(1);
  repair.position = {4, 5, 6};
  session.SendReliable(Encode([&](Stream& s) {
    wire::WriteEntityMove(s, move);
    wire::WriteEntityUpdate(s, repair);
  }));
  EXPECT_EQ(glm::dvec3(entity->position), glm::dvec3(4, 5, 6));
  EXPECT_EQ(glm::dvec3(entity->targetPosition), glm::dvec3(4, 5, 6));
  EXPECT_EQ(Orientation(entity->orientation), Orientation());
}

TEST_F(HostileReliable, EveryUnlistedCodeIsOneByteAndTheStreamGoesOn) {
  const uint8_t listed[] = {networking::MSG_DISCONNECT,     networking::MSG_WORLD,
                            networking::MSG_ADMIN_STATUS,   networking::MSG_ENTITY_CREATE,
                            networking::MSG_ENTITY_DESTROY, networking::MSG_ENTITY_UPDATE,
                            networking::MSG_ENTITY_MOVE,    networking::MSG_FOR_MODULE};
  Bytes unlisted;
  for (int code = 0; code < 256; ++code) {
    if (std::find(std::begin(listed), std::end(listed), code) == std::end(listed)) {
      unlisted.push_back(static_cast<uint8_t>(code));
    }
  }
  StderrCapture capture;
  Session session;
  session.SendReliable(unlisted + Encode([](Stream& s) { wire::WriteWorld(s, "after"); }) +
                       CreateMessage(Creation(EntityId(1), "ship")));
  EXPECT_EQ(Game::_current_world, "after");
  EXPECT_NE(FindEntity(EntityId(1)), nullptr);
  EXPECT_FALSE(client::Client::IsAdmin());
  EXPECT_EQ(capture.Text(), "");
}

// ---------------------------------------------------------------------------------------
// Datagrams

class HostileDatagrams : public HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    capture = std::make_unique<StderrCapture>();
    session = std::make_unique<Session>();
    session->LearnDatagramAddress();
    for (uint64_t n = 1; n <= 4; ++n) {
      session->SendReliable(CreateMessage(Creation(EntityId(n), "ship")));
    }
  }
  void TearDown() override {
    session.reset();
    capture.reset();
    HostileTest::TearDown();
  }

  static glm::dvec3 TargetOf(uint64_t n) {
    return glm::dvec3(FindEntity(EntityId(n))->targetPosition);
  }

  // Created before the client's threads, which write to std::cerr.
  std::unique_ptr<StderrCapture> capture;
  std::unique_ptr<Session> session;
};

TEST_F(HostileDatagrams, EveryTruncationIsHarmlessAndTheNextWholeDatagramApplies) {
  const Bytes transforms =
      Transforms(5, Id{}, {At(EntityId(1), {1, 2, 3}), At(EntityId(2), {4, 5, 6})});
  const Bytes physics = Physics(5, {{EntityId(1), {1, 1, 1}, {2, 2, 2}}});
  for (const Bytes* whole : {&transforms, &physics}) {
    for (size_t length = 0; length < whole->size(); ++length) {
      session->SendDatagram(Bytes(whole->begin(), whole->begin() + static_cast<long>(length)));
      session->RunGameThread();
    }
    session->SendDatagram(*whole);
    session->RunGameThread();
  }
  EXPECT_EQ(TargetOf(1), glm::dvec3(1, 2, 3));
  EXPECT_EQ(TargetOf(2), glm::dvec3(4, 5, 6));
  EXPECT_EQ(glm::dvec3(FindEntity(EntityId(1))->velocity), glm::dvec3(1, 1, 1));
}

TEST_F(HostileDatagrams, InfinityIsTakenNaNEndsTheDatagramAndReparentingSurvivesBoth) {
  session->SendDatagram(Transforms(
      1, Id{},
      {At(EntityId(1), {kInf, 0, 0}), At(EntityId(2), {kNaN, 0, 0}), At(EntityId(3), {3, 3, 3})}));
  session->SendDatagram(Physics(1, {{EntityId(1), {kInf, 0, 0}, {0, 0, 0}},
                                    {EntityId(3), {0, kNaN, 0}, {0, 0, 0}},
                                    {EntityId(4), {4, 4, 4}, {0, 0, 0}}}));
  session->RunGameThread();
  EXPECT_EQ(TargetOf(1).x, kInf);
  EXPECT_EQ(TargetOf(3), glm::dvec3(0.0));  // after the NaN record: not applied
  EXPECT_EQ(glm::dvec3(FindEntity(EntityId(1))->velocity).x, kInf);
  EXPECT_EQ(glm::dvec3(FindEntity(EntityId(4))->velocity), glm::dvec3(0.0));
  EXPECT_EQ(CountOf(capture->Text(), "Client Received NaN transform data\n"), 1u);
  EXPECT_EQ(CountOf(capture->Text(), "Client Received NaN physics data\n"), 1u);

  // Entity 3 rides on entity 1, which sits at infinity, then moves to entity 4: the
  // re-expression works through infinite matrices and must still leave a usable replica.
  session->SendDatagram(Transforms(2, EntityId(1), {At(EntityId(3), {1, 0, 0})}));
  session->SendDatagram(Transforms(3, EntityId(4), {At(EntityId(3), {2, 0, 0})}));
  session->SendDatagram(Transforms(4, EntityId(4), {At(EntityId(3), {5, 0, 0})}));
  session->RunGameThread();
  EXPECT_EQ(Id(FindEntity(EntityId(3))->parentId), EntityId(4));
  EXPECT_EQ(TargetOf(3), glm::dvec3(5, 0, 0));
}

TEST_F(HostileDatagrams, AFloodFromAStrangerChangesNothingAndCostsNoMemory) {
  constexpr int kFlood = 20000;
  orvex::net::UdpSocket stranger(orvex::net::UdpSocket::BindTag{}, "127.0.0.2", 0, 1400);
  stranger.SetDestination(session->clientAddress, session->clientPort);
  // Well-formed state for a real entity, with a sequence that would shut out the server's.
  const Bytes forged = Transforms(~0ull >> 1, Id{}, {At(EntityId(1), {99, 99, 99})});
  const long before = PeakResidentMb();
  for (int i = 0; i < kFlood; ++i) {
    stranger.Write(forged.data(), forged.size());
    stranger.Flush();
  }
  // Let the client drain the flood first: what the kernel could not queue for a slow
  // client (sanitizer builds) is lost to the kernel, and the server's datagram must not
  // be lost with it. The flood is over once the drop count stands still.
  uint64_t seen = 0;
  for (int quiet = 0, waited = 0; quiet < 3 && waited < 300; ++waited) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const uint64_t now = session->Client().GetCounters().droppedSender;
    quiet = now == seen ? quiet + 1 : 0;
    seen = now;
  }
  // The server's own datagram, after the flood in the client's socket, is still taken in.
  session->SendDatagram(Transforms(1, Id{}, {At(EntityId(1), {1, 1, 1})}));
  EXPECT_EQ(session->RunGameThread(), 1u);
  EXPECT_EQ(TargetOf(1), glm::dvec3(1, 1, 1));

  const uint64_t dropped = session->Client().GetCounters().droppedSender;
  EXPECT_GT(dropped, 0u);
  EXPECT_EQ(CountOf(capture->Text(), "Client received UDP packet from wrong ip address\n"),
            dropped);
  EXPECT_LT(PeakResidentMb() - before, 64);
}

// ---------------------------------------------------------------------------------------
// A server that stops reading

TEST_F(HostileReliable, AServerThatStopsReadingCannotFreezeTheGameThread) {
  // Each frame sends a quarter of a MiB; the server reads nothing, so the kernel's buffers
  // fill and a flush makes no progress.
  LoadChatter(256 << 10);
  StderrCapture capture;
  Session session;
  for (int frame = 0; frame < 1000 && client::Client::error.empty(); ++frame) {
    session.Client().Send();
  }
  EXPECT_EQ(client::Client::error, "Disconnected from server");
  EXPECT_TRUE(Game::QuitRequested());
  EXPECT_THAT(capture.Text(), HasSubstr("stalled"));
  // Later frames fail at once instead of waiting again.
  session.Client().Send();
  EXPECT_EQ(client::Client::error, "Disconnected from server");
}

}  // namespace
}  // namespace clienttest
