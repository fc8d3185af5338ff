// The game library's process-wide state, the quit request and the game-thread work queue.
#include "Game.h"

#include <deque>
#include <memory>
#include <mutex>
#include <utility>

#include "game/graphics/Renderer.h"

namespace {

// The renderer in place at load time. Its constructor is constexpr, so Game::renderer
// points at a constructed object before any library's dynamic initialisation runs.
constinit game::graphics::GameRenderer loadTimeRenderer;
// The renderer installed by the latest Reset(); empty until then.
std::unique_ptr<game::graphics::GameRenderer> resetRenderer;

std::atomic<bool> quitRequested{false};

using Clock = std::chrono::steady_clock;

// A function for the game thread and when it was queued.
struct Work {
  std::function<void()> run;
  Clock::time_point queued;
};

// Work for the game thread, in queuing order. queueMutex guards the deque and is never
// held while work runs or while queued functions are destroyed.
struct WorkQueue {
  std::mutex mutex;
  std::deque<Work> work;
};

// Function-local, so that another library's initialisation may already queue work.
WorkQueue& Queue() {
  static WorkQueue queue;
  return queue;
}

}  // namespace

std::atomic<bool> Game::isActive{true};
bool Game::_is_server = false;
int32_t Game::_mode = 0;
std::vector<std::string> Game::_mods;
game::Config Game::config;
std::string Game::_current_world;
std::atomic<double> Game::timestamp{0.0};
uint64_t Game::parentEnvironmentId = 0;
uint64_t Game::relativeEnvironmentId = 0;
game::graphics::GameRenderer* Game::renderer = &loadTimeRenderer;

void Game::Quit() {
  quitRequested.store(true);
  isActive.store(false);
}

void Game::Synchronize(std::function<void()> work) {
  // An empty function has nothing to run; queuing it would only make the game thread throw.
  if (!work) return;
  const Clock::time_point now = Clock::now();
  WorkQueue& queue = Queue();
  std::lock_guard<std::mutex> lock(queue.mutex);
  queue.work.push_back({std::move(work), now});
}

size_t Game::RunSynchronized() {
  return RunSynchronized(nullptr);
}

size_t Game::RunSynchronized(const std::function<void(Clock::duration)>& waited) {
  WorkQueue& queue = Queue();
  std::deque<Work> batch;
  {
    std::lock_guard<std::mutex> lock(queue.mutex);
    batch.swap(queue.work);
  }
  size_t ran = 0;
  while (!batch.empty()) {
    Work work = std::move(batch.front());
    batch.pop_front();
    ++ran;
    if (waited) waited(Clock::now() - work.queued);
    try {
      work.run();
    } catch (...) {
      // The rest of the batch keeps its place ahead of anything queued meanwhile.
      std::lock_guard<std::mutex> lock(queue.mutex);
      queue.work.insert(queue.work.begin(), std::make_move_iterator(batch.begin()),
                        std::make_move_iterator(batch.end()));
      throw;
    }
  }
  return ran;
}

bool Game::QuitRequested() {
  return quitRequested.load();
}

void Game::Reset() {
  std::deque<Work> dropped;
  {
    WorkQueue& queue = Queue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    dropped.swap(queue.work);
  }
  dropped.clear();

  isActive.store(true);
  quitRequested.store(false);
  _is_server = false;
  _mode = 0;
  _mods.clear();
  config = game::Config();
  _current_world.clear();
  timestamp.store(0.0);
  parentEnvironmentId = 0;
  relativeEnvironmentId = 0;

  auto fresh = std::make_unique<game::graphics::GameRenderer>();
  renderer = fresh.get();
  resetRenderer = std::move(fresh);
}
