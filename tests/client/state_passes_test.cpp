// The transform and physics passes that apply a state datagram's records to the replica on
// the game thread. Each case runs a pass directly over record bytes.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "client/ClientHarness.h"
#include "client/StatePasses.h"
#include "client/TestMods.h"
#include "support_helpers/StderrCapture.h"

namespace clienttest {

using testing_support::StderrCapture;
namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using game::entity::Orientation;
using orvex::filesystem::ReadOnlyStream;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// The records of a datagram, without its header.
Bytes TransformRecords(const std::vector<wire::TransformRecord>& records) {
  const Bytes datagram = wire::TransformsDatagram({}, Id{}, records);
  return Bytes(datagram.begin() + wire::kTransformsHeaderSize, datagram.end());
}

Bytes PhysicsRecords(const std::vector<wire::PhysicsRecord>& records) {
  const Bytes datagram = wire::PhysicsDatagram({}, records);
  return Bytes(datagram.begin() + wire::kPhysicsHeaderSize, datagram.end());
}

void RunTransforms(const Bytes& records, int32_t divisor = 1, Id parent = {},
                   bool foreign = false) {
  client::TransformPass pass(ReadOnlyStream(records.data(), records.size()), divisor, parent,
                             foreign);
  pass();
}

void RunPhysics(const Bytes& records) {
  client::PhysicsPass pass(ReadOnlyStream(records.data(), records.size()));
  pass();
}

wire::TransformRecord Record(Id id, glm::dvec3 position, float w = 1, float x = 0, float y = 0,
                             float z = 0) {
  wire::TransformRecord record;
  record.id = id;
  record.position = position;
  record.orientation[0] = w;
  record.orientation[1] = x;
  record.orientation[2] = y;
  record.orientation[3] = z;
  return record;
}

wire::PhysicsRecord Physics(Id id, glm::dvec3 velocity, glm::dvec3 extra) {
  wire::PhysicsRecord record;
  record.id = id;
  record.velocity = velocity;
  record.extra = extra;
  return record;
}

// A unit quaternion for a rotation of `degrees` about `axis`.
Orientation Rotation(double degrees, glm::dvec3 axis) {
  const double half = degrees * M_PI / 360.0;
  axis = glm::normalize(axis);
  return Orientation{std::cos(half), axis.x * std::sin(half), axis.y * std::sin(half),
                     axis.z * std::sin(half)};
}

void ExpectNear(const glm::dmat4& actual, const glm::dmat4& expected, double tolerance) {
  for (int column = 0; column < 4; ++column) {
    for (int row = 0; row < 4; ++row) {
      EXPECT_NEAR(actual[column][row], expected[column][row], tolerance)
          << "element [" << column << "][" << row << "]";
    }
  }
}

class TransformPass : public ClientTest {};

TEST_F(TransformPass, RecordLayoutIsIdPositionDoublesThenOrientationFloatsWFirst) {
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship");
  const Bytes records = wire::ByteWriter()
                            .Entity(EntityId(1))
                            .F64(1.5)
                            .F64(-2.25)
                            .F64(1e10)
                            .F32(0.5f)
                            .F32(-0.5f)
                            .F32(0.25f)
                            .F32(0.75f)
                            .Entity(Id{})
                            .bytes();
  RunTransforms(records);
  EXPECT_EQ(glm::dvec3(ship->targetPosition), glm::dvec3(1.5, -2.25, 1e10));
  EXPECT_EQ(Orientation(ship->targetOrientation), (Orientation{0.5, -0.5, 0.25, 0.75}));
}

TEST_F(TransformPass, ListEndsAtTheFirstIdWithAZeroWord) {
  const ClientSideEntity::Ptr first = MakeEntity(EntityId(1), "ship");
  const ClientSideEntity::Ptr after = MakeEntity(EntityId(2), "ship");
  for (const Id end : {Id{0, 7}, Id{7, 0}}) {
    SCOPED_TRACE(testing::Message() << "end id " << end.word0 << ", " << end.word1);
    first->hasTarget = after->hasTarget = false;
    RunTransforms(TransformRecords(
        {Record(EntityId(1), {1, 1, 1}), Record(end, {}), Record(EntityId(2), {2, 2, 2})}));
    EXPECT_TRUE(first->hasTarget);
    EXPECT_FALSE(after->hasTarget);
  }

  // A list that starts with such an id applies nothing.
  first->hasTarget = false;
  RunTransforms(TransformRecords({Record(Id{0, 1}, {}), Record(EntityId(1), {3, 3, 3})}));
  EXPECT_FALSE(first->hasTarget);
}

TEST_F(TransformPass, DrivenEntityWithoutTargetSnaps) {
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship", {}, {9, 9, 9});
  ship->stale = true;
  RunTransforms(TransformRecords({Record(EntityId(1), {1, 2, 3}, 0.5f, 0.5f, -0.5f, 0.5f)}));

  const Orientation sent{0.5, 0.5, -0.5, 0.5};
  EXPECT_EQ(glm::dvec3(ship->position), glm::dvec3(1, 2, 3));
  EXPECT_EQ(Orientation(ship->orientation), sent);
  EXPECT_EQ(glm::dvec3(ship->targetPosition), glm::dvec3(1, 2, 3));
  EXPECT_EQ(Orientation(ship->targetOrientation), sent);
  EXPECT_TRUE(ship->hasTarget);
  EXPECT_FALSE(ship->stale);
}

TEST_F(TransformPass, DrivenEntityWithTargetUnderTheSameParentGetsOnlyANewTarget) {
  const ClientSideEntity::Ptr parent = MakeEntity(EntityId(9), "static");
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship", EntityId(9), {9, 9, 9});
  ship->hasTarget = true;
  ship->stale = true;
  RunTransforms(TransformRecords({Record(EntityId(1), {1, 2, 3}, 0, 1, 0, 0)}), 1, EntityId(9));

  EXPECT_EQ(glm::dvec3(ship->position), glm::dvec3(9, 9, 9));
  EXPECT_EQ(Orientation(ship->orientation), Orientation{});
  EXPECT_EQ(glm::dvec3(ship->targetPosition), glm::dvec3(1, 2, 3));
  EXPECT_EQ(Orientation(ship->targetOrientation), (Orientation{0, 1, 0, 0}));
  EXPECT_EQ(Id(ship->parentId), EntityId(9));
  EXPECT_TRUE(ship->hasTarget);
  EXPECT_FALSE(ship->stale);
}

TEST_F(TransformPass, UpdateRateIsTwentyOverTheDivisorInSinglePrecision) {
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship");
  const struct {
    int32_t divisor;
    float rate;
  } cases[] = {{1, 20.0f},
               {4, 5.0f},
               {3, 20.0f / 3.0f},
               {-2, -10.0f},
               {0, std::numeric_limits<float>::infinity()}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "divisor " << c.divisor);
    RunTransforms(TransformRecords({Record(EntityId(1), {})}), c.divisor);
    EXPECT_EQ(float(ship->updateRate), c.rate);
  }
}

TEST_F(TransformPass, UnknownAndUndrivenEntitiesAreSkipped) {
  const ClientSideEntity::Ptr rock = MakeEntity(EntityId(2), "static", {}, {5, 5, 5});
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(3), "ship");
  RunTransforms(TransformRecords({Record(EntityId(1), {1, 1, 1}), Record(EntityId(2), {1, 1, 1}),
                                  Record(EntityId(3), {1, 1, 1})}));

  EXPECT_EQ(glm::dvec3(rock->position), glm::dvec3(5, 5, 5));
  EXPECT_EQ(glm::dvec3(rock->targetPosition), glm::dvec3(0.0));
  EXPECT_EQ(float(rock->updateRate), 0.0f);
  EXPECT_FALSE(rock->hasTarget);
  EXPECT_TRUE(ship->hasTarget) << "a skipped record must not end the list";
}

TEST_F(TransformPass, ForeignRecordsClearTheTargetAndNothingElse) {
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship", {}, {5, 5, 5});
  ship->hasTarget = true;
  ship->stale = true;
  RunTransforms(TransformRecords({Record(EntityId(1), {1, 1, 1})}), 4, EntityId(8), true);

  EXPECT_FALSE(ship->hasTarget);
  EXPECT_EQ(glm::dvec3(ship->position), glm::dvec3(5, 5, 5));
  EXPECT_EQ(glm::dvec3(ship->targetPosition), glm::dvec3(0.0));
  EXPECT_EQ(float(ship->updateRate), 0.0f);
  EXPECT_EQ(Id(ship->parentId), Id{});
  EXPECT_TRUE(ship->stale);
}

TEST_F(TransformPass, NaNEndsThePassAndKeepsWhatWasApplied) {
  for (int field = 0; field < 7; ++field) {
    SCOPED_TRACE(testing::Message() << "NaN in field " << field);
    ResetProcessState();
    std::vector<ClientSideEntity::Ptr> ships;
    std::vector<wire::TransformRecord> records;
    for (uint64_t n = 1; n <= 4; ++n) {
      ships.push_back(MakeEntity(EntityId(n), "ship"));
      records.push_back(Record(EntityId(n), {double(n), 0, 0}));
    }
    if (field < 3) {
      records[2].position[field] = kNaN;
    } else {
      records[2].orientation[field - 3] = std::numeric_limits<float>::quiet_NaN();
    }

    StderrCapture captured;
    RunTransforms(TransformRecords(records));
    EXPECT_EQ(captured.Text(), "Client Received NaN transform data\n");
    EXPECT_TRUE(ships[0]->hasTarget);
    EXPECT_TRUE(ships[1]->hasTarget);
    EXPECT_FALSE(ships[2]->hasTarget);
    EXPECT_FALSE(ships[3]->hasTarget);
    EXPECT_EQ(glm::dvec3(ships[2]->targetPosition), glm::dvec3(0.0));
  }
}

// Parent changes. `oldParent` and `newParent` are placed apart, rotated and nested, so that a
// wrong order of the matrix product shows.
class ParentChange : public ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    MakeEntity(EntityId(20), "static", {}, {-4, 1, 2}, Rotation(30, {1, 0, 0}));
    MakeEntity(kOldParent, "static", EntityId(20), {10, 0, 0}, Rotation(90, {0, 0, 1}));
    MakeEntity(kNewParent, "static", {}, {0, 5, -3}, Rotation(-45, {0, 1, 1}));
    ship = MakeEntity(EntityId(1), "ship", kOldParent, {1, 2, 3}, Rotation(60, {1, 1, 0}));
    ship->hasTarget = true;
    ship->stale = true;
  }

  const Id kOldParent = EntityId(21);
  const Id kNewParent = EntityId(22);
  ClientSideEntity::Ptr ship;
};

TEST_F(ParentChange, WithBothParentsKnownKeepsThePlaceInTheWorld) {
  const glm::dmat4 before = ship->GetAbsoluteTransformInEnvironment();
  RunTransforms(TransformRecords({Record(EntityId(1), {7, 8, 9}, 0, 0, 1, 0)}), 1, kNewParent);

  EXPECT_EQ(Id(ship->parentId), kNewParent);
  ExpectNear(ship->GetAbsoluteTransformInEnvironment(), before, 1e-5);
  EXPECT_EQ(glm::dvec3(ship->targetPosition), glm::dvec3(7, 8, 9));
  EXPECT_EQ(Orientation(ship->targetOrientation), (Orientation{0, 0, 1, 0}));
  EXPECT_NE(glm::dvec3(ship->position), glm::dvec3(7, 8, 9)) << "re-expressed, not snapped";
  EXPECT_NE(glm::dvec3(ship->position), glm::dvec3(1, 2, 3)) << "not re-expressed at all";
  EXPECT_TRUE(ship->hasTarget);
  EXPECT_FALSE(ship->stale);
}

TEST_F(ParentChange, WithAParentUnknownSnaps) {
  for (const auto& [from, to] : {std::pair<Id, Id>{kOldParent, EntityId(404)},
                                 std::pair<Id, Id>{EntityId(404), kNewParent}}) {
    SCOPED_TRACE(testing::Message() << "from " << from.word0 << " to " << to.word0);
    ship->parentId = from;
    ship->hasTarget = true;
    ship->stale = true;
    RunTransforms(TransformRecords({Record(EntityId(1), {7, 8, 9}, 0, 0, 1, 0)}), 1, to);

    EXPECT_EQ(Id(ship->parentId), to);
    EXPECT_EQ(glm::dvec3(ship->position), glm::dvec3(7, 8, 9));
    EXPECT_EQ(Orientation(ship->orientation), (Orientation{0, 0, 1, 0}));
    EXPECT_TRUE(ship->hasTarget);
    EXPECT_FALSE(ship->stale);
  }
}

TEST_F(ParentChange, WithoutTargetOrToOrFromTheEnvironmentSnaps) {
  const struct {
    const char* what;
    Id from, to;
    bool hasTarget;
  } cases[] = {
      {"no target yet", kOldParent, kNewParent, false},
      {"into the environment", kOldParent, Id{5, 0}, true},
      {"out of the environment", Id{}, kNewParent, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ship->parentId = c.from;
    ship->hasTarget = c.hasTarget;
    ship->position = glm::dvec3(1, 2, 3);
    RunTransforms(TransformRecords({Record(EntityId(1), {7, 8, 9})}), 1, c.to);

    EXPECT_EQ(Id(ship->parentId), c.to);
    EXPECT_EQ(glm::dvec3(ship->position), glm::dvec3(7, 8, 9));
    EXPECT_TRUE(ship->hasTarget);
  }
}

class PhysicsPass : public ClientTest {};

TEST_F(PhysicsPass, OnlyDrivenEntitiesWithoutParentTakePhysics) {
  MakeEntity(EntityId(9), "static");
  const ClientSideEntity::Ptr free = MakeEntity(EntityId(1), "ship", {}, {5, 5, 5});
  const ClientSideEntity::Ptr carried = MakeEntity(EntityId(2), "ship", EntityId(9));
  const ClientSideEntity::Ptr rock = MakeEntity(EntityId(3), "static");
  const ClientSideEntity::Ptr halfParent = MakeEntity(EntityId(4), "ship", Id{9, 0});
  RunPhysics(PhysicsRecords(
      {Physics(EntityId(404), {1, 1, 1}, {1, 1, 1}), Physics(EntityId(1), {1, 2, 3}, {4, 5, 6}),
       Physics(EntityId(2), {1, 2, 3}, {4, 5, 6}), Physics(EntityId(3), {1, 2, 3}, {4, 5, 6}),
       Physics(EntityId(4), {7, 8, 9}, {1, 1, 1})}));

  EXPECT_EQ(glm::dvec3(free->velocity), glm::dvec3(1, 2, 3));
  EXPECT_EQ(glm::dvec3(free->physicsExtra), glm::dvec3(4, 5, 6));
  EXPECT_EQ(glm::dvec3(free->position), glm::dvec3(5, 5, 5));
  EXPECT_EQ(float(free->updateRate), 0.0f);
  EXPECT_FALSE(free->hasTarget);
  EXPECT_EQ(glm::dvec3(carried->velocity), glm::dvec3(0.0));
  EXPECT_EQ(glm::dvec3(carried->physicsExtra), glm::dvec3(0.0));
  EXPECT_EQ(glm::dvec3(rock->velocity), glm::dvec3(0.0));
  EXPECT_EQ(glm::dvec3(halfParent->velocity), glm::dvec3(7, 8, 9))
      << "a parent id with a zero word means no parent";
}

TEST_F(PhysicsPass, NaNEndsThePassAndKeepsWhatWasApplied) {
  for (int field = 0; field < 6; ++field) {
    SCOPED_TRACE(testing::Message() << "NaN in field " << field);
    ResetProcessState();
    std::vector<ClientSideEntity::Ptr> ships;
    std::vector<wire::PhysicsRecord> records;
    for (uint64_t n = 1; n <= 4; ++n) {
      ships.push_back(MakeEntity(EntityId(n), "ship"));
      records.push_back(Physics(EntityId(n), {double(n), 0, 0}, {0, 0, double(n)}));
    }
    (field < 3 ? records[2].velocity : records[2].extra)[field % 3] = kNaN;

    StderrCapture captured;
    RunPhysics(PhysicsRecords(records));
    EXPECT_EQ(captured.Text(), "Client Received NaN physics data\n");
    EXPECT_EQ(glm::dvec3(ships[0]->velocity).x, 1.0);
    EXPECT_EQ(glm::dvec3(ships[1]->velocity).x, 2.0);
    EXPECT_EQ(glm::dvec3(ships[2]->velocity), glm::dvec3(0.0));
    EXPECT_EQ(glm::dvec3(ships[2]->physicsExtra), glm::dvec3(0.0));
    EXPECT_EQ(glm::dvec3(ships[3]->velocity), glm::dvec3(0.0));
  }
}

}  // namespace
}  // namespace clienttest
