// A game's first program against an installed client: the headers compile outside the
// source tree, the libraries resolve through their RUNPATH, quaternions are w first.
#include <cstdio>

#include <glm/gtc/quaternion.hpp>

#include "GAME_Mod.h"
#include "Game.h"
#include "client/Client.h"

int main() {
  Game::Reset();
  GAME_Mod::Load(std::make_shared<GAME_Mod>("DEMO_consumer"));
  const std::string text = orvex::modular::ModuleID("DEMO_consumer").String();
  const glm::dquat q(1.0, 0.0, 0.0, 0.0);
  if (q[0] != 1.0 || client::Client::_instance != nullptr) return 1;
  std::printf("%s %s\n", text.c_str(), GAME_Mod::GetModule("DEMO_consumer") ? "loaded" : "missing");
  return 0;
}
