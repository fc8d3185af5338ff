#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "game/entity/ClientSideEntity.h"
#include "game/graphics/Renderer.h"
#include "support/Profiler.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using game::graphics::GameRenderer;

class GameRuntime : public ::testing::Test {
 protected:
  void TearDown() override {
    GAME_Mod::UnloadAll();
    Game::Reset();
  }
};

// Must not be preceded by anything that changes the statics in this process.
TEST_F(GameRuntime, StaticsHoldTheirLoadTimeValues) {
  EXPECT_TRUE(Game::isActive);
  EXPECT_FALSE(Game::QuitRequested());
  EXPECT_FALSE(Game::_is_server);
  EXPECT_EQ(Game::_mode, 0);
  EXPECT_TRUE(Game::_mods.empty());
  EXPECT_TRUE(Game::_current_world.empty());
  EXPECT_EQ(Game::timestamp, 0.0);
  EXPECT_EQ(Game::parentEnvironmentId, 0u);
  EXPECT_EQ(Game::relativeEnvironmentId, 0u);
  EXPECT_EQ(Game::config.ParseCount(), 0);
  ASSERT_NE(Game::renderer, nullptr);
  EXPECT_EQ(Game::renderer->AimReferenceCount(), 0u);
  EXPECT_EQ(Game::RunSynchronized(), 0u);
  EXPECT_FALSE(orvex::cpu::Profiler::enabled);
}

TEST_F(GameRuntime, QuitFromAnyThreadStopsTheGameUntilReset) {
  std::thread([] { Game::Quit(); }).join();
  EXPECT_FALSE(Game::isActive);
  EXPECT_TRUE(Game::QuitRequested());

  Game::Reset();
  EXPECT_TRUE(Game::isActive);
  EXPECT_FALSE(Game::QuitRequested());
}

TEST_F(GameRuntime, ResetRestoresStaticsDropsWorkAndKeepsMods) {
  GAME_Mod::Load(std::make_shared<GAME_Mod>("CORE_ship"));
  Game::_is_server = true;
  Game::_mode = 3;
  Game::_mods = {"CORE_ship"};
  char text[] = "gravity=1";
  Game::config.Parse(text);
  Game::_current_world = "moon";
  Game::timestamp = 12.5;
  Game::parentEnvironmentId = 7;
  Game::relativeEnvironmentId = 8;
  Game::renderer->AddAimReference("x", {});
  auto capture = std::make_shared<int>(0);
  std::weak_ptr<int> captured = capture;
  bool ran = false;
  Game::Synchronize([capture, &ran] { ran = true; });
  capture.reset();

  Game::Reset();

  EXPECT_TRUE(Game::isActive);
  EXPECT_FALSE(Game::_is_server);
  EXPECT_EQ(Game::_mode, 0);
  EXPECT_TRUE(Game::_mods.empty());
  EXPECT_EQ(Game::config.ParseCount(), 0);
  EXPECT_EQ(Game::config.Text(), "");
  EXPECT_TRUE(Game::_current_world.empty());
  EXPECT_EQ(Game::timestamp, 0.0);
  EXPECT_EQ(Game::parentEnvironmentId, 0u);
  EXPECT_EQ(Game::relativeEnvironmentId, 0u);
  ASSERT_NE(Game::renderer, nullptr);
  EXPECT_EQ(Game::renderer->AimReferenceCount(), 0u);
  EXPECT_EQ(Game::renderer->AddAimReference("y", {}), 1u) << "a fresh renderer counts from 1";
  EXPECT_TRUE(captured.expired()) << "queued work is dropped";
  EXPECT_EQ(Game::RunSynchronized(), 0u);
  EXPECT_FALSE(ran);
  EXPECT_NE(GAME_Mod::GetModule("CORE_ship"), nullptr);
}

TEST_F(GameRuntime, SynchronizedWorkRunsInQueuingOrderOnTheCallingThread) {
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  std::thread([&] {
    for (int i = 0; i < 3; ++i) {
      Game::Synchronize([&, i] {
        order.push_back(i);
        threads.push_back(std::this_thread::get_id());
        // Queued while the batch runs: waits for the next call.
        if (i == 0) Game::Synchronize([&] { order.push_back(100); });
      });
    }
  }).join();
  Game::Synchronize({});  // nothing to run: ignored

  EXPECT_EQ(Game::RunSynchronized(), 3u);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  for (const std::thread::id& id : threads) EXPECT_EQ(id, std::this_thread::get_id());

  EXPECT_EQ(Game::RunSynchronized(), 1u);
  EXPECT_EQ(order.back(), 100);
  EXPECT_EQ(Game::RunSynchronized(), 0u);
}

TEST_F(GameRuntime, SynchronizeFromManyThreadsRunsEverythingOnceInEachThreadsOrder) {
  constexpr int kThreads = 4;
  constexpr int kEach = 500;
  std::vector<std::vector<int>> seen(kThreads);  // touched only by the game thread
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([t, &seen] {
      for (int i = 0; i < kEach; ++i) Game::Synchronize([t, i, &seen] { seen[t].push_back(i); });
    });
  }
  size_t ran = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (ran < kThreads * kEach && std::chrono::steady_clock::now() < deadline) {
    ran += Game::RunSynchronized();
    std::this_thread::yield();
  }
  for (std::thread& producer : producers) producer.join();
  ran += Game::RunSynchronized();

  EXPECT_EQ(ran, static_cast<size_t>(kThreads * kEach));
  for (const std::vector<int>& values : seen) {
    ASSERT_EQ(values.size(), static_cast<size_t>(kEach));
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
  }
}

TEST_F(GameRuntime, ThrowingWorkPutsTheRestOfItsBatchBackInFront) {
  std::vector<std::string> order;
  Game::Synchronize([&] {
    order.push_back("a");
    Game::Synchronize([&] { order.push_back("queued meanwhile"); });
  });
  Game::Synchronize([&] {
    order.push_back("b");
    throw std::runtime_error("b failed");
  });
  Game::Synchronize([&] { order.push_back("c"); });
  Game::Synchronize([&] { order.push_back("d"); });

  EXPECT_THROW(Game::RunSynchronized(), std::runtime_error);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b"}));

  EXPECT_EQ(Game::RunSynchronized(), 3u);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "c", "d", "queued meanwhile"}));
}

TEST_F(GameRuntime, RendererHandsOutDistinctAimIdsFromOneUpAcrossThreads) {
  GameRenderer renderer;
  std::vector<std::vector<uint32_t>> ids(4);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < ids.size(); ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 100; ++i) ids[t].push_back(renderer.AddAimReference("t", i));
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::set<uint32_t> all;
  for (const auto& list : ids) all.insert(list.begin(), list.end());
  EXPECT_EQ(all.size(), 400u);
  EXPECT_EQ(*all.begin(), 1u);
  EXPECT_EQ(*all.rbegin(), 400u);
  EXPECT_EQ(renderer.AimReferenceCount(), 400u);
}

std::vector<std::string> LoadedNames() {
  std::vector<std::string> names;
  GAME_Mod::ForEachModule(
      [&](std::shared_ptr<GAME_Mod>& mod) { names.push_back(mod->moduleId.String()); });
  return names;
}

TEST_F(GameRuntime, ModsAreVisitedInLoadOrderOverASnapshot) {
  for (const char* name : {"CORE_a", "CORE_b", "CORE_c"}) {
    GAME_Mod::Load(std::make_shared<GAME_Mod>(name));
  }
  std::vector<std::string> visited;
  GAME_Mod::ForEachModule([&](std::shared_ptr<GAME_Mod>& mod) {
    visited.push_back(mod->moduleId.String());
    if (visited.size() == 1) {
      GAME_Mod::Unload("CORE_c");
      GAME_Mod::Load(std::make_shared<GAME_Mod>("CORE_d"));
    }
  });
  EXPECT_EQ(visited, (std::vector<std::string>{"CORE_a", "CORE_b", "CORE_c"}));
  EXPECT_EQ(LoadedNames(), (std::vector<std::string>{"CORE_a", "CORE_b", "CORE_d"}));

  GAME_Mod::UnloadAll();
  EXPECT_TRUE(LoadedNames().empty());
}

TEST_F(GameRuntime, ModsAreKnownByTheirCanonicalTextAndLoadedOnce) {
  const auto ship = std::make_shared<GAME_Mod>("core_Ship");
  GAME_Mod::Load(ship);
  EXPECT_EQ(GAME_Mod::GetModule("CORE_ship"), ship);
  EXPECT_EQ(GAME_Mod::GetModule("core_Ship"), nullptr) << "lookups take the canonical text";
  EXPECT_EQ(GAME_Mod::GetModule(""), nullptr);

  EXPECT_THROW(GAME_Mod::Load(std::make_shared<GAME_Mod>("CORE_SHIP")), std::invalid_argument);
  EXPECT_THROW(GAME_Mod::Load(std::make_shared<GAME_Mod>("noseparator")), std::invalid_argument);
  EXPECT_THROW(GAME_Mod::Load(std::make_shared<GAME_Mod>("")), std::invalid_argument);
  EXPECT_THROW(GAME_Mod::Load(nullptr), std::invalid_argument);
  EXPECT_EQ(LoadedNames(), (std::vector<std::string>{"CORE_ship"}));

  GAME_Mod::Unload("CORE_ship");
  EXPECT_EQ(GAME_Mod::GetModule("CORE_ship"), nullptr);
}

// The game library's constructor asks the entity's own module (and no other) for its
// interface, and leaves the registry alone.
TEST_F(GameRuntime, EntityConstructionAsksItsModuleForTheInterface) {
  std::vector<std::string> asked;
  const auto supplierOf = [&asked](const std::string& name) {
    auto mod = std::make_shared<GAME_Mod>(name);
    mod->supplyInterface = [&asked, name](ClientSideEntity& entity) {
      asked.push_back(name + ":" + entity.text);
      entity.interface = std::make_shared<ClientSideEntity::Interface>();
      entity.serverDriven = true;
    };
    GAME_Mod::Load(mod);
  };
  supplierOf("CORE_ship");
  supplierOf("CORE_rock");

  const Id id{3, 4};
  ClientSideEntity ship(id, orvex::modular::ModuleID("core_Ship"), "hull");
  EXPECT_EQ(ship.id, id);
  EXPECT_EQ(ship.moduleId.String(), "CORE_ship");
  EXPECT_EQ(ship.text, "hull");
  EXPECT_NE(ship.interface, nullptr);
  EXPECT_TRUE(ship.serverDriven);
  EXPECT_EQ(asked, (std::vector<std::string>{"CORE_ship:hull"}));
  EXPECT_FALSE(ClientSideEntity::Exists(id));

  ClientSideEntity stranger(Id{5, 6}, orvex::modular::ModuleID("CORE_unknown"), "");
  EXPECT_EQ(stranger.interface, nullptr);
  EXPECT_EQ(asked.size(), 1u);
}

}  // namespace
