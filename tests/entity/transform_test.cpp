// Entity transforms: local placement, the parent chain, and broken chains ending cleanly.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "game/Host.h"
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

// Entities 1 .. n, each one step along x and the child of the next; the top has no parent.
// n links, each one step along its parent's x axis and turned by `angle` about z; the
// top-most first, the measured one last.
std::vector<Placed> Chain(uint64_t n, double angle = 0.0) {
  const Orientation turn{std::cos(angle / 2), 0, 0, std::sin(angle / 2)};
  std::vector<Placed> chain;
  for (uint64_t i = n; i >= 1; --i) chain.push_back({{i, i}, {1, 0, 0}, turn, {i + 1, i + 1}});
  chain.front().parent = {};
  return chain;
}

// What Chain(n, angle) adds up to, in closed form: the turns add, and the k-th step from
// the top goes along the direction of the k turns above it.
glm::dmat4 ChainProduct(uint64_t n, double angle) {
  double x = 0, y = 0;
  for (uint64_t k = 0; k < n; ++k) x += std::cos(k * angle), y += std::sin(k * angle);
  const double c = std::cos(n * angle), s = std::sin(n * angle);
  return glm::dmat4(Column(c, s, 0, 0), Column(-s, c, 0, 0), Column(0, 0, 1, 0),
                    Column(x, y, 0, 1));
}

glm::dmat4 Translation(double x, double y, double z) {
  return glm::dmat4(Column(1, 0, 0, 0), Column(0, 1, 0, 0), Column(0, 0, 1, 0), Column(x, y, z, 1));
}

// Entities of an unloaded module: placement needs no interface. The last one is measured.
TEST(EntityTransform, AbsoluteTransformsOfWorkedExamples) {
  const glm::dvec3 p123(1, 2, 3);
  const glm::dmat4 local123(Column(0, 1, 0, 0), Column(-1, 0, 0, 0), Column(0, 0, 1, 0),
                            Column(1, 2, 3, 1));
  const struct {
    const char* name;
    std::vector<Placed> entities;
    glm::dmat4 expected;
  } rows[] = {
      {"rotates, then translates", {{{1, 1}, p123, kQuarterTurnAboutZ, {}}}, local123},
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
      // A server can link an entity under its own descendant: the link back counts as dangling.
      {"a cycle A->B->A at A gives A's local alone",
       {{{2, 2}, {0, 1, 0}, kNone, {1, 1}}, {{1, 1}, {1, 0, 0}, kNone, {2, 2}}},
       Translation(1, 0, 0)},
      {"its own parent gives the identity", {{{3, 3}, p123, kNone, {3, 3}}}, glm::dmat4(1.0)},
      {"under a cycle: the cycle's entry ends the chain",
       {{{1, 1}, {1, 0, 0}, kNone, {2, 2}},
        {{2, 2}, {0, 1, 0}, kNone, {1, 1}},
        {{3, 3}, {0, 0, 1}, kNone, {1, 1}}},
       Translation(1, 0, 1)},
      {"100 deep, every link turned: the whole chain's product", Chain(100, 0.05),
       ChainProduct(100, 0.05)},
      {"20,000 deep: no depth limit and no stack exhausted", Chain(20000),
       Translation(20000, 0, 0)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ClientSideEntity::Ptr entity;
    for (const Placed& p : row.entities) {
      entity = ClientSideEntity::Create<ClientSideEntity>(p.id, "TEST_none", "");
      entity->position = p.position, entity->orientation = p.orientation;
      entity->parentId = p.parent;
    }
    const glm::dmat4 actual = entity->GetAbsoluteTransformInEnvironment();
    for (int c = 0; c < 4; ++c) {
      for (int r = 0; r < 4; ++r) EXPECT_NEAR(actual[c][r], row.expected[c][r], 1e-12) << c << r;
    }
    entity.reset();
    orvex::engine::ResetEntities();
  }
}

}  // namespace
