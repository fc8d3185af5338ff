// Entity transforms: local placement, the parent chain, and broken chains ending cleanly.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "game/entity/ClientSideEntity.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using game::entity::Orientation;
using Column = glm::dvec4;

const double kHalfSqrt2 = std::sqrt(0.5);
const Orientation kNone{}, kQuarterTurnAboutZ{kHalfSqrt2, 0.0, 0.0, kHalfSqrt2};

struct Placed {
  Id id;
  glm::dvec3 position;
  Orientation orientation;
  Id parent;
};

class EntityTransform : public ::testing::Test {
 protected:
  void TearDown() override { Game::ResetEntities(); }
  // Registers entities of an unloaded module (no interface: placement does not need one)
  // and returns the last.
  static ClientSideEntity::Ptr Place(const std::vector<Placed>& entities) {
    ClientSideEntity::Ptr entity;
    for (const Placed& p : entities) {
      entity = ClientSideEntity::Create<ClientSideEntity>(p.id, "TEST_none", "");
      entity->position = p.position;
      entity->orientation = p.orientation;
      entity->parentId = p.parent;
    }
    return entity;
  }
};

TEST_F(EntityTransform, AbsoluteTransformsOfWorkedExamples) {
  const glm::dvec3 p123(1, 2, 3);
  const glm::dmat4 local123(Column(0, 1, 0, 0), Column(-1, 0, 0, 0), Column(0, 0, 1, 0),
                            Column(1, 2, 3, 1));
  const struct {
    const char* name;
    std::vector<Placed> entities;  // the last one is measured
    glm::dmat4 expected;
  } rows[] = {
      {"rotates, then translates", {{{1, 1}, p123, kQuarterTurnAboutZ, {}}}, local123},
      {"a non-unit orientation scales",
       {{{1, 1}, {}, {1, 1, 0, 0}, {}}},
       glm::dmat4(Column(1, 0, 0, 0), Column(0, -1, 2, 0), Column(0, -2, -1, 0),
                  Column(0, 0, 0, 1))},
      {"the parent chain composes top first",
       {{{10, 10}, {10, 0, 0}, kQuarterTurnAboutZ, {}},
        {{11, 11}, {1, 0, 0}, kNone, {10, 10}},
        {{12, 12}, {0, 2, 0}, kNone, {11, 11}}},
       glm::dmat4(Column(0, 1, 0, 0), Column(-1, 0, 0, 0), Column(0, 0, 1, 0), Column(8, 1, 0, 1))},
      {"a dangling parent gives the identity",
       {{{1, 1}, p123, kQuarterTurnAboutZ, {99, 99}}},
       glm::dmat4(1.0)},
      {"a parent id with a zero word means none",
       {{{0, 5}, {100, 100, 100}, kNone, {}}, {{1, 1}, p123, kQuarterTurnAboutZ, {0, 5}}},
       local123},
      {"... in either word", {{{1, 1}, p123, kQuarterTurnAboutZ, {5, 0}}}, local123},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const glm::dmat4 actual = Place(row.entities)->GetAbsoluteTransformInEnvironment();
    for (int c = 0; c < 4; ++c) {
      for (int r = 0; r < 4; ++r)
        EXPECT_NEAR(actual[c][r], row.expected[c][r], 1e-12) << c << "," << r;
    }
    Game::ResetEntities();
  }
}

// A server can link an entity under its own descendant: the walk must end, not recurse
// until the stack runs out.
TEST_F(EntityTransform, AParentCycleFromTheServerEndsInsteadOfExhaustingTheStack) {
  const auto a = Place({{{1, 1}, {1, 0, 0}, kNone, {2, 2}}, {{2, 2}, {0, 1, 0}, kNone, {1, 1}}});
  EXPECT_TRUE(std::isfinite(a->GetAbsoluteTransformInEnvironment()[3][0]));
  const auto self = Place({{{3, 3}, glm::dvec3(1.0), kNone, {3, 3}}});
  EXPECT_TRUE(std::isfinite(self->GetAbsoluteTransformInEnvironment()[3][0]));
}

}  // namespace
