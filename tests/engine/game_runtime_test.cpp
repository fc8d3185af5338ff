// Game runtime: reset between games, work handed to the game thread, aim ids, mod registry.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "Wait.h"
#include "game/Host.h"
#include "game/graphics/Renderer.h"

namespace {

class GameRuntime : public ::testing::Test {
 protected:
  void TearDown() override { orvex::engine::UnloadAllMods(), orvex::engine::ResetGame(); }
  static std::vector<std::string> Loaded() {
    std::vector<std::string> names;
    GAME_Mod::ForEachModule([&](auto& m) { names.push_back(m->moduleId.String()); });
    return names;
  }
};

// A second game in the same process must not run the first one's work or see its quit.
TEST_F(GameRuntime, ResetAfterQuitDropsQueuedWorkAndStartsAFreshRenderer) {
  orvex::engine::LoadMod(std::make_shared<GAME_Mod>("CORE_ship"));
  Game::renderer->AddAimReference("x", {});
  auto capture = std::make_shared<int>(0);
  const std::weak_ptr<int> captured = capture;
  Game::Synchronize([capture] { FAIL() << "work of the last game ran"; });
  capture.reset();
  std::thread([] { Game::Quit(); }).join();
  EXPECT_FALSE(Game::isActive);
  EXPECT_TRUE(orvex::engine::QuitRequested());
  orvex::engine::ResetGame();
  EXPECT_TRUE(Game::isActive);
  EXPECT_FALSE(orvex::engine::QuitRequested());
  EXPECT_TRUE(captured.expired());
  EXPECT_EQ(orvex::engine::RunSynchronized(), 0u);
  EXPECT_EQ(Game::renderer->AddAimReference("y", {}), 1u) << "a fresh renderer counts from 1";
  EXPECT_EQ(Loaded(), std::vector<std::string>{"CORE_ship"}) << "mods stay loaded";
}

// Work queued on another thread runs on the calling one, in order; a throw keeps the rest.
TEST_F(GameRuntime, WorkFromAnotherThreadRunsHereInOrderAndAThrowKeepsTheRestInFront) {
  std::vector<std::string> order;
  std::thread([&] {
    Game::Synchronize([&] {
      order.push_back("a");
      Game::Synchronize([&] { order.push_back("queued meanwhile"); });  // for the next call
    });
    Game::Synchronize([&] { order.push_back("b"), throw std::runtime_error("b failed"); });
    Game::Synchronize({}), Game::Synchronize([&] { order.push_back("c"); });  // {} is ignored
  }).join();
  EXPECT_THROW(orvex::engine::RunSynchronized(), std::runtime_error);
  EXPECT_EQ(orvex::engine::RunSynchronized(), 2u);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "c", "queued meanwhile"}));
}

// A thread that queues at the cap waits until the game thread takes work (or its hold runs
// out, and then queues past the cap); nothing is dropped; the game thread itself never
// waits; a spent time budget leaves the rest in place for the next call.
TEST_F(GameRuntime, AQueuerWaitsAtTheCapForTheGameThreadAndNothingIsDropped) {
  std::string ran;
  const auto add = [&](char c) { Game::Synchronize([&ran, c] { ran += c; }); };
  orvex::engine::SetSynchronizeBound(2, std::chrono::minutes(1));
  add('a'), add('b');
  std::thread late([&] { add('c'); });
  ASSERT_TRUE(testlib::WaitUntil([] { return orvex::engine::SynchronizeFigures().holding == 1; }));
  EXPECT_EQ(orvex::engine::SynchronizeFigures().queued, 2u) << "held back, not queued";
  EXPECT_EQ(orvex::engine::RunSynchronized(std::chrono::steady_clock::duration::zero()), 1u);
  late.join();
  add('d');  // the thread that runs the queue is never held back
  orvex::engine::SetSynchronizeBound(1, std::chrono::milliseconds(1));
  std::thread([&] { add('e'); }).join();  // held for its millisecond, then queued past the cap
  const orvex::engine::SynchronizeCounts n = orvex::engine::SynchronizeFigures();
  EXPECT_EQ(n.queued, 4u);
  EXPECT_EQ(n.held, 2u);
  EXPECT_EQ(n.overCap, 1u);
  EXPECT_EQ(orvex::engine::RunSynchronized(), 4u);
  EXPECT_EQ(ran, "abcde");
}

TEST_F(GameRuntime, ModsAreKnownByCanonicalTextLoadedOnceAndVisitedOverASnapshot) {
  for (const char* name : {"core_A", "CORE_b", "CORE_c"})
    orvex::engine::LoadMod(std::make_shared<GAME_Mod>(name));
  EXPECT_TRUE(GAME_Mod::GetModule("CORE_a"));
  EXPECT_FALSE(GAME_Mod::GetModule("core_A"));
  EXPECT_FALSE(GAME_Mod::GetModule(""));
  for (const char* bad : {"CORE_A", "noseparator", ""}) {
    EXPECT_THROW(orvex::engine::LoadMod(*bad ? std::make_shared<GAME_Mod>(bad) : nullptr),
                 std::invalid_argument)
        << bad;
  }
  std::vector<std::string> visited;
  GAME_Mod::ForEachModule([&](auto& mod) {
    visited.push_back(mod->moduleId.String());
    if (visited.size() == 1)
      orvex::engine::UnloadMod("CORE_c"),
          orvex::engine::LoadMod(std::make_shared<GAME_Mod>("CORE_d"));
  });
  EXPECT_EQ(visited, (std::vector<std::string>{"CORE_a", "CORE_b", "CORE_c"}));
  EXPECT_EQ(Loaded(), (std::vector<std::string>{"CORE_a", "CORE_b", "CORE_d"}));
}

}  // namespace
