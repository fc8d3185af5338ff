// Entity registry: one live entity per id, its warning texts, readers beside a writer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "StderrCapture.h"
#include "entity/RegistryWalk.h"
#include "game/Host.h"
#include "game/entity/ClientSideEntity.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using testlib::StderrCapture;

// Bytes "ENTY", then 01 02 ... 0C.
constexpr Id kTagged{0x0403020159544E45ull, 0x0C0B0A0908070605ull};
const std::string kTaggedText = "ENTY0102030405060708090A0B0C";

// An interface dies with its entity, so this count tells when entities are destroyed.
std::atomic<int> destroyed{0};
struct Counted : ClientSideEntity::Interface {
  ~Counted() override { ++destroyed; }
};

class EntityRegistry : public ::testing::Test {
 protected:
  void SetUp() override {
    auto mod = std::make_shared<GAME_Mod>("TEST_probe");
    orvex::engine::InterfaceSupplier modSupplier = [](ClientSideEntity& e) {
      e.interface = std::make_shared<Counted>();
    };
    orvex::engine::LoadMod(mod, modSupplier);
  }
  void TearDown() override {
    orvex::engine::ResetEntities(), orvex::engine::UnloadAllMods(), orvex::engine::ResetGame();
  }
  static ClientSideEntity::Ptr Create(Id id, const std::string& text = "entity") {
    return ClientSideEntity::Create<ClientSideEntity>(id, "TEST_probe", text);
  }
};

TEST_F(EntityRegistry, ADuplicateIsRejectedAndADestroyWhileHeldWarnsAndLeavesItUnregistered) {
  ClientSideEntity::Ptr held = Create(kTagged, "held");
  const Id sibling{kTagged.word0 + 1, kTagged.word1};  // same second word: a distinct entry
  Create(sibling);
  StderrCapture err;
  destroyed = 0;
  EXPECT_THAT([] { Create(kTagged, "second"); },
              testing::ThrowsMessage<std::runtime_error>("UNIQUE_OBJECT ClientSideEntity with id " +
                                                         kTaggedText + " already exists"));
  EXPECT_EQ(destroyed, 1) << "the rejected entity is destroyed";
  EXPECT_EQ(ClientSideEntity::Get<ClientSideEntity>(kTagged), held);
  EXPECT_EQ(held.use_count(), 2) << "the caller's and the registry's reference";
  ClientSideEntity::Destroy({kTagged.word0 + 2, kTagged.word1});  // unknown: nothing happens
  ClientSideEntity::Destroy(sibling);  // the registry's was the last reference: no warning
  EXPECT_EQ(err.Text(), "");
  ClientSideEntity::Destroy(kTagged);
  EXPECT_EQ(err.Text(), "WARNING: UNIQUE_OBJECT ClientSideEntity with id " + kTaggedText +
                            " being Destroyed while still in use\n");
  EXPECT_FALSE(ClientSideEntity::Exists(kTagged));
  EXPECT_EQ(destroyed, 2);
  held.reset();
  EXPECT_EQ(destroyed, 3);
  EXPECT_EQ(Create(kTagged, "again")->text, "again") << "the id is free again";
}

// Checked by state; run it under ThreadSanitizer to check the locking itself.
TEST_F(EntityRegistry, ReadersSeeConsistentEntriesWhileAWriterChangesThem) {
  const auto idOf = [](uint64_t i) { return Id{i % 64 + 1, i % 8 + 1}; };
  StderrCapture err;  // destroying an entity that a reader holds warns; expected here
  std::atomic<int> readersLeft = 3, wrongEntity = 0;
  std::vector<std::thread> readers;
  for (uint64_t r = 0; r < 3; ++r) {
    readers.emplace_back([&, r] {
      for (uint64_t n = r; n < r + 20000; ++n) {
        if (const auto entity = ClientSideEntity::Get<ClientSideEntity>(idOf(n))) {
          wrongEntity += !(entity->id == idOf(n));
          entity->GetAbsoluteTransformInEnvironment();  // walks to the parents
        }
      }
      --readersLeft;
    });
  }
  while (readersLeft > 0) {
    for (uint64_t i = 0; i < 64; ++i) Create(idOf(i))->parentId = i > 0 ? idOf(i - 1) : Id{};
    for (uint64_t i = 0; i < 64; ++i) ClientSideEntity::Destroy(idOf(i));
  }
  for (std::thread& thread : readers) thread.join();
  EXPECT_EQ(wrongEntity, 0);
}

// A walk along the stretches between marks gives exactly the registry's order, whatever
// changed since the marks were taken; each row changes the registry, then walks it.
TEST_F(EntityRegistry, AWalkAlongMarksKeepsTheRegistrysOrder) {
  auto& map = ClientSideEntity::_sharedObjects;
  map.reserve(4096);
  const auto id = [](uint64_t n) { return Id{n, n * 0x9E3779B97F4A7C15ull}; };
  const auto create = [&](uint64_t from, uint64_t to) {
    for (uint64_t n = from; n < to; ++n) Create(id(n))->hasPendingActions = n % 3 == 0;
  };
  game::entity::RegistryWalk walk;
  const struct {
    const char* name;
    std::function<void()> change;
  } rows[] = {
      {"the first walk, no marks yet", [&] { create(1, 3000); }},
      {"nothing changed", [] {}},
      {"created and destroyed since",
       [&] {
         create(3000, 3500);
         for (uint64_t n = 2; n < 3500; n += 7) ClientSideEntity::Destroy(id(n));
       }},
      {"a rehash reordered the list", [&] { map.rehash(20000); }},
      {"refilled in another order",
       [&] {
         orvex::engine::ResetEntities();
         for (uint64_t n = 3500; n-- > 1;) Create(id(n))->hasPendingActions = n % 3 == 0;
       }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    row.change();
    std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    std::vector<Id> expected, got;
    for (const auto& [key, entity] : map) {
      if (entity->hasPendingActions) expected.push_back(key);
    }
    walk.ForEach(&ClientSideEntity::hasPendingActions,
                 [&](const ClientSideEntity::Ptr& entity) { got.push_back(entity->id); });
    EXPECT_EQ(got, expected);
  }
}

// The count of entities with queued actions follows every change of their flag.
TEST(ActionFlag, CountsEntitiesWhoseFlagIsSetHoweverItChanges) {
  const size_t before = game::entity::ActionFlag::Pending();
  const auto make = [](uint64_t n) {
    return std::make_unique<ClientSideEntity>(Id{n, n}, orvex::modular::ModuleID("TEST_mod"), "");
  };
  auto a = make(1), b = make(2);
  a->hasPendingActions = true, a->hasPendingActions = true;  // setting a set flag again counts once
  orvex::engine::QueueAction(*b, orvex::filesystem::Stream());
  EXPECT_EQ(game::entity::ActionFlag::Pending(), before + 2);
  a->hasPendingActions = false, a->hasPendingActions = false;
  EXPECT_EQ(game::entity::ActionFlag::Pending(), before + 1);
  b.reset();  // destroyed with its flag set
  EXPECT_EQ(game::entity::ActionFlag::Pending(), before);
}

}  // namespace
