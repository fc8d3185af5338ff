// The count of entities with queued actions follows every change of their flag.
#include <gtest/gtest.h>

#include <memory>

#include "game/entity/ClientSideEntity.h"

namespace {

using game::entity::ActionFlag;
using game::entity::ClientSideEntity;

TEST(ActionFlag, CountsEntitiesWhoseFlagIsSetHoweverItChanges) {
  const size_t before = ActionFlag::Pending();
  const auto make = [](uint64_t n) {
    return std::make_unique<ClientSideEntity>(game::entity::Id{n, n},
                                              orvex::modular::ModuleID("TEST_mod"), "");
  };
  auto a = make(1), b = make(2);
  a->hasPendingActions = true;
  a->hasPendingActions = true;  // setting a set flag again counts once
  b->QueueAction(orvex::filesystem::Stream());
  EXPECT_EQ(ActionFlag::Pending(), before + 2);
  a->hasPendingActions = false;
  a->hasPendingActions = false;
  EXPECT_EQ(ActionFlag::Pending(), before + 1);
  EXPECT_TRUE(b->hasPendingActions && !a->hasPendingActions);
  b.reset();  // destroyed with its flag set
  EXPECT_EQ(ActionFlag::Pending(), before);
}

}  // namespace
