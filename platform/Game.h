// The game library's process-wide state and services (game.so), as the client uses them.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "game/Config.h"

namespace game::graphics {
class GameRenderer;
}

class Game {
 public:
  // True while the game runs. Safe to read and write from any thread.
  static std::atomic<bool> isActive;
  // True when this process also hosts the server.
  static bool _is_server;
  // Written by the handshake before the game starts its threads.
  static int32_t _mode;
  static std::vector<std::string> _mods;
  static game::Config config;
  // Written by the receiving thread; read by the game after it joined that thread.
  static std::string _current_world;
  // The game's notion of server time; written by the datagram delivery thread.
  static std::atomic<double> timestamp;
  // The environment the local player is in.
  static uint64_t parentEnvironmentId;
  static uint64_t relativeEnvironmentId;
  static game::graphics::GameRenderer* renderer;

  // Asks the game to quit: clears isActive. Never throws.
  static void Quit();
  // Queues `work` to run on the game thread; any thread. The game bounds its queue by
  // itself: a thread that queues while the queue is full may be held back for a while.
  static void Synchronize(std::function<void()> work);
};
