// The game library's process-wide state and services (game.so), as the client uses them.
#pragma once

#include <atomic>
#include <chrono>
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

  // Asks the game to quit: clears isActive and records the request. Never throws.
  static void Quit();
  // Queues `work` to run on the game thread at the next RunSynchronized(). Any thread.
  static void Synchronize(std::function<void()> work);
  // The same for work that may be lost, such as a state datagram's pass (a newer one
  // supersedes it), holding about `bytes` bytes. While such work queued holds more than
  // synchronizeCap bytes, the oldest of it is destroyed unrun and counted in
  // SynchronizeFigures(); work queued without a size is never dropped. Any thread.
  static void Synchronize(std::function<void()> work, size_t bytes);

  // The bytes of droppable work the queue holds at most. 16 MiB: three ticks of state for
  // 100,000 entities. Set by the host before its threads start.
  static size_t synchronizeCap;

  // Engine runtime: the host's side of the above.
  // Runs the work queued so far, in queuing order, on the calling (game) thread; work
  // queued while it runs waits for the next call. Returns how many functions ran.
  static size_t RunSynchronized();
  // The same within a time budget: once `budget` has passed (after at least one
  // function), the rest keeps its place at the front of the queue for the next call.
  // `waited`, when given, is told how long each function waited in the queue, just
  // before it runs.
  static size_t RunSynchronized(
      std::chrono::steady_clock::duration budget,
      const std::function<void(std::chrono::steady_clock::duration)>& waited = nullptr);
  struct SynchronizeCounts {
    size_t queued = 0;       // functions waiting now
    size_t queuedBytes = 0;  // bytes of droppable work waiting now
    uint64_t dropped = 0;    // droppable functions destroyed unrun since Reset()
    uint64_t droppedBytes = 0;
  };
  static SynchronizeCounts SynchronizeFigures();
  // Whether Quit() was called since the last Reset().
  static bool QuitRequested();
  // Puts every static back to its load-time value, drops queued work, and installs the
  // headless renderer. For hosts and tests that run several games in one process.
  static void Reset();
  // Empties the entity registry and then destroys the entities. Between games only (before
  // unloading mods, between test cases): no other thread may use the registry meanwhile.
  static void ResetEntities();
};
