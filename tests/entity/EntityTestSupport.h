// Shared set-up of the entity suites: a clean game runtime, mod registry and entity
// registry before and after every case.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "GAME_Mod.h"
#include "Game.h"
#include "game/entity/ClientSideEntity.h"

namespace entitytest {

using game::entity::ClientSideEntity;
using game::entity::Id;

// Empties the registry; the entities die after the lock is released.
inline void ClearRegistry() {
  std::unordered_map<Id, ClientSideEntity::Ptr> dropped;
  std::lock_guard<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
  dropped.swap(ClientSideEntity::_sharedObjects);
}

class EntityTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }

  static void Reset() {
    ClearRegistry();
    GAME_Mod::UnloadAll();
    Game::Reset();
  }

  // Loads a mod named `name` whose supplier is `supply` and returns it.
  static std::shared_ptr<GAME_Mod> LoadMod(const std::string& name,
                                           GAME_Mod::InterfaceSupplier supply) {
    auto mod = std::make_shared<GAME_Mod>(name);
    mod->supplyInterface = std::move(supply);
    GAME_Mod::Load(mod);
    return mod;
  }
};

}  // namespace entitytest
