// Datagrams from the server: the checks that decide whether one is taken in, the sequence
// and environment filters, and the hand-over to the game thread.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "client/ClientHarness.h"
#include "client/OutboundSupport.h"
#include "client/TestMods.h"
#include "support_helpers/StderrCapture.h"

namespace clienttest {

using testing_support::StderrCapture;
namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;

Bytes Transforms(uint64_t sequence, double serverTime,
                 const std::vector<wire::TransformRecord>& records, int32_t divisor = 1,
                 uint64_t parentEnvironment = 0, uint64_t relativeEnvironment = 0) {
  wire::StateHeader header;
  header.serverTime = serverTime;
  header.sequence = sequence;
  header.parentEnvironment = parentEnvironment;
  header.relativeEnvironment = relativeEnvironment;
  header.divisor = divisor;
  return wire::TransformsDatagram(header, Id{}, records);
}

Bytes Physics(uint64_t sequence, double serverTime, const std::vector<wire::PhysicsRecord>& records,
              int32_t divisor = 1, uint64_t parentEnvironment = 0,
              uint64_t relativeEnvironment = 0) {
  wire::StateHeader header;
  header.serverTime = serverTime;
  header.sequence = sequence;
  header.parentEnvironment = parentEnvironment;
  header.relativeEnvironment = relativeEnvironment;
  header.divisor = divisor;
  return wire::PhysicsDatagram(header, records);
}

wire::TransformRecord At(Id id, double x) {
  wire::TransformRecord record;
  record.id = id;
  record.position = glm::dvec3(x, 0, 0);
  return record;
}

wire::PhysicsRecord Moving(Id id, double vx) {
  wire::PhysicsRecord record;
  record.id = id;
  record.velocity = glm::dvec3(vx, 0, 0);
  record.extra = glm::dvec3(0, 0, vx);
  return record;
}

class DatagramIntake : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    // The receive stamp and the liveness check read this clock.
    FakeClock::Install();
    EntityMod::Install();
    RecorderMod::Install();
    session = std::make_unique<Session>();
    session->LearnDatagramAddress();
  }
  void TearDown() override {
    session.reset();
    ClientTest::TearDown();
  }

  const client::Counters& Counters() { return session->Client().GetCounters(); }

  // Sends a datagram, followed by a probe; returns once both were taken in or dropped.
  void Send(const Bytes& bytes) { session->SendDatagram(bytes); }
  // Refreshes the receive stamp with the present (through the probe).
  void StampNow() { Send(Bytes(1, 0)); }

  // Sends a datagram that the client drops before the receive stamp, then a 7-byte one,
  // and waits until the short one was dropped: neither refreshes the stamp, so this is the
  // barrier for cases that watch the stamp.
  void SendUnstamped(const Bytes& bytes) {
    const uint64_t shortOnes = Counters().droppedShort;
    server().SendDatagram(session->clientAddress, session->clientPort, bytes);
    server().SendDatagram(session->clientAddress, session->clientPort, Bytes(7, 'T'));
    ASSERT_TRUE(WaitUntil([&] { return Counters().droppedShort > shortOnes; }));
  }

  // Whether the send step gives up on a silent server now (it then quits the game).
  bool LivenessGivesUp() {
    StderrCapture quiet;
    session->Client().Send();
    return Game::QuitRequested();
  }

  testserver::TestServer& server() { return session->server; }
  static void Advance(double seconds) { FakeClock::Advance(seconds * 1000.0); }
  static size_t RunGameThread() { return Game::RunSynchronized(); }

  std::unique_ptr<Session> session;
};

const Bytes kMagic{'T', 'O', 'V', 'R', 'A', 'N', 'E', '!'};

TEST_F(DatagramIntake, MagicAloneCountsAsSignOfLife) {
  StampNow();
  Advance(20);
  SendUnstamped(kMagic);
  EXPECT_FALSE(LivenessGivesUp()) << "the 8-byte datagram did not refresh the stamp";

  Advance(20);
  EXPECT_TRUE(LivenessGivesUp()) << "the clock seam does not reach the liveness check";
}

TEST_F(DatagramIntake, ShortDatagramsAndWrongMagicAreDroppedSilently) {
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship");
  StampNow();
  Advance(20);
  StderrCapture captured;

  SendUnstamped(Bytes(kMagic.begin(), kMagic.end() - 1));
  Bytes wrongMagic = Transforms(1, 5.0, {At(EntityId(1), 3)});
  wrongMagic[7] = '?';
  SendUnstamped(wrongMagic);

  EXPECT_EQ(RunGameThread(), 0u);
  EXPECT_FALSE(ship->hasTarget);
  EXPECT_EQ(Game::timestamp, 0.0);
  EXPECT_EQ(captured.Text(), "");
  EXPECT_TRUE(LivenessGivesUp()) << "a dropped datagram refreshed the stamp";
}

TEST_F(DatagramIntake, DatagramFromAnotherAddressIsReportedAndChangesNothing) {
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship");
  StampNow();
  Advance(20);
  StderrCapture captured;

  server().SendDatagramFrom("127.0.0.2", session->clientAddress, session->clientPort,
                            Transforms(1, 5.0, {At(EntityId(1), 3)}));
  ASSERT_TRUE(captured.WaitFor("\n"));

  EXPECT_EQ(captured.Text(), "Client received UDP packet from wrong ip address\n");
  EXPECT_EQ(RunGameThread(), 0u);
  EXPECT_FALSE(ship->hasTarget);
  EXPECT_EQ(Game::timestamp, 0.0);
  EXPECT_TRUE(LivenessGivesUp()) << "a foreign sender refreshed the stamp";
}

TEST_F(DatagramIntake, TransformSequenceDropsOnlyOlderDatagramsWhenTheDivisorIsOne) {
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship");
  struct Step {
    uint64_t sequence;
    int32_t divisor;
    double x;
    bool accepted;
    double timestampAfter;
  };
  const Step steps[] = {
      {5, 1, 50, true, 50},   // first
      {5, 1, 51, true, 51},   // equal: accepted
      {4, 1, 40, false, 51},  // older: dropped
      {6, 1, 60, true, 60},   // newer
      {0, 2, 1, true, 60},    // divisor 2: no sequence test, no time
      {5, 1, 52, false, 60},  // the divisor-2 datagram left the counter at 6
  };
  double lastX = 0;
  for (const Step& step : steps) {
    SCOPED_TRACE(testing::Message()
                 << "sequence " << step.sequence << ", divisor " << step.divisor);
    Send(Transforms(step.sequence, step.x, {At(EntityId(1), step.x)}, step.divisor));
    EXPECT_EQ(RunGameThread(), step.accepted ? 1u : 0u);
    if (step.accepted) lastX = step.x;
    EXPECT_EQ(glm::dvec3(ship->targetPosition).x, lastX);
    EXPECT_EQ(Game::timestamp, step.timestampAfter);
  }
}

TEST_F(DatagramIntake, PhysicsSequenceIsCountedApartFromTransforms) {
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship");
  Send(Transforms(10, 1.0, {}));
  Send(Physics(3, 2.0, {Moving(EntityId(1), 3)}));
  EXPECT_EQ(RunGameThread(), 2u) << "a transform sequence must not make physics stale";
  EXPECT_EQ(Game::timestamp, 2.0);

  Send(Physics(2, 3.0, {Moving(EntityId(1), 2)}));
  Send(Transforms(10, 4.0, {}));
  EXPECT_EQ(RunGameThread(), 1u);
  EXPECT_EQ(glm::dvec3(ship->velocity).x, 3.0);
  EXPECT_EQ(Game::timestamp, 4.0);
}

TEST_F(DatagramIntake, ProcessThatHostsTheServerNeverTakesTheServerTime) {
  Game::_is_server = true;
  Send(Transforms(1, 11.0, {}));
  Send(Physics(1, 12.0, {}));
  EXPECT_EQ(RunGameThread(), 2u);
  EXPECT_EQ(Game::timestamp, 0.0);
}

TEST_F(DatagramIntake, ForeignTransformsOnlyClearTheTarget) {
  Game::parentEnvironmentId = 10;
  Game::relativeEnvironmentId = 20;
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship", EntityId(50), {1, 2, 3});
  ship->targetPosition = glm::dvec3(4, 5, 6);
  ship->updateRate = 0.25f;
  ship->hasTarget = true;
  ship->stale = true;
  const ClientSideEntity::Ptr rock = MakeEntity(EntityId(2), "static");
  rock->hasTarget = true;

  for (const auto& [parentEnvironment, relativeEnvironment] :
       {std::pair<uint64_t, uint64_t>{10, 21}, {11, 20}}) {
    ship->hasTarget = true;
    Send(Transforms(1, 7.0, {At(EntityId(1), 99), At(EntityId(2), 99)}, 1, parentEnvironment,
                    relativeEnvironment));
    EXPECT_EQ(RunGameThread(), 1u);
    EXPECT_FALSE(ship->hasTarget);
  }
  EXPECT_EQ(glm::dvec3(ship->position), glm::dvec3(1, 2, 3));
  EXPECT_EQ(glm::dvec3(ship->targetPosition), glm::dvec3(4, 5, 6));
  EXPECT_EQ(float(ship->updateRate), 0.25f);
  EXPECT_EQ(Id(ship->parentId), EntityId(50));
  EXPECT_TRUE(ship->stale);
  EXPECT_TRUE(rock->hasTarget) << "an entity that is not driven is left alone";

  // The next transform from the local environment snaps the entity.
  Send(Transforms(2, 8.0, {At(EntityId(1), 42)}, 1, 10, 20));
  EXPECT_EQ(RunGameThread(), 1u);
  EXPECT_EQ(glm::dvec3(ship->position), glm::dvec3(42, 0, 0));
  EXPECT_TRUE(ship->hasTarget);
}

TEST_F(DatagramIntake, ForeignPhysicsIsDroppedAfterItsSequenceCounts) {
  Game::parentEnvironmentId = 10;
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship");

  Send(Physics(9, 90.0, {Moving(EntityId(1), 9)}, 1, 11, 0));
  EXPECT_EQ(RunGameThread(), 0u);
  EXPECT_EQ(glm::dvec3(ship->velocity), glm::dvec3(0.0));
  EXPECT_EQ(Game::timestamp, 90.0);

  Send(Physics(8, 80.0, {Moving(EntityId(1), 8)}, 1, 10, 0));
  EXPECT_EQ(RunGameThread(), 0u) << "sequence 8 must be stale after the foreign 9";

  Send(Physics(9, 91.0, {Moving(EntityId(1), 9)}, 1, 10, 0));
  EXPECT_EQ(RunGameThread(), 1u);
  EXPECT_EQ(glm::dvec3(ship->velocity), glm::dvec3(9, 0, 0));
}

TEST_F(DatagramIntake, ModuleDatagramsGoStraightToTheirHandler) {
  auto silent = std::make_shared<GAME_Mod>("TEST_nohandler");
  GAME_Mod::Load(silent);
  const Bytes payload{0x44, 0x00, 0x01};

  Send(wire::ModuleDatagram(orvex::modular::ModuleID("NONE_loaded"), payload));
  Send(wire::ModuleDatagram(orvex::modular::ModuleID("TEST_nohandler"), payload));
  Send(wire::ModuleDatagram(RecorderMod::Id(), payload));

  EXPECT_EQ(RecorderMod::Payloads(), std::vector<Bytes>{payload});
  EXPECT_EQ(RunGameThread(), 0u) << "module handlers do not wait for the game thread";
}

}  // namespace
}  // namespace clienttest
