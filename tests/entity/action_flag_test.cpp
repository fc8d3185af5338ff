// The process-wide count of entities with queued actions, which lets the send step skip its
// registry walk: it must follow every way the flag changes, or actions would be left behind.
#include <gtest/gtest.h>

#include <memory>

#include "game/entity/ClientSideEntity.h"

namespace {

using game::entity::ActionFlag;
using game::entity::ClientSideEntity;
using game::entity::Id;

std::shared_ptr<ClientSideEntity> MakeEntity(uint64_t word) {
  return std::make_shared<ClientSideEntity>(Id{word, word}, orvex::modular::ModuleID("TEST_mod"),
                                            "x");
}

TEST(ActionFlag, CountsEntitiesWhoseFlagIsSetWhoeverSetsIt) {
  const size_t before = ActionFlag::Pending();
  auto a = MakeEntity(1);
  auto b = MakeEntity(2);
  a->hasPendingActions = true;
  a->hasPendingActions = true;  // setting a set flag again counts once
  EXPECT_EQ(ActionFlag::Pending(), before + 1);
  b->QueueAction(orvex::filesystem::Stream());
  EXPECT_EQ(ActionFlag::Pending(), before + 2);
  a->hasPendingActions = false;
  a->hasPendingActions = false;
  EXPECT_EQ(ActionFlag::Pending(), before + 1);
  EXPECT_TRUE(b->hasPendingActions);
  EXPECT_FALSE(a->hasPendingActions);
}

TEST(ActionFlag, AnEntityDestroyedWithItsFlagSetLeavesTheCount) {
  const size_t before = ActionFlag::Pending();
  {
    auto entity = MakeEntity(3);
    entity->QueueAction(orvex::filesystem::Stream());
    EXPECT_EQ(ActionFlag::Pending(), before + 1);
  }
  EXPECT_EQ(ActionFlag::Pending(), before);
}

}  // namespace
