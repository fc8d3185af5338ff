// Game runtime: reset between games, work handed to the game thread, aim ids, mod registry.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "game/graphics/Renderer.h"

namespace {

class GameRuntime : public ::testing::Test {
 protected:
  void TearDown() override {
    GAME_Mod::UnloadAll();
    Game::Reset();
  }
};

std::vector<std::string> LoadedNames() {
  std::vector<std::string> names;
  GAME_Mod::ForEachModule(
      [&](std::shared_ptr<GAME_Mod>& m) { names.push_back(m->moduleId.String()); });
  return names;
}

// A second game in the same process must not run the first one's work or see its quit.
TEST_F(GameRuntime, ResetAfterQuitDropsQueuedWorkAndStartsAFreshRenderer) {
  GAME_Mod::Load(std::make_shared<GAME_Mod>("CORE_ship"));
  Game::renderer->AddAimReference("x", {});
  auto capture = std::make_shared<int>(0);
  const std::weak_ptr<int> captured = capture;
  Game::Synchronize([capture] { FAIL() << "work of the last game ran"; });
  capture.reset();
  std::thread([] { Game::Quit(); }).join();
  EXPECT_FALSE(Game::isActive);
  EXPECT_TRUE(Game::QuitRequested());

  Game::Reset();
  EXPECT_TRUE(Game::isActive);
  EXPECT_FALSE(Game::QuitRequested());
  EXPECT_TRUE(captured.expired()) << "queued work is dropped";
  EXPECT_EQ(Game::RunSynchronized(), 0u);
  EXPECT_EQ(Game::renderer->AddAimReference("y", {}), 1u) << "a fresh renderer counts from 1";
  EXPECT_EQ(LoadedNames(), std::vector<std::string>{"CORE_ship"}) << "mods stay loaded";
}

TEST_F(GameRuntime, WorkRunsOnTheCallingThreadInQueuingOrderAndAThrowKeepsTheRestInFront) {
  std::vector<std::string> order;
  std::set<std::thread::id> threads;
  std::thread([&] {
    Game::Synchronize([&] {
      order.push_back("a");
      threads.insert(std::this_thread::get_id());
      Game::Synchronize([&] { order.push_back("queued meanwhile"); });  // for the next call
    });
    Game::Synchronize([&] {
      order.push_back("b");
      throw std::runtime_error("b failed");
    });
    Game::Synchronize({});  // nothing to run: ignored
    Game::Synchronize([&] { order.push_back("c"); });
  }).join();
  EXPECT_THROW(Game::RunSynchronized(), std::runtime_error);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(threads, std::set<std::thread::id>{std::this_thread::get_id()});
  EXPECT_EQ(Game::RunSynchronized(), 2u);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "c", "queued meanwhile"}));
  EXPECT_EQ(Game::RunSynchronized(), 0u);
}

// Threads queue work and take aim ids at once (meant for the thread sanitizer too).
TEST_F(GameRuntime, WorkFromManyThreadsRunsOnceInEachThreadsOrderAndAimIdsStayDistinct) {
  std::vector<std::vector<int>> seen(4);  // touched only by this thread
  std::vector<std::vector<uint32_t>> ids(4);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < seen.size(); ++t) {
    threads.emplace_back([t, &seen, &ids] {
      for (int i = 0; i < 100; ++i) {
        Game::Synchronize([t, i, &seen] { seen[t].push_back(i); });
        ids[t].push_back(Game::renderer->AddAimReference("t", i));
      }
    });
  }
  size_t ran = 0;
  for (int spins = 0; ran < 400 && spins < 1000000; ++spins) ran += Game::RunSynchronized();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ran + Game::RunSynchronized(), 400u);
  std::set<uint32_t> all;
  for (size_t t = 0; t < seen.size(); ++t) {
    EXPECT_EQ(seen[t].size(), 100u);
    EXPECT_TRUE(std::is_sorted(seen[t].begin(), seen[t].end()));
    all.insert(ids[t].begin(), ids[t].end());
  }
  EXPECT_EQ(all.size(), 400u);
  EXPECT_EQ(*all.begin(), 1u);
  EXPECT_EQ(*all.rbegin(), 400u);
}

TEST_F(GameRuntime, ModsAreKnownByCanonicalTextLoadedOnceAndVisitedOverASnapshot) {
  for (const char* name : {"core_A", "CORE_b", "CORE_c"}) {
    GAME_Mod::Load(std::make_shared<GAME_Mod>(name));
  }
  EXPECT_NE(GAME_Mod::GetModule("CORE_a"), nullptr);
  EXPECT_EQ(GAME_Mod::GetModule("core_A"), nullptr) << "lookups take the canonical text";
  EXPECT_EQ(GAME_Mod::GetModule(""), nullptr);
  for (const char* bad : {"CORE_A", "noseparator", ""}) {
    EXPECT_THROW(GAME_Mod::Load(std::make_shared<GAME_Mod>(bad)), std::invalid_argument) << bad;
  }
  EXPECT_THROW(GAME_Mod::Load(nullptr), std::invalid_argument);
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
}

}  // namespace
