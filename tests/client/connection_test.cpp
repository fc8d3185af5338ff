// The TCP side: construction failures, every message and its decisions, hostile servers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <limits>

#include "ClientSession.h"
#include "GAME_Mod.h"
#include "Game.h"
#include "StderrCapture.h"
#include "Wait.h"
#include "game/Host.h"
#include "game/Networking.h"

namespace {

using namespace testlib;
using testing::HasSubstr;
using testing::IsEmpty;

class Connection : public testing::Test, public ClientFixture {};

// What a hostile count may not move: the growth of the process's peak resident memory.
long PeakResidentMb() {
  rusage usage{};
  return getrusage(RUSAGE_SELF, &usage), usage.ru_maxrss / 1024;
}

// The server's answer to the hello and the constructor's exception text. A count over its cap
// is refused before anything is allocated, with the server still connected.
TEST_F(Connection, ConstructionFailures) {
  const auto welcome = [](auto change) {
    wire::Welcome w = DefaultWelcome();
    change(w);
    return Welcome(w);
  };
  // Found by fuzzing the welcome: the text went to the parser, which reads to a zero byte.
  const Bytes unterminated = welcome([](auto& w) { w.config = {'g', 'o'}; });
  const std::string reason = "Server full (42/42): try again later \xE2\x9C\x93";
  // Status, version, server tag, player id.
  const auto head = [] { return wire::ByteWriter().U8(1).U16(1).U16(0x0A0B).U64(42); };
  // 256 names of the longest kind cross the list's cap with the last one.
  wire::ByteWriter longModList = head().Text("pilot");
  for (int i = 0; i < 256; ++i) longModList.Text(std::string(65535, 'm'));
  struct Row {
    std::string name;
    Bytes reply;
    bool close, hosting;
    std::string error;  // "": the client is built
  };
  // clang-format off
  std::vector<Row> rows = {
      {"refusal text verbatim", Refusal(reason), false, false, reason},
      {"other networking version", welcome([](auto& w) { w.networkingVersion = 2; }), false, false, "Networking version mismatch"},
      {"silence (5 s of real time)", {}, false, false, "Connection attempt failed: Timed out"},
      {"huge user name", head().U32(~0u), false, false, "4294967295 bytes exceeds the limit"},
      {"huge mod name", head().Text("pilot").U32(65536), false, false, "65536 bytes exceeds the limit"},
      {"huge mod list", longModList, false, false, "16777216 bytes exceeds the limit"},
      {"huge configuration", head().Text("pilot").Text("").I32(3).U32(~0u), false, false, "4294967295 bytes exceeds the limit"},
      {"huge refusal", wire::ByteWriter().U8(0).U32(0x80000000), false, false, "2147483648 bytes exceeds the limit"},
      {"configuration without zero byte", unterminated, false, false, "Configuration text is not zero-terminated"},
      {"configuration ends at its first zero", welcome([](auto& w) { w.config = {'a', 'b', '\0', 'c', 'd'}; }), false, false, ""},
      {"a hosting process never parses the configuration", unterminated, false, true, ""},
  };
  // clang-format on
  const Bytes whole = welcome([](auto& w) { w.mods = {"CORE_ship", "DEMO_sandbox"}; });
  for (size_t length = 0; length < whole.size(); ++length) {
    rows.push_back({"welcome cut after " + std::to_string(length), Prefix(whole, length), true,
                    false, "Connection closed by peer"});
  }
  const long before = PeakResidentMb();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ResetClientState();
    Game::_is_server = row.hosting;
    const std::string error = ConstructionError(row.reply, row.close);
    EXPECT_THAT(error, HasSubstr(row.error));
    EXPECT_EQ(error.empty(), row.error.empty());
    EXPECT_EQ(error.find('\n'), std::string::npos);
    EXPECT_TRUE(Game::_mods.empty());
    EXPECT_EQ(orvex::engine::ConfigText(), row.error.empty() && !row.hosting ? "ab" : "");
  }
  EXPECT_LT(PeakResidentMb() - before, 256) << "MiB: memory followed a count";
}

using game::entity::Id;
using game::entity::Orientation;

const glm::dvec3 kOld{1, 2, 3}, kOldTarget{4, 5, 6}, kOldVelocity{7, 8, 9}, kSent{10, -20, 30.5};
const Orientation kOldTurn{0, 1, 0, 0}, kOldTargetTurn{0, 0, 1, 0}, kSentTurn{.5, .5, -.5, .5};

Bytes Creation(Id id, const std::string& text) {
  return Create({id, wire::ModuleID(kEntityMod), text, {}, {}, {}, 0, 0, {}});
}

Bytes UpdateMessage(Id id, uint8_t smooth, uint8_t forceSnap, const Bytes& data) {
  return Update({id, EntityId(999), kSent, kSentTurn, smooth, forceSnap, data});
}

class ReliableMessages : public testing::Test, public ClientFixture {
 protected:
  ReliableMessages() { Start(); }
  void Send(const Bytes& bytes) { session->SendReliable(bytes); }
};

// Updates and moves (S: smooth, R: update rate, F: the update's forceSnap, G: the stored one a
// move reads): updates always take S, F and the data; moves keep G and never call Sync.
TEST_F(ReliableMessages, UpdateAndMoveDecisionTable) {
  enum Transform { kNone, kTarget, kBoth };
  const struct {
    const char* name;
    bool move, driven;
    uint8_t smooth;
    float rate;
    uint8_t forceSnap;
    Transform transform;
    bool stop;
  } rows[] = {
      // clang-format off
      {"update static S0 F0", false, false, 0, 0.5f, 0, kNone, true},
      {"update static S0 F1 snaps", false, false, 0, 0.0f, 1, kBoth, true},
      {"update static S1 F0 keeps velocity", false, false, 1, 0.5f, 0, kNone, false},
      {"update static S1 F1", false, false, 1, 0.0f, 1, kNone, true},
      {"update static S2 F0", false, false, 2, 0.0f, 0, kNone, true},
      {"update driven S0", false, true, 0, 0.5f, 0, kBoth, true},
      {"update driven S1 R0 F0 keeps velocity", false, true, 1, 0.0f, 0, kBoth, false},
      {"update driven S1 R0 F1", false, true, 1, 0.0f, 1, kBoth, true},
      {"update driven S2 R0 F0", false, true, 2, 0.0f, 0, kBoth, true},
      {"update driven S2 R.5 F1", false, true, 2, 0.5f, 1, kBoth, true},
      {"update driven S1 NaN F0 target", false, true, 1, std::numeric_limits<float>::quiet_NaN(), 0, kTarget, false},
      {"move static S0", true, false, 0, 0.5f, 1, kBoth, true},
      {"move S2 R0 G0 keeps velocity", true, true, 2, 0.0f, 0, kBoth, false},
      {"move S1 R0 G1", true, true, 1, 0.0f, 1, kBoth, true},
      {"move S1 R.5 G1", true, false, 1, 0.5f, 1, kBoth, true},
      {"move static S1 R.5 G0 target", true, false, 1, 0.5f, 0, kTarget, false},
      // clang-format on
  };
  uint64_t next = 1;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const Id id = EntityId(next++);
    Send(Creation(id, row.driven ? "ship" : "static"));
    const ClientSideEntity::Ptr e = FindEntity(id);
    e->position = kOld, e->orientation = kOldTurn, e->velocity = kOldVelocity;
    e->targetPosition = kOldTarget, e->targetOrientation = kOldTargetTurn;
    e->velocityReset = e->hasTarget = false, e->stale = true, e->updateRate = row.rate;
    e->smooth = 9, e->forceSnap = row.move ? row.forceSnap : 9;
    const Bytes data{uint8_t(next), 0x5A};
    Send(row.move ? Move({id, row.smooth, kSent, kSentTurn})
                  : UpdateMessage(id, row.smooth, row.forceSnap, data));

    EXPECT_EQ(glm::dvec3(e->position), row.transform == kBoth ? kSent : kOld);
    EXPECT_EQ(Orientation(e->orientation), row.transform == kBoth ? kSentTurn : kOldTurn);
    EXPECT_EQ(glm::dvec3(e->targetPosition), row.transform != kNone ? kSent : kOldTarget);
    EXPECT_EQ(Orientation(e->targetOrientation),
              row.transform != kNone ? kSentTurn : kOldTargetTurn);
    EXPECT_EQ(glm::dvec3(e->velocity), row.stop ? glm::dvec3(0.0) : kOldVelocity);
    EXPECT_EQ(bool(e->velocityReset), row.stop);
    EXPECT_TRUE(e->hasTarget);
    EXPECT_FALSE(e->stale);
    EXPECT_EQ(e->smooth + 100 * e->forceSnap, row.smooth + 100 * row.forceSnap);
    const auto recording = std::dynamic_pointer_cast<RecordingInterface>(e->interface);
    EXPECT_EQ(recording->syncs.size(), row.move ? 1u : 2u);
    EXPECT_EQ(recording->syncs.back(), row.move ? Bytes{} : data);
  }
}

// Destroy, world, admin status and module messages carried out in order; a creation for a
// module without interface, or none loaded, leaves nothing behind.
TEST_F(ReliableMessages, DestroyWorldAdminAndModuleMessages) {
  orvex::engine::LoadMod(std::make_shared<GAME_Mod>("TEST_nohandler"));
  const Bytes payload{0x02, 0x7F, 0x00, 0x41};
  Send(Creation(EntityId(1), "ship") + Creation(EntityId(2), "ship") + Destroy(EntityId(1)) +
       Creation(EntityId(3), "nointerface") +
       Create({EntityId(4), wire::ModuleID("NONE_loaded"), "ship", {}, {}, {}, 0, 0, {}}) +
       World("arena-7") + Admin("granted by operator", 1) + ModuleMessage(kRecorderMod, payload));
  for (uint64_t gone : {1, 3, 4}) EXPECT_FALSE(ClientSideEntity::Exists(EntityId(gone))) << gone;
  EXPECT_TRUE(ClientSideEntity::Exists(EntityId(2)));
  EXPECT_EQ(Game::_current_world, "arena-7");
  EXPECT_TRUE(client::Client::IsAdmin());
  EXPECT_EQ(RecordedPayloads(), std::vector<Bytes>{payload});

  // A payload without receiver is consumed whole, however harmful as messages; every
  // unlisted code is one byte.
  using namespace networking;
  const std::vector<int> listed = {MSG_DISCONNECT,    MSG_WORLD,          MSG_ADMIN_STATUS,
                                   MSG_ENTITY_CREATE, MSG_ENTITY_DESTROY, MSG_ENTITY_UPDATE,
                                   MSG_ENTITY_MOVE,   MSG_FOR_MODULE};
  Bytes unlisted;
  for (int code = 0; code < 256; ++code) {
    if (std::find(listed.begin(), listed.end(), code) == listed.end()) unlisted.push_back(code);
  }
  const Bytes harmful = World("from the payload") + Disconnect();
  Send(ModuleMessage("NONE_loaded", harmful) + ModuleMessage("TEST_nohandler", harmful) + unlisted +
       Admin("", 0) + World(""));
  EXPECT_EQ(Game::_current_world, "");
  EXPECT_FALSE(client::Client::IsAdmin());
  EXPECT_FALSE(orvex::engine::QuitRequested());

  session->connection->Send(Disconnect());
  ASSERT_TRUE(WaitUntil([] { return orvex::engine::QuitRequested(); }));
  EXPECT_FALSE(Game::isActive);
  session->StopReceiving(/*wake=*/false);
}

// A creation whose fields end where the data's count begins.
wire::ByteWriter CreateHead(Id id) {
  wire::ByteWriter w;
  w.U8(networking::MSG_ENTITY_CREATE).Entity(id).Module(wire::ModuleID(kEntityMod)).Text("ship");
  return w.Entity(Id{}).Vec3({1, 2, 3}).Quat({}).U8(1).U8(0);
}

// Hostile servers (each row a fault once found): one line ends the receiving thread, nothing
// half-read is carried out, no memory follows a count, the game runs on with its replica.
TEST_F(ReliableMessages, HostileHugeCountsAndTruncationsEndTheThreadWithOneLine) {
  using namespace networking;
  using wire::ByteWriter;
  const std::string closed = "Connection closed by peer";
  struct Row {
    std::string name;
    Bytes message;
    std::string line;  // the closed connection: the server closes after the message
  };
  // clang-format off
  std::vector<Row> rows = {
      {"world name", ByteWriter().U8(MSG_WORLD).U32(0xFFFFFFFF), "4294967295"},
      {"privilege text", ByteWriter().U8(MSG_ADMIN_STATUS).U32(0x80000000), "2147483648"},
      {"interface name", ByteWriter().U8(MSG_ENTITY_CREATE).Entity(EntityId(2)).Module(wire::ModuleID(kEntityMod)).U32(~0u), "4294967295"},
      {"creation data", CreateHead(EntityId(2)).U32(0x80000000), "2147483648"},
      {"update data", ByteWriter().U8(MSG_ENTITY_UPDATE).Entity(EntityId(1)).Entity(Id{}).Vec3({}).Quat({}).U8(0).U8(1).U32(~0u), "4294967295"},
      {"module payload", ByteWriter().U8(MSG_FOR_MODULE).Module(wire::ModuleID(kRecorderMod)).U32(0x80000000), "2147483648"},
      // 16 MiB is accepted as a count; 64 KiB of it arrive, then the connection ends.
      {"count whose bytes never come", ByteWriter().U8(MSG_WORLD).U32(16u << 20).Append(Bytes(64 << 10, 'w')), closed},
  };
  // clang-format on
  const Bytes creation = Creation(EntityId(2), "ship");
  for (size_t length = 1; length < creation.size(); ++length) {
    rows.push_back(
        {"creation cut after " + std::to_string(length), Prefix(creation, length), closed});
  }
  const long before = PeakResidentMb();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    StderrCapture capture;  // before any thread of the client runs
    Start();
    Send(Creation(EntityId(1), "ship"));
    Game::_current_world = "Harbour";
    session->connection->Send(row.message);
    if (row.line == closed) session->connection->Close();
    ASSERT_TRUE(capture.WaitFor("ERROR: "));
    session->StopReceiving();
    const std::string text = capture.Text();
    EXPECT_EQ(text.find("ERROR: "), text.rfind("ERROR: ")) << "more than one line";
    EXPECT_THAT(text, HasSubstr(row.line));
    EXPECT_TRUE(ClientSideEntity::Exists(EntityId(1)));
    EXPECT_FALSE(ClientSideEntity::Exists(EntityId(2)));
    EXPECT_EQ(Game::_current_world, "Harbour");
    EXPECT_THAT(RecordedPayloads(), IsEmpty());
    EXPECT_EQ(client::Client::error, "");
  }
  EXPECT_LT(PeakResidentMb() - before, 256) << "MiB: memory followed a count";
}

// A connection that ends mid-message, or a server that stops reading (quarter-MiB frames fill
// the kernel's buffers): once a flush fails the game hears why; later frames fail at once.
TEST_F(ReliableMessages, HostileLostOrStalledConnectionEndsTheGameWithDisconnected) {
  for (const bool stalled : {false, true}) {
    SCOPED_TRACE(stalled ? "server stops reading" : "connection ends mid-message");
    StderrCapture capture;
    Start();
    LoadSendMod("HOST_chatter", [stalled](auto& reliable, auto&) {
      WriteBytes(reliable, Bytes(stalled ? 256 << 10 : 1, 0x5A));
    });
    if (!stalled) {
      session->connection->Send(Prefix(CreateHead(EntityId(3)), 20));
      session->connection->Close();
      ASSERT_TRUE(capture.WaitFor("ERROR: Connection closed by peer"));
    }
    EXPECT_TRUE(
        WaitUntil([&] { return session->client->Send(), !client::Client::error.empty(); }, 60000));
    EXPECT_TRUE(orvex::engine::QuitRequested());
    EXPECT_THAT(capture.Text(), HasSubstr(stalled ? "the peer is not reading" : "closed by peer"));
    session->client->Send();
    EXPECT_EQ(client::Client::error, "Disconnected from server");
  }
}

// Non-finite values are taken as they come; the next update repairs the entity.
TEST_F(ReliableMessages, HostileNaNAndInfinityAreTakenAndTheNextUpdateRepairs) {
  const double nan = std::numeric_limits<double>::quiet_NaN(),
               inf = std::numeric_limits<double>::infinity();
  const wire::ModuleID module(kEntityMod);
  Send(Create({EntityId(1), module, "ship", Id{}, {nan, inf, -inf}, {inf, nan, 0, 0}, 1, 0, {}}));
  const auto entity = FindEntity(EntityId(1));
  ASSERT_NE(entity, nullptr);
  EXPECT_TRUE(std::isnan(glm::dvec3(entity->position).x));
  Send(Update({EntityId(1), {}, {4, 5, 6}, {}, 0, 0, {}}));
  EXPECT_EQ(glm::dvec3(entity->position), glm::dvec3(4, 5, 6));
  EXPECT_EQ(game::entity::Orientation(entity->orientation), game::entity::Orientation());
}

TEST(ReliableMessagesDeathTest, BrokenInvariantsAbortWithTheAssertionLine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const struct {
    const char* name;
    Bytes message;
    bool dropInterface;
    std::string condition;
    int line;
  } rows[] = {
      {"creation of a live id", Creation(EntityId(1), "ship"), false,
       "!game::entity::ClientSideEntity::Exists\\(entityID\\)", 286},
      {"update of an unknown id", UpdateMessage(EntityId(2), 0, 0, {}), false, "entity", 317},
      {"move of an unknown id", Move({EntityId(2), 0, kSent, kSentTurn}), false, "entity", 362},
      {"update without interface", UpdateMessage(EntityId(1), 0, 0, {}), true, "interface", 343},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto run = [&] {
      CleanClientState clean;
      Session session;
      session.SendReliable(Creation(EntityId(1), "ship"));
      if (row.dropInterface) FindEntity(EntityId(1))->interface.reset();
      session.SendReliable(row.message);
    };
    EXPECT_EXIT(run(), testing::KilledBySignal(SIGABRT),
                testing::ContainsRegex(
                    "ASSERTION FAILED: \\(" + row.condition +
                    "\\) in src/client/Client\\.cpp:" + std::to_string(row.line) + "\n"));
  }
}

}  // namespace
