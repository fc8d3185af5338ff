// The server's reliable messages, sent byte by byte over loopback and carried out by the
// client's receiving thread.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "client/ClientHarness.h"
#include "client/TestMods.h"

namespace clienttest {
namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using game::entity::Orientation;
using orvex::filesystem::Stream;

const glm::dvec3 kOldPosition{1, 2, 3};
const Orientation kOldOrientation{0, 1, 0, 0};
const glm::dvec3 kOldTarget{4, 5, 6};
const Orientation kOldTargetOrientation{0, 0, 1, 0};
const glm::dvec3 kOldVelocity{7, 8, 9};
const glm::dvec3 kSentPosition{10, -20, 30.5};
const Orientation kSentOrientation{0.5, 0.5, -0.5, 0.5};

Bytes CreateMessage(const wire::EntityCreate& message) {
  return Encode([&](Stream& s) { wire::WriteEntityCreate(s, message); });
}

wire::EntityCreate Creation(Id id, const std::string& text) {
  wire::EntityCreate message;
  message.id = id;
  message.module = EntityMod::Id();
  message.text = text;
  return message;
}

Bytes UpdateMessage(Id id, uint8_t smooth, uint8_t forceSnap, const Bytes& data) {
  wire::EntityUpdate message;
  message.id = id;
  message.ignored = EntityId(999);
  message.position = kSentPosition;
  message.orientation = kSentOrientation;
  message.smooth = smooth;
  message.forceSnap = forceSnap;
  message.data = data;
  return Encode([&](Stream& s) { wire::WriteEntityUpdate(s, message); });
}

Bytes MoveMessage(Id id, uint8_t smooth) {
  wire::EntityMove message;
  message.id = id;
  message.smooth = smooth;
  message.position = kSentPosition;
  message.orientation = kSentOrientation;
  return Encode([&](Stream& s) { wire::WriteEntityMove(s, message); });
}

Bytes WorldMessage(const std::string& world) {
  return Encode([&](Stream& s) { wire::WriteWorld(s, world); });
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// What an update or a move did to the entity's transform.
enum class Transform { kNone, kTarget, kBoth };

const char* Name(Transform t) {
  return t == Transform::kNone ? "none" : t == Transform::kTarget ? "target only" : "both";
}

std::string RateText(float rate) {
  return std::isnan(rate) ? "NaN" : std::to_string(rate);
}

class ReliableMessages : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    EntityMod::Install();
    session = std::make_unique<Session>();
  }
  void TearDown() override {
    session.reset();
    ClientTest::TearDown();
  }

  void Send(const Bytes& bytes) { session->SendReliable(bytes); }

  // Creates an entity through a creation message and returns it.
  ClientSideEntity::Ptr Create(Id id, const std::string& text) {
    Send(CreateMessage(Creation(id, text)));
    ClientSideEntity::Ptr entity = FindEntity(id);
    if (!entity) ADD_FAILURE() << "the creation of " << id.word0 << " made no entity";
    return entity;
  }

  // Puts known values into every field an update or a move may write.
  static void Prime(ClientSideEntity& entity, float rate, uint8_t storedForceSnap = 9) {
    entity.position = kOldPosition;
    entity.orientation = kOldOrientation;
    entity.targetPosition = kOldTarget;
    entity.targetOrientation = kOldTargetOrientation;
    entity.velocity = kOldVelocity;
    entity.velocityReset = false;
    entity.updateRate = rate;
    entity.smooth = 9;
    entity.forceSnap = storedForceSnap;
    entity.hasTarget = false;
    entity.stale = true;
  }

  static void ExpectTransform(const ClientSideEntity& entity, Transform transform, bool stop) {
    const bool both = transform == Transform::kBoth;
    const bool target = transform != Transform::kNone;
    EXPECT_EQ(glm::dvec3(entity.position), both ? kSentPosition : kOldPosition);
    EXPECT_EQ(Orientation(entity.orientation), both ? kSentOrientation : kOldOrientation);
    EXPECT_EQ(glm::dvec3(entity.targetPosition), target ? kSentPosition : kOldTarget);
    EXPECT_EQ(Orientation(entity.targetOrientation),
              target ? kSentOrientation : kOldTargetOrientation);
    EXPECT_EQ(glm::dvec3(entity.velocity), stop ? glm::dvec3(0.0) : kOldVelocity);
    EXPECT_EQ(bool(entity.velocityReset), stop);
  }

  std::unique_ptr<Session> session;
};

// ---------------------------------------------------------------------------------------
// MSG_ENTITY_CREATE

TEST_F(ReliableMessages, CreationRegistersTheEntityWithItsFlagsAndData) {
  wire::EntityCreate message = Creation(EntityId(1), "ship");
  message.parent = EntityId(77);
  message.position = kSentPosition;
  message.orientation = kSentOrientation;
  message.smooth = 2;
  message.forceSnap = 3;
  message.data = {0xDE, 0xAD, 0xBE, 0xEF};
  Send(CreateMessage(message));

  const ClientSideEntity::Ptr entity = FindEntity(EntityId(1));
  ASSERT_NE(entity, nullptr);
  EXPECT_EQ(entity->moduleId, EntityMod::Id());
  EXPECT_EQ(entity->text, "ship");
  EXPECT_EQ(game::entity::Id(entity->parentId), EntityId(77));
  EXPECT_EQ(glm::dvec3(entity->position), kSentPosition);
  EXPECT_EQ(Orientation(entity->orientation), kSentOrientation);
  EXPECT_TRUE(entity->velocityReset);
  EXPECT_EQ(entity->smooth, 2);
  EXPECT_EQ(entity->forceSnap, 3);
  EXPECT_EQ(RecordingOf(EntityId(1))->Syncs(), std::vector<Bytes>{message.data});
}

TEST_F(ReliableMessages, CreationForAModuleWithoutInterfaceLeavesNothingBehind) {
  Send(CreateMessage(Creation(EntityId(1), "nointerface")) + WorldMessage("after"));
  EXPECT_FALSE(ClientSideEntity::Exists(EntityId(1)));
  EXPECT_EQ(Game::_current_world, "after");

  wire::EntityCreate unknownModule = Creation(EntityId(2), "ship");
  unknownModule.module = orvex::modular::ModuleID("NONE_loaded");
  Send(CreateMessage(unknownModule));
  EXPECT_FALSE(ClientSideEntity::Exists(EntityId(2)));
}

// ---------------------------------------------------------------------------------------
// MSG_ENTITY_UPDATE: the transform decision, row by row.

struct UpdateRow {
  bool driven;
  uint8_t smooth;
  float rate;
  uint8_t forceSnap;
  Transform transform;
  bool stop;
};

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// D = driven, S = smooth, R = updateRate, F = forceSnap. A non-driven entity takes a
// position only with S 0 and F set; a driven entity that already gets transform datagrams
// (R not 0, NaN and infinity included) with smoothing and no forced snap gets a target only.
// clang-format off
const UpdateRow kUpdateTable[] = {
    // D      S  R     F  transform          stop
    {false, 0, 0.0f, 0, Transform::kNone, true},
    {false, 0, 0.5f, 0, Transform::kNone, true},
    {false, 0, 0.0f, 1, Transform::kBoth, true},
    {false, 0, 0.5f, 1, Transform::kBoth, true},
    {false, 1, 0.0f, 0, Transform::kNone, false},
    {false, 1, 0.5f, 0, Transform::kNone, false},
    {false, 2, 0.0f, 0, Transform::kNone, true},
    {false, 2, 0.5f, 0, Transform::kNone, true},
    {false, 1, 0.0f, 1, Transform::kNone, true},
    {false, 1, 0.5f, 1, Transform::kNone, true},
    {false, 2, 0.5f, 3, Transform::kNone, true},
    {true,  0, 0.0f, 0, Transform::kBoth, true},
    {true,  0, 0.5f, 0, Transform::kBoth, true},
    {true,  0, 0.5f, 1, Transform::kBoth, true},
    {true,  1, 0.0f, 0, Transform::kBoth, false},
    {true,  2, 0.0f, 0, Transform::kBoth, true},
    {true,  1, 0.0f, 1, Transform::kBoth, true},
    {true,  2, 0.0f, 1, Transform::kBoth, true},
    {true,  1, 0.5f, 1, Transform::kBoth, true},
    {true,  2, 0.5f, 1, Transform::kBoth, true},
    {true,  1, kNaN, 1, Transform::kBoth, true},
    {true,  1, 0.5f, 0, Transform::kTarget, false},
    {true,  2, 0.5f, 0, Transform::kTarget, false},
    {true,  1, kNaN, 0, Transform::kTarget, false},
    {true,  1, kInf, 0, Transform::kTarget, false},
};
// clang-format on

TEST_F(ReliableMessages, UpdateFollowsTheDecisionTableAndAlwaysTakesFlagsAndData) {
  uint64_t next = 1;
  for (const UpdateRow& row : kUpdateTable) {
    SCOPED_TRACE(testing::Message()
                 << "driven " << row.driven << ", smooth " << int(row.smooth) << ", rate "
                 << RateText(row.rate) << ", forceSnap " << int(row.forceSnap) << ": expect "
                 << Name(row.transform) << (row.stop ? " and stop" : ""));
    const Id id = EntityId(next++);
    const ClientSideEntity::Ptr entity = Create(id, row.driven ? "ship" : "static");
    ASSERT_NE(entity, nullptr);
    Prime(*entity, row.rate);
    const Bytes data{uint8_t(next), 0x5A};

    Send(UpdateMessage(id, row.smooth, row.forceSnap, data));

    ExpectTransform(*entity, row.transform, row.stop);
    EXPECT_EQ(entity->smooth, row.smooth);
    EXPECT_EQ(entity->forceSnap, row.forceSnap);
    EXPECT_TRUE(entity->hasTarget);
    EXPECT_FALSE(entity->stale);
    EXPECT_EQ(RecordingOf(id)->Syncs().back(), data);
  }
}

// ---------------------------------------------------------------------------------------
// MSG_ENTITY_MOVE: S is the message's smooth byte, G the entity's stored forceSnap.

struct MoveRow {
  uint8_t smooth;
  float rate;
  uint8_t storedForceSnap;
  Transform transform;
  bool stop;
};

// clang-format off
const MoveRow kMoveRules[] = {
    // S  R     G  transform          stop
    {0, 0.0f, 0, Transform::kBoth, true},
    {0, 0.5f, 0, Transform::kBoth, true},
    {0, 0.5f, 1, Transform::kBoth, true},
    {1, 0.0f, 0, Transform::kBoth, false},
    {2, 0.0f, 0, Transform::kBoth, false},
    {1, 0.0f, 1, Transform::kBoth, true},
    {1, 0.5f, 1, Transform::kBoth, true},
    {2, kNaN, 4, Transform::kBoth, true},
    {1, 0.5f, 0, Transform::kTarget, false},
    {2, kInf, 0, Transform::kTarget, false},
};
// clang-format on

TEST_F(ReliableMessages, MoveFollowsItsOwnRulesForDrivenAndStaticEntities) {
  uint64_t next = 1;
  for (const bool driven : {true, false}) {
    for (const MoveRow& row : kMoveRules) {
      SCOPED_TRACE(testing::Message()
                   << "driven " << driven << ", smooth " << int(row.smooth) << ", rate "
                   << RateText(row.rate) << ", stored forceSnap " << int(row.storedForceSnap)
                   << ": expect " << Name(row.transform) << (row.stop ? " and stop" : ""));
      const Id id = EntityId(next++);
      const ClientSideEntity::Ptr entity = Create(id, driven ? "ship" : "static");
      ASSERT_NE(entity, nullptr);
      Prime(*entity, row.rate, row.storedForceSnap);
      const size_t syncs = RecordingOf(id)->Syncs().size();

      Send(MoveMessage(id, row.smooth));

      ExpectTransform(*entity, row.transform, row.stop);
      EXPECT_EQ(entity->smooth, row.smooth);
      EXPECT_EQ(entity->forceSnap, row.storedForceSnap) << "a move never changes forceSnap";
      EXPECT_TRUE(entity->hasTarget);
      EXPECT_FALSE(entity->stale);
      EXPECT_EQ(RecordingOf(id)->Syncs().size(), syncs) << "a move never calls Sync";
    }
  }
}

// ---------------------------------------------------------------------------------------
// The other messages.

TEST_F(ReliableMessages, DestroyRemovesTheEntity) {
  Create(EntityId(1), "ship");
  Create(EntityId(2), "ship");
  Send(Encode([](Stream& s) { wire::WriteEntityDestroy(s, EntityId(1)); }));
  EXPECT_FALSE(ClientSideEntity::Exists(EntityId(1)));
  EXPECT_TRUE(ClientSideEntity::Exists(EntityId(2)));
}

TEST_F(ReliableMessages, WorldNameGoesIntoTheGame) {
  Send(WorldMessage("arena-7"));
  EXPECT_EQ(Game::_current_world, "arena-7");
  Send(WorldMessage(""));
  EXPECT_EQ(Game::_current_world, "");
}

TEST_F(ReliableMessages, AdminStatusIsWhatIsAdminReports) {
  Send(Encode([](Stream& s) { wire::WriteAdminStatus(s, "granted by operator", 1); }));
  EXPECT_TRUE(client::Client::IsAdmin());
  Send(Encode([](Stream& s) { wire::WriteAdminStatus(s, "", 0); }));
  EXPECT_FALSE(client::Client::IsAdmin());
}

TEST_F(ReliableMessages, CodesWithoutFieldsAreSkippedAndTheNextByteIsACode) {
  for (const uint8_t code : {0x03, 0x06, 0x43, 0x00, 0x99}) {
    SCOPED_TRACE(testing::Message() << "code " << int(code));
    const std::string world = "world-" + std::to_string(code);
    Send(Bytes{code} + WorldMessage(world));
    EXPECT_EQ(Game::_current_world, world);
  }
  EXPECT_FALSE(Game::QuitRequested());
}

TEST_F(ReliableMessages, ModuleMessageReachesTheModuleHandler) {
  RecorderMod::Install();
  const Bytes payload{0x02, 0x7F, 0x00, 0x41};
  Send(Encode([&](Stream& s) { wire::WriteModuleMessage(s, RecorderMod::Id(), payload); }));
  EXPECT_EQ(RecorderMod::Payloads(), std::vector<Bytes>{payload});
}

TEST_F(ReliableMessages, ModuleMessageWithoutReceiverIsConsumedWhole) {
  auto silent = std::make_shared<GAME_Mod>("TEST_nohandler");
  GAME_Mod::Load(silent);
  // Payloads that would do harm if they were read as messages.
  const Bytes payload = WorldMessage("from the payload") + Bytes{0x02};
  for (const char* module : {"NONE_loaded", "TEST_nohandler"}) {
    SCOPED_TRACE(module);
    Send(Encode([&](Stream& s) {
           wire::WriteModuleMessage(s, orvex::modular::ModuleID(module), payload);
         }) +
         WorldMessage(std::string("after ") + module));
    EXPECT_EQ(Game::_current_world, std::string("after ") + module);
  }
  EXPECT_FALSE(Game::QuitRequested());
}

TEST_F(ReliableMessages, DisconnectQuitsTheGame) {
  session->Connection().Send(Encode([](Stream& s) { wire::WriteDisconnect(s); }));
  ASSERT_TRUE(WaitUntil([] { return Game::QuitRequested(); }));
  EXPECT_FALSE(Game::isActive);
  session->StopReceiving(/*wake=*/false);
}

// ---------------------------------------------------------------------------------------
// Broken invariants abort with a fixed line.

class ReliableMessagesDeathTest : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }

  // Creates entity 1 (driven) over a fresh session, runs `prepare` on it, then sends
  // `bytes`; returns only if the client survives.
  static void Run(const Bytes& bytes, void (*prepare)(ClientSideEntity&) = nullptr) {
    EntityMod::Install();
    Session session;
    session.SendReliable(CreateMessage(Creation(EntityId(1), "ship")));
    if (prepare != nullptr) prepare(*FindEntity(EntityId(1)));
    session.SendReliable(bytes);
  }

  static std::string Line(const std::string& condition, int line) {
    std::string pattern = "ASSERTION FAILED: \\(" + condition + "\\) in src/client/Client\\.cpp:";
    return pattern + std::to_string(line) + "\n";
  }
};

TEST_F(ReliableMessagesDeathTest, CreationOfAnExistingIdAborts) {
  EXPECT_EXIT(
      Run(CreateMessage(Creation(EntityId(1), "ship"))), testing::KilledBySignal(SIGABRT),
      testing::ContainsRegex(Line("!game::entity::ClientSideEntity::Exists\\(entityID\\)", 286)));
}

TEST_F(ReliableMessagesDeathTest, UpdateOfAnUnknownEntityAborts) {
  EXPECT_EXIT(Run(UpdateMessage(EntityId(2), 0, 0, {})), testing::KilledBySignal(SIGABRT),
              testing::ContainsRegex(Line("entity", 317)));
}

TEST_F(ReliableMessagesDeathTest, MoveOfAnUnknownEntityAborts) {
  EXPECT_EXIT(Run(MoveMessage(EntityId(2), 0)), testing::KilledBySignal(SIGABRT),
              testing::ContainsRegex(Line("entity", 362)));
}

TEST_F(ReliableMessagesDeathTest, UpdateOfAnEntityWithoutInterfaceAborts) {
  EXPECT_EXIT(Run(UpdateMessage(EntityId(1), 0, 0, {}),
                  [](ClientSideEntity& entity) { entity.interface.reset(); }),
              testing::KilledBySignal(SIGABRT), testing::ContainsRegex(Line("interface", 343)));
}

}  // namespace
}  // namespace clienttest
