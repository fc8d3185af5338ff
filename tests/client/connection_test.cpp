// The TCP side: hello forms, construction failures, welcome, every message and its decisions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "ClientSession.h"
#include "GAME_Mod.h"
#include "Game.h"
#include "Hex.h"
#include "StderrCapture.h"
#include "Wait.h"

namespace {

using namespace testlib;
using testing::HasSubstr;

class Connection : public testing::Test {
  CleanClientState clean;
};

TEST_F(Connection, HelloWithPasswordAndLongestTokenOverIPv6) {
  testserver::TestServer server("::1");
  auto connecting = Connect(server.Port(), std::string(64, 'k'), "pw", "::1");
  auto connection = server.Accept();
  const Bytes hello = Hello(std::string(64, 'k'), "pw");
  EXPECT_HEX_EQ(connection->ReadBytes(hello.size()), hello);
  EXPECT_TRUE(connection->ReadAvailable(200).empty()) << "bytes after the hello";
  connection->Send(Welcome());
  EXPECT_NE(connecting.get(), nullptr);
}

// The server's answer to the hello and the constructor's exception text (a part of it for
// the counts). A count over its cap is refused before anything is allocated while the
// server stays connected: only the count can end the wait.
TEST_F(Connection, ConstructionFailures) {
  wire::Welcome otherVersion = DefaultWelcome(), unterminated = DefaultWelcome(),
                innerZero = DefaultWelcome();
  otherVersion.networkingVersion = 2;
  // Found by fuzzing the welcome: the text went to the parser, which reads to a zero byte.
  unterminated.config = {'g', 'o'};
  innerZero.config = {'a', 'b', '\0', 'c', 'd'};
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
      {"other networking version", Welcome(otherVersion), false, false, "Networking version mismatch"},
      {"silence (5 s of real time)", {}, false, false, "Connection attempt failed: Timed out"},
      {"huge user name", head().U32(~0u), false, false, "4294967295 bytes exceeds the limit"},
      {"huge mod name", head().Text("pilot").U32(65536), false, false, "65536 bytes exceeds the limit"},
      {"huge mod list", longModList, false, false, "16777216 bytes exceeds the limit"},
      {"huge configuration", head().Text("pilot").Text("").I32(3).U32(~0u), false, false, "4294967295 bytes exceeds the limit"},
      {"huge refusal", wire::ByteWriter().U8(0).U32(0x80000000), false, false, "2147483648 bytes exceeds the limit"},
      {"configuration without zero byte", Welcome(unterminated), false, false, "Configuration text is not zero-terminated"},
      {"configuration ends at its first zero", Welcome(innerZero), false, false, ""},
      {"a hosting process never parses the configuration", Welcome(unterminated), false, true, ""},
  };
  // clang-format on
  wire::Welcome welcome = DefaultWelcome();
  welcome.mods = {"CORE_ship", "DEMO_sandbox"};
  const Bytes whole = Welcome(welcome);
  for (size_t length = 0; length < whole.size(); ++length) {
    rows.push_back({"welcome cut after " + std::to_string(length),
                    Bytes(whole.begin(), whole.begin() + length), true, false,
                    "Connection closed by peer"});
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
    EXPECT_EQ(Game::config.Text(), row.error.empty() && !row.hosting ? "ab" : "");
  }
  EXPECT_LT(PeakResidentMb() - before, 256) << "MiB: memory followed a count";
}

TEST_F(Connection, TokenOfSixtyFiveBytesIsRefusedBeforeAnyByteLeaves) {
  testserver::TestServer server;
  auto connecting = Connect(server.Port(), std::string(65, 'k'));
  auto connection = server.Accept();
  try {
    connecting.get();
    ADD_FAILURE() << "a 65-byte token was accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Bad Token Length");
  }
  EXPECT_TRUE(connection->WaitClosed(5000));
  EXPECT_TRUE(connection->Pending().empty()) << "the client sent bytes before refusing";
  EXPECT_EQ(client::Client::_instance, nullptr);
}

TEST_F(Connection, WelcomeSetsTheGameUnlessTheProcessHostsTheServer) {
  for (const bool hosting : {false, true}) {
    SCOPED_TRACE(hosting ? "hosting" : "client, no configuration");
    ResetClientState();
    Game::_is_server = hosting;
    Game::_mode = 5;
    Game::_mods = {"OLD_entry"};
    SessionOptions options;
    options.welcome = {1, 0x0A0B, kPlayerId, "pilot", {"CORE_ships"}, -7, {}};
    if (hosting) options.welcome.config = wire::ConfigText("gravity=9.81");
    Session session(options);
    EXPECT_EQ(Game::_mode, hosting ? 5 : -7);
    EXPECT_EQ(Game::_mods[0], hosting ? "OLD_entry" : "CORE_ships");
    EXPECT_EQ(Game::config.ParseCount(), hosting ? 0 : 1);
    EXPECT_EQ(Game::config.Text(), "");
    // Any byte of the welcome left unread would be taken for a message code here.
    session.SendReliable(World("arena"));
    EXPECT_EQ(Game::_current_world, "arena");
    EXPECT_EQ(client::Client::_instance, &session.Client());
    EXPECT_EQ(client::Client::GetUsername(), "pilot");
    EXPECT_EQ(client::Client::GetPlayerID(), kPlayerId);
    EXPECT_FALSE(client::Client::IsAdmin());
  }
}

TEST_F(Connection, AccessorsAbortWithTheAssertionLineOnceTheClientIsGone) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto destroyed = [] {
    Session session;
    session.StopReceiving();
    session.client.reset();
  };
  const std::string file = "\\) in src/client/Client\\.cpp:[0-9]+";
  const auto aborts = testing::KilledBySignal(SIGABRT);
  using testing::ContainsRegex;
  EXPECT_EXIT((destroyed(), client::Client::GetPlayerID()), aborts,
              ContainsRegex("ASSERTION FAILED: \\(Client::_instance" + file));
  EXPECT_EXIT((destroyed(), client::Client::GetUsername()), aborts,
              ContainsRegex("ASSERTION FAILED: \\(_instance" + file));
  EXPECT_EXIT((destroyed(), client::Client::IsAdmin()), aborts,
              ContainsRegex("ASSERTION FAILED: \\(_instance" + file));
}

// Connect handlers are plain function pointers, so what they see is process-wide.
testserver::TestConnection* connectServer = nullptr;
bool alphaLeftEarly = false;

TEST_F(Connection, ConnectHandlersThatWriteSendOneMessageEachInOneFlush) {
  using orvex::filesystem::WriteOnlyStream;
  Session session;
  const GAME_Mod::ConnectHandler alpha = [](uint64_t playerId, std::string& username,
                                            WriteOnlyStream& stream) {
    stream.WriteValue(playerId);
    stream.Write(username);
  };
  const GAME_Mod::ConnectHandler silent = [](uint64_t, std::string&, WriteOnlyStream&) {};
  // Runs after alpha's message was written: that must not have left yet.
  const GAME_Mod::ConnectHandler beta = [](uint64_t, std::string&, WriteOnlyStream& stream) {
    alphaLeftEarly = !connectServer->ReadAvailable(100, 100).empty();
    stream.Write(reinterpret_cast<const unsigned char*>("beta!"), 5);
  };
  for (const auto& [name, handler] :
       {std::pair{"TEST_alpha", alpha}, {"TEST_silent", silent}, {"TEST_beta", beta}}) {
    auto mod = std::make_shared<GAME_Mod>(name);
    mod->clientConnectHandler = handler;
    GAME_Mod::Load(mod);
  }
  connectServer = &session.Connection();
  session.Client().Connected();
  EXPECT_FALSE(alphaLeftEarly) << "a connect message left before the last mod ran";
  const Bytes expected =
      ModuleRecord("TEST_alpha", wire::ByteWriter().U64(kPlayerId).Text("pilot")) +
      ModuleRecord("TEST_beta", TextBytes("beta!"));
  EXPECT_HEX_EQ(session.Connection().ReadBytes(expected.size()), expected);
  EXPECT_TRUE(session.Connection().ReadAvailable(200).empty()) << "the silent mod sent bytes";
}

TEST_F(Connection, ReceivingThreadEndsOnStopOrWithOneErrorLineOnAReadFailure) {
  Session stopped;
  stopped.StopReceiving(/*wake=*/false);  // returns once the game stops

  client::Client::error = "earlier loss";
  StderrCapture captured;
  Session session;
  const Bytes world = World("abcdefgh");
  session.Connection().Send(Bytes(world.begin(), world.begin() + 7));
  session.Connection().Close();
  ASSERT_TRUE(captured.WaitFor("\n"));
  session.StopReceiving();
  EXPECT_THAT(captured.Text(), testing::MatchesRegex("ERROR: [^\n]+\n"));
  EXPECT_EQ(client::Client::error, "earlier loss");
  EXPECT_FALSE(Game::QuitRequested());
}

TEST_F(Connection, DestructionSendsDisconnectAndClosesEvenWithoutServer) {
  SessionOptions options;
  options.startReceiving = false;
  Session session(options);
  session.client.reset();
  EXPECT_EQ(client::Client::_instance, nullptr);
  EXPECT_EQ(session.Connection().ReadBytes(1), Disconnect());
  EXPECT_TRUE(session.Connection().WaitClosed(5000));

  Session gone(options);
  gone.connection.reset();
  EXPECT_NO_THROW(gone.client.reset());
}

using game::entity::ClientSideEntity;
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

class ReliableMessages : public testing::Test {
 protected:
  ReliableMessages() { InstallTestMods(); }
  void Send(const Bytes& bytes) { session->SendReliable(bytes); }

  CleanClientState clean;
  std::unique_ptr<Session> session = std::make_unique<Session>();
};

TEST_F(ReliableMessages, CreationRegistersTheEntityWithItsFlagsAndData) {
  Send(Create({EntityId(1),
               wire::ModuleID(kEntityMod),
               "ship",
               EntityId(77),
               kSent,
               kSentTurn,
               2,
               3,
               {0xDE, 0xAD}}));
  const ClientSideEntity::Ptr entity = FindEntity(EntityId(1));
  ASSERT_NE(entity, nullptr);
  EXPECT_EQ(entity->text, "ship");
  EXPECT_EQ(Id(entity->parentId), EntityId(77));
  EXPECT_EQ(glm::dvec3(entity->position), kSent);
  EXPECT_EQ(Orientation(entity->orientation), kSentTurn);
  EXPECT_TRUE(entity->velocityReset);
  EXPECT_EQ(entity->smooth + 10 * entity->forceSnap, 32);
  EXPECT_EQ(RecordingOf(EntityId(1))->Syncs(), (std::vector<Bytes>{{0xDE, 0xAD}}));

  // A module without interface, or none loaded, leaves nothing behind.
  Send(Creation(EntityId(2), "nointerface") +
       Create({EntityId(3), wire::ModuleID("NONE_loaded"), "ship", {}, {}, {}, 0, 0, {}}) +
       World("after"));
  EXPECT_FALSE(ClientSideEntity::Exists(EntityId(2)) || ClientSideEntity::Exists(EntityId(3)));
  EXPECT_EQ(Game::_current_world, "after");
}

// What an update or a move (S: smooth, R: update rate, F: the update's forceSnap, G: the
// stored one a move reads) does to the transform, and whether it stops the entity. Updates
// always take S, F and the data; moves keep G and never call Sync.
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
    e->position = kOld;
    e->orientation = kOldTurn;
    e->targetPosition = kOldTarget;
    e->targetOrientation = kOldTargetTurn;
    e->velocity = kOldVelocity;
    e->velocityReset = e->hasTarget = false;
    e->stale = true;
    e->updateRate = row.rate;
    e->smooth = 9;
    e->forceSnap = row.move ? row.forceSnap : 9;
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
    EXPECT_TRUE(e->hasTarget && !e->stale);
    EXPECT_EQ(e->smooth + 100 * e->forceSnap, row.smooth + 100 * row.forceSnap);
    EXPECT_EQ(RecordingOf(id)->Syncs().size(), row.move ? 1u : 2u);
    EXPECT_EQ(RecordingOf(id)->Syncs().back(), row.move ? Bytes{} : data);
  }
}

TEST_F(ReliableMessages, DestroyWorldAdminAndModuleMessages) {
  GAME_Mod::Load(std::make_shared<GAME_Mod>("TEST_nohandler"));
  const Bytes payload{0x02, 0x7F, 0x00, 0x41};
  Send(Creation(EntityId(1), "ship") + Creation(EntityId(2), "ship") + Destroy(EntityId(1)) +
       World("arena-7") + Admin("granted by operator", 1) + ModuleMessage(kRecorderMod, payload));
  EXPECT_FALSE(ClientSideEntity::Exists(EntityId(1)));
  EXPECT_TRUE(ClientSideEntity::Exists(EntityId(2)));
  EXPECT_EQ(Game::_current_world, "arena-7");
  EXPECT_TRUE(client::Client::IsAdmin());
  EXPECT_EQ(RecordedPayloads(), std::vector<Bytes>{payload});

  // A payload without receiver is consumed whole, however harmful as messages; codes
  // without fields are one byte each.
  const Bytes harmful = World("from the payload") + Disconnect();
  Send(ModuleMessage("NONE_loaded", harmful) + ModuleMessage("TEST_nohandler", harmful) +
       Bytes{0x03, 0x06, 0x43, 0x00, 0x99} + Admin("", 0) + World(""));
  EXPECT_EQ(Game::_current_world, "");
  EXPECT_FALSE(client::Client::IsAdmin() || Game::QuitRequested());

  session->Connection().Send(Disconnect());
  ASSERT_TRUE(WaitUntil([] { return Game::QuitRequested(); }));
  EXPECT_FALSE(Game::isActive);
  session->StopReceiving(/*wake=*/false);
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
      InstallTestMods();
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
