// The transform and physics passes that apply a state datagram's records to the replica.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "Messages.h"
#include "StderrCapture.h"
#include "TestMods.h"
#include "client/StatePasses.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using game::entity::Orientation;
using orvex::filesystem::ReadOnlyStream;
using namespace testlib;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

wire::TransformRecord Record(Id id, glm::dvec3 position, Orientation turn = {}) {
  return {id, position, {float(turn.w), float(turn.x), float(turn.y), float(turn.z)}};
}

void RunTransforms(const std::vector<wire::TransformRecord>& records, int32_t divisor = 1,
                   Id parent = {}, bool foreign = false) {
  const Bytes datagram = wire::TransformsDatagram({}, Id{}, records);
  const Bytes body(datagram.begin() + wire::kTransformsHeaderSize, datagram.end());
  client::TransformPass(ReadOnlyStream(body.data(), body.size()), divisor, parent, foreign)();
}

void RunPhysics(const std::vector<wire::PhysicsRecord>& records) {
  const Bytes datagram = wire::PhysicsDatagram({}, records);
  const Bytes body(datagram.begin() + wire::kPhysicsHeaderSize, datagram.end());
  client::PhysicsPass(ReadOnlyStream(body.data(), body.size()))();
}

// A unit quaternion for a rotation of `degrees` about `axis`.
Orientation Rotation(double degrees, glm::dvec3 axis) {
  const double half = degrees * M_PI / 360.0;
  axis = glm::normalize(axis) * std::sin(half);
  return Orientation{std::cos(half), axis.x, axis.y, axis.z};
}

class StatePass : public testing::Test {
  CleanClientState clean;
};

TEST_F(StatePass, TransformRecordsListRateAndSkips) {
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship");
  const ClientSideEntity::Ptr rock = MakeEntity(EntityId(2), "static", {}, {5, 5, 5});
  const ClientSideEntity::Ptr after = MakeEntity(EntityId(3), "ship");
  // The record: id, position as three doubles, orientation as four floats w first.
  wire::ByteWriter records;
  records.Entity(EntityId(1)).F64(1.5).F64(-2.25).F64(1e10);
  records.F32(0.5f).F32(-0.5f).F32(0.25f).F32(0.75f).Entity(Id{});
  client::TransformPass(ReadOnlyStream(records.bytes().data(), records.bytes().size()), 1, {},
                        false)();
  EXPECT_EQ(glm::dvec3(ship->targetPosition), glm::dvec3(1.5, -2.25, 1e10));
  EXPECT_EQ(Orientation(ship->targetOrientation), (Orientation{0.5, -0.5, 0.25, 0.75}));

  // The list ends at the first id with a zero word; unknown and undriven ones are skipped.
  for (const Id end : {Id{0, 7}, Id{7, 0}}) {
    ship->hasTarget = after->hasTarget = false;
    RunTransforms({Record(EntityId(404), {}), Record(EntityId(2), {1, 1, 1}),
                   Record(EntityId(1), {1, 1, 1}), Record(end, {}), Record(EntityId(3), {})});
    EXPECT_TRUE(ship->hasTarget);
    EXPECT_FALSE(after->hasTarget);
  }
  EXPECT_EQ(glm::dvec3(rock->position), glm::dvec3(5, 5, 5));
  EXPECT_EQ(glm::dvec3(rock->targetPosition), glm::dvec3(0.0));
  EXPECT_FALSE(rock->hasTarget);

  // The update rate is 20 over the divisor, in single precision.
  const struct {
    int32_t divisor;
    float rate;
  } rates[] = {{4, 5.0f}, {3, 20.0f / 3.0f}, {-2, -10.0f}, {0, INFINITY}};
  for (const auto& r : rates) {
    RunTransforms({Record(EntityId(1), {})}, r.divisor);
    EXPECT_EQ(float(ship->updateRate), r.rate) << "divisor " << r.divisor;
  }

  // Foreign records clear the target and nothing else.
  ship->hasTarget = ship->stale = true;
  ship->updateRate = 0.25f;
  RunTransforms({Record(EntityId(1), {9, 9, 9})}, 4, EntityId(8), true);
  EXPECT_FALSE(ship->hasTarget);
  EXPECT_TRUE(ship->stale);
  EXPECT_EQ(glm::dvec3(ship->targetPosition), glm::dvec3(0.0));
  EXPECT_EQ(float(ship->updateRate), 0.25f);
  EXPECT_EQ(Id(ship->parentId), Id{});
}

// The ship sits under `old`; `old` and `fresh` are placed apart, rotated and nested so that a
// wrong order of the matrix product shows.
TEST_F(StatePass, TransformSnapsTargetsOrReexpresses) {
  const Id old = EntityId(21), fresh = EntityId(22), unknown = EntityId(404);
  MakeEntity(EntityId(20), "static", {}, {-4, 1, 2}, Rotation(30, {1, 0, 0}));
  MakeEntity(old, "static", EntityId(20), {10, 0, 0}, Rotation(90, {0, 0, 1}));
  MakeEntity(fresh, "static", {}, {0, 5, -3}, Rotation(-45, {0, 1, 1}));
  const ClientSideEntity::Ptr ship = MakeEntity(EntityId(1), "ship");
  enum Outcome { kSnap, kTarget, kKeepPlace };
  const struct {
    const char* name;
    Id from;
    bool hasTarget;
    Id to;
    Outcome outcome;
  } rows[] = {
      {"no target yet", old, false, old, kSnap},
      {"same parent with a target", old, true, old, kTarget},
      {"both parents known", old, true, fresh, kKeepPlace},
      {"new parent unknown", old, true, unknown, kSnap},
      {"old parent unknown", unknown, true, fresh, kSnap},
      {"into the environment", old, true, Id{5, 0}, kSnap},
      {"out of the environment", Id{}, true, fresh, kSnap},
  };
  const glm::dvec3 sent{7, 8, 9}, start{1, 2, 3};
  const Orientation turn{0, 0, 1, 0}, startTurn = Rotation(60, {1, 1, 0});
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ship->parentId = row.from;
    ship->position = start;
    ship->orientation = startTurn;
    ship->hasTarget = row.hasTarget;
    ship->stale = true;
    const glm::dmat4 before = ship->GetAbsoluteTransformInEnvironment();
    RunTransforms({Record(EntityId(1), sent, turn)}, 1, row.to);

    EXPECT_EQ(Id(ship->parentId), row.to);
    EXPECT_EQ(glm::dvec3(ship->targetPosition), sent);
    EXPECT_EQ(Orientation(ship->targetOrientation), turn);
    EXPECT_TRUE(ship->hasTarget);
    EXPECT_FALSE(ship->stale);
    if (row.outcome == kSnap) {
      EXPECT_EQ(glm::dvec3(ship->position), sent);
      EXPECT_EQ(Orientation(ship->orientation), turn);
    } else if (row.outcome == kTarget) {
      EXPECT_EQ(glm::dvec3(ship->position), start);
      EXPECT_EQ(Orientation(ship->orientation), startTurn);
    } else {
      const glm::dmat4 now = ship->GetAbsoluteTransformInEnvironment();
      for (int i = 0; i < 16; ++i) EXPECT_NEAR(now[i / 4][i % 4], before[i / 4][i % 4], 1e-5);
      EXPECT_NE(glm::dvec3(ship->position), sent) << "snapped, not re-expressed";
      EXPECT_NE(glm::dvec3(ship->position), start) << "not re-expressed at all";
    }
  }
}

TEST_F(StatePass, PhysicsOnlyForDrivenEntitiesWithoutParent) {
  MakeEntity(EntityId(9), "static");
  const ClientSideEntity::Ptr free = MakeEntity(EntityId(1), "ship", {}, {5, 5, 5});
  const ClientSideEntity::Ptr carried = MakeEntity(EntityId(2), "ship", EntityId(9));
  const ClientSideEntity::Ptr rock = MakeEntity(EntityId(3), "static");
  const ClientSideEntity::Ptr halfParent = MakeEntity(EntityId(4), "ship", Id{9, 0});
  RunPhysics({{EntityId(404), {1, 1, 1}, {1, 1, 1}},
              {EntityId(1), {1, 2, 3}, {4, 5, 6}},
              {EntityId(2), {1, 2, 3}, {4, 5, 6}},
              {EntityId(3), {1, 2, 3}, {4, 5, 6}},
              {EntityId(4), {7, 8, 9}, {1, 1, 1}}});
  EXPECT_EQ(glm::dvec3(free->velocity), glm::dvec3(1, 2, 3));
  EXPECT_EQ(glm::dvec3(free->physicsExtra), glm::dvec3(4, 5, 6));
  EXPECT_EQ(glm::dvec3(free->position), glm::dvec3(5, 5, 5));
  EXPECT_FALSE(free->hasTarget);
  EXPECT_EQ(glm::dvec3(carried->velocity), glm::dvec3(0.0));
  EXPECT_EQ(glm::dvec3(rock->velocity), glm::dvec3(0.0));
  EXPECT_EQ(glm::dvec3(halfParent->velocity), glm::dvec3(7, 8, 9))
      << "a parent id with a zero word means no parent";
}

// A NaN in any field of record 3 of 4 ends the pass with one line; records 1 and 2 stay.
TEST_F(StatePass, NaNEndsThePassAndKeepsWhatWasApplied) {
  const char* const fields[] = {"x", "y", "z", "w", "qx", "qy", "qz"};
  for (int field = 0; field < 13; ++field) {
    const bool physics = field >= 7;
    SCOPED_TRACE(testing::Message() << (physics ? "physics " : "transform ")
                                    << (physics ? (field < 10 ? "velocity " : "extra ") : "")
                                    << fields[physics ? (field - 7) % 3 : field]);
    ResetClientState();
    std::vector<ClientSideEntity::Ptr> ships;
    std::vector<wire::TransformRecord> transforms;
    std::vector<wire::PhysicsRecord> motions;
    for (uint64_t n = 1; n <= 4; ++n) {
      ships.push_back(MakeEntity(EntityId(n), "ship"));
      transforms.push_back(Record(EntityId(n), {double(n), 0, 0}));
      motions.push_back({EntityId(n), {double(n), 0, 0}, {0, 0, double(n)}});
    }
    if (physics) {
      (field < 10 ? motions[2].velocity : motions[2].extra)[(field - 7) % 3] = kNaN;
    } else if (field < 3) {
      transforms[2].position[field] = kNaN;
    } else {
      transforms[2].orientation[field - 3] = NAN;
    }
    StderrCapture captured;
    physics ? RunPhysics(motions) : RunTransforms(transforms);
    EXPECT_EQ(captured.Text(), physics ? "Client Received NaN physics data\n"
                                       : "Client Received NaN transform data\n");
    for (size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(physics ? glm::dvec3(ships[i]->velocity).x : double(ships[i]->hasTarget),
                i < 2 ? (physics ? double(i + 1) : 1.0) : 0.0)
          << "record " << i + 1;
    }
    EXPECT_EQ(glm::dvec3(ships[2]->targetPosition), glm::dvec3(0.0));
    EXPECT_EQ(glm::dvec3(ships[2]->physicsExtra), glm::dvec3(0.0));
  }
}

}  // namespace
