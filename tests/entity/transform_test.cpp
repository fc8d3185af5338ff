#include <cmath>

#include "entity/EntityTestSupport.h"

namespace entitytest {
namespace {

using game::entity::Orientation;

const double kHalfSqrt2 = std::sqrt(0.5);
const Orientation kQuarterTurnAboutZ{kHalfSqrt2, 0.0, 0.0, kHalfSqrt2};

void ExpectNear(const glm::dmat4& actual, const glm::dmat4& expected) {
  for (int column = 0; column < 4; ++column) {
    for (int row = 0; row < 4; ++row) {
      EXPECT_NEAR(actual[column][row], expected[column][row], 1e-12)
          << "column " << column << ", row " << row;
    }
  }
}

glm::dmat4 Columns(glm::dvec4 c0, glm::dvec4 c1, glm::dvec4 c2, glm::dvec4 c3) {
  return glm::dmat4(c0, c1, c2, c3);
}

class EntityTransform : public EntityTest {
 protected:
  // Registers an entity of an unloaded module (it has no interface, which placement does
  // not need) and places it.
  static ClientSideEntity::Ptr Place(Id id, glm::dvec3 position, Orientation orientation,
                                     Id parent = {}) {
    ClientSideEntity::Ptr entity = ClientSideEntity::Create<ClientSideEntity>(id, "TEST_none", "");
    entity->position = position;
    entity->orientation = orientation;
    entity->parentId = parent;
    return entity;
  }
};

TEST_F(EntityTransform, LocalTransformRotatesThenTranslates) {
  const auto identity = Place(Id{1, 1}, glm::dvec3(0.0), Orientation{});
  EXPECT_EQ(identity->GetTransform(), glm::dmat4(1.0));

  const auto moved = Place(Id{2, 2}, glm::dvec3(1.0, 2.0, 3.0), Orientation{});
  glm::dmat4 translation(1.0);
  translation[3] = glm::dvec4(1.0, 2.0, 3.0, 1.0);
  EXPECT_EQ(moved->GetTransform(), translation);

  // A quarter turn about z maps x onto y; the translation itself is not rotated.
  const auto turned = Place(Id{3, 3}, glm::dvec3(1.0, 2.0, 3.0), kQuarterTurnAboutZ);
  ExpectNear(turned->GetTransform(),
             Columns({0, 1, 0, 0}, {-1, 0, 0, 0}, {0, 0, 1, 0}, {1, 2, 3, 1}));
}

TEST_F(EntityTransform, NonUnitOrientationIsUsedAsItIsAndScales) {
  // (1, 1, 0, 0) has norm sqrt(2); normalised it would be a quarter turn about x.
  const auto entity = Place(Id{1, 1}, glm::dvec3(0.0), Orientation{1.0, 1.0, 0.0, 0.0});
  EXPECT_EQ(entity->GetTransform(),
            Columns({1, 0, 0, 0}, {0, -1, 2, 0}, {0, -2, -1, 0}, {0, 0, 0, 1}));
}

TEST_F(EntityTransform, AbsoluteTransformComposesTheParentChainTopFirst) {
  const Id parent{10, 10};
  Place(parent, glm::dvec3(10.0, 0.0, 0.0), kQuarterTurnAboutZ);
  const auto child = Place(Id{11, 11}, glm::dvec3(1.0, 0.0, 0.0), Orientation{}, parent);

  const glm::dmat4 absolute = child->GetAbsoluteTransformInEnvironment();
  EXPECT_NEAR(absolute[3][0], 10.0, 1e-12);
  EXPECT_NEAR(absolute[3][1], 1.0, 1e-12);
  EXPECT_NEAR(absolute[3][2], 0.0, 1e-12);

  // A third level: the grandchild's local x axis ends up along the environment's y axis.
  const auto grandchild = Place(Id{12, 12}, glm::dvec3(0.0, 2.0, 0.0), Orientation{}, child->id);
  ExpectNear(grandchild->GetAbsoluteTransformInEnvironment(),
             Columns({0, 1, 0, 0}, {-1, 0, 0, 0}, {0, 0, 1, 0}, {8, 1, 0, 1}));
}

TEST_F(EntityTransform, DanglingParentYieldsTheIdentity) {
  const auto orphan = Place(Id{1, 1}, glm::dvec3(4.0, 5.0, 6.0), kQuarterTurnAboutZ, Id{99, 99});
  EXPECT_EQ(orphan->GetAbsoluteTransformInEnvironment(), glm::dmat4(1.0));

  // The same once the parent is destroyed.
  const Id parent{2, 2};
  Place(parent, glm::dvec3(1.0), Orientation{});
  const auto child = Place(Id{3, 3}, glm::dvec3(1.0), Orientation{}, parent);
  ClientSideEntity::Destroy(parent);
  EXPECT_EQ(child->GetAbsoluteTransformInEnvironment(), glm::dmat4(1.0));
}

TEST_F(EntityTransform, ParentIdWithAZeroWordMeansNoParent) {
  // Registered under the half-zero key, but a half-zero link is never followed.
  const Id halfZero{0, 5};
  Place(halfZero, glm::dvec3(100.0), Orientation{});
  const auto entity = Place(Id{1, 1}, glm::dvec3(1.0, 2.0, 3.0), kQuarterTurnAboutZ, halfZero);
  EXPECT_EQ(entity->GetAbsoluteTransformInEnvironment(), entity->GetTransform());

  entity->parentId = Id{5, 0};
  EXPECT_EQ(entity->GetAbsoluteTransformInEnvironment(), entity->GetTransform());
}

TEST_F(EntityTransform, AParentCycleFromTheServerEndsInsteadOfExhaustingTheStack) {
  // Two entities linked under each other: the chain never reaches the environment.
  const auto a = Place(Id{1, 1}, glm::dvec3(1.0, 0.0, 0.0), Orientation{}, Id{2, 2});
  const auto b = Place(Id{2, 2}, glm::dvec3(0.0, 1.0, 0.0), Orientation{}, Id{1, 1});
  const glm::dmat4 absolute = a->GetAbsoluteTransformInEnvironment();
  EXPECT_TRUE(std::isfinite(absolute[3][0]) && std::isfinite(absolute[3][1]));
  const auto self = Place(Id{3, 3}, glm::dvec3(1.0), Orientation{}, Id{3, 3});
  EXPECT_TRUE(std::isfinite(self->GetAbsoluteTransformInEnvironment()[3][0]));
}

}  // namespace
}  // namespace entitytest
