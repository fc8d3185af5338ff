// A game's first program against an installed client: the headers compile outside the
// source tree, the libraries resolve through their RUNPATH, quaternions are w first.
#include <cstdio>

#include <glm/gtc/quaternion.hpp>

#include "GAME_Mod.h"
#include "Game.h"
#include "client/Client.h"

int main() {
  const std::string text = orvex::modular::ModuleID("DEMO_consumer").String();
  const glm::dquat q(1.0, 0.0, 0.0, 0.0);
  if (q[0] != 1.0 || client::Client::_instance != nullptr) return 1;
  size_t mods = 0;
  GAME_Mod::ForEachModule([&](std::shared_ptr<GAME_Mod>&) { ++mods; });
  std::printf("%s %s\n", text.c_str(), mods == 0 && Game::isActive ? "loaded" : "misloaded");
  return 0;
}
