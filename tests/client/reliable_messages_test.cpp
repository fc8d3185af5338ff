// Reliable messages: the update and move decisions, the other messages, broken invariants.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <limits>
#include <memory>
#include <string>

#include "ClientSession.h"
#include "GAME_Mod.h"
#include "Game.h"
#include "TestMods.h"
#include "Wait.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using game::entity::Orientation;
using namespace testlib;

const glm::dvec3 kOld{1, 2, 3}, kOldTarget{4, 5, 6}, kOldVelocity{7, 8, 9}, kSent{10, -20, 30.5};
const Orientation kOldTurn{0, 1, 0, 0}, kOldTargetTurn{0, 0, 1, 0}, kSentTurn{.5, .5, -.5, .5};
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes Creation(Id id, const std::string& text) {
  return Create({id, EntityMod::Id(), text, {}, {}, {}, 0, 0, {}});
}

Bytes UpdateMessage(Id id, uint8_t smooth, uint8_t forceSnap, const Bytes& data) {
  return Update({id, EntityId(999), kSent, kSentTurn, smooth, forceSnap, data});
}

class ReliableMessages : public testing::Test {
 protected:
  ReliableMessages() { EntityMod::Install(); }
  void Send(const Bytes& bytes) { session->SendReliable(bytes); }

  CleanClientState clean;
  std::unique_ptr<Session> session = std::make_unique<Session>();
};

TEST_F(ReliableMessages, CreationRegistersTheEntityWithItsFlagsAndData) {
  Send(Create(
      {EntityId(1), EntityMod::Id(), "ship", EntityId(77), kSent, kSentTurn, 2, 3, {0xDE, 0xAD}}));
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

// What an update or a move does to the transform: nothing, the target only, or both, and
// whether it stops the entity. An update: a non-driven entity takes a position only with
// smooth 0 and forceSnap set; a driven one that gets transform datagrams (rate not 0, NaN
// and infinity included) with smoothing and no forced snap gets a target only; it always
// takes smooth, forceSnap and the data. A move reads the entity's stored forceSnap, treats
// driven and static alike, keeps forceSnap and never calls Sync.
enum Transform { kNone, kTarget, kBoth };
struct DecisionRow {
  const char* name;
  bool move, driven;
  uint8_t smooth;
  float rate;
  uint8_t forceSnap;
  Transform transform;
  bool stop;
};
// clang-format off
const DecisionRow kDecisions[] = {
    {"update static S0 R0 F0", false, false, 0, 0.0f, 0, kNone, true},
    {"update static S0 R.5 F0", false, false, 0, 0.5f, 0, kNone, true},
    {"update static S0 R0 F1 snaps", false, false, 0, 0.0f, 1, kBoth, true},
    {"update static S0 R.5 F1 snaps", false, false, 0, 0.5f, 1, kBoth, true},
    {"update static S1 R0 F0 keeps velocity", false, false, 1, 0.0f, 0, kNone, false},
    {"update static S1 R.5 F0 keeps velocity", false, false, 1, 0.5f, 0, kNone, false},
    {"update static S2 R0 F0", false, false, 2, 0.0f, 0, kNone, true},
    {"update static S1 R0 F1", false, false, 1, 0.0f, 1, kNone, true},
    {"update static S2 R.5 F3", false, false, 2, 0.5f, 3, kNone, true},
    {"update driven S0 R0 F0", false, true, 0, 0.0f, 0, kBoth, true},
    {"update driven S0 R.5 F1", false, true, 0, 0.5f, 1, kBoth, true},
    {"update driven S1 R0 F0 keeps velocity", false, true, 1, 0.0f, 0, kBoth, false},
    {"update driven S2 R0 F0", false, true, 2, 0.0f, 0, kBoth, true},
    {"update driven S1 R0 F1", false, true, 1, 0.0f, 1, kBoth, true},
    {"update driven S2 R.5 F1", false, true, 2, 0.5f, 1, kBoth, true},
    {"update driven S1 NaN F1", false, true, 1, kNaN, 1, kBoth, true},
    {"update driven S1 R.5 F0 target", false, true, 1, 0.5f, 0, kTarget, false},
    {"update driven S2 R.5 F0 target", false, true, 2, 0.5f, 0, kTarget, false},
    {"update driven S1 NaN F0 target", false, true, 1, kNaN, 0, kTarget, false},
    {"update driven S1 inf F0 target", false, true, 1, kInf, 0, kTarget, false},
    {"move S0 R0 G0", true, true, 0, 0.0f, 0, kBoth, true},
    {"move S0 R.5 G1", true, false, 0, 0.5f, 1, kBoth, true},
    {"move S1 R0 G0 keeps velocity", true, true, 1, 0.0f, 0, kBoth, false},
    {"move S2 R0 G0 keeps velocity", true, false, 2, 0.0f, 0, kBoth, false},
    {"move S1 R0 G1", true, true, 1, 0.0f, 1, kBoth, true},
    {"move S1 R.5 G1", true, false, 1, 0.5f, 1, kBoth, true},
    {"move S2 NaN G4", true, true, 2, kNaN, 4, kBoth, true},
    {"move static S1 R.5 G0 target", true, false, 1, 0.5f, 0, kTarget, false},
    {"move driven S1 R.5 G0 target", true, true, 1, 0.5f, 0, kTarget, false},
    {"move S2 inf G0 target", true, false, 2, kInf, 0, kTarget, false},
};
// clang-format on

TEST_F(ReliableMessages, UpdateAndMoveDecisionTable) {
  uint64_t next = 1;
  for (const DecisionRow& row : kDecisions) {
    SCOPED_TRACE(row.name);
    const Id id = EntityId(next++);
    Send(Creation(id, row.driven ? "ship" : "static"));
    const ClientSideEntity::Ptr e = FindEntity(id);
    // Known values in every field the message may write.
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
    EXPECT_EQ(e->smooth, row.smooth);
    EXPECT_EQ(e->forceSnap, row.forceSnap);
    EXPECT_EQ(RecordingOf(id)->Syncs().size(), row.move ? 1u : 2u);
    EXPECT_EQ(RecordingOf(id)->Syncs().back(), row.move ? Bytes{} : data);
  }
}

TEST_F(ReliableMessages, DestroyWorldAdminAndModuleMessages) {
  RecorderMod::Install();
  GAME_Mod::Load(std::make_shared<GAME_Mod>("TEST_nohandler"));
  const Bytes payload{0x02, 0x7F, 0x00, 0x41};
  Send(Creation(EntityId(1), "ship") + Creation(EntityId(2), "ship") + Destroy(EntityId(1)) +
       World("arena-7") + Admin("granted by operator", 1) +
       ModuleMessage(RecorderMod::kName, payload));
  EXPECT_FALSE(ClientSideEntity::Exists(EntityId(1)));
  EXPECT_TRUE(ClientSideEntity::Exists(EntityId(2)));
  EXPECT_EQ(Game::_current_world, "arena-7");
  EXPECT_TRUE(client::Client::IsAdmin());
  EXPECT_EQ(RecorderMod::Payloads(), std::vector<Bytes>{payload});

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

// Broken invariants abort with a fixed line.
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
      EntityMod::Install();
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
