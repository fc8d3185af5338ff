// The game library's process-wide state, the quit request and the game-thread work queue.
#include "Game.h"

#include <deque>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "game/graphics/Renderer.h"

namespace {

// The renderer in place at load time. Its constructor is constexpr, so Game::renderer
// points at a constructed object before any library's dynamic initialisation runs.
constinit game::graphics::GameRenderer loadTimeRenderer;
// The renderer installed by the latest Reset(); empty until then.
std::unique_ptr<game::graphics::GameRenderer> resetRenderer;

std::atomic<bool> quitRequested{false};

// Work for the game thread, in queuing order. `mutex` guards every member and is never
// held while work runs or while queued functions are destroyed.
struct WorkQueue {
  struct Item {
    std::function<void()> work;
    size_t bytes;     // 0: never dropped
    uint64_t ticket;  // queuing order, to tell work queued during a run
  };
  std::mutex mutex;
  std::deque<Item> items;
  uint64_t nextTicket = 0;
  size_t droppableBytes = 0;
  uint64_t dropped = 0;
  uint64_t droppedBytes = 0;

  // Removes the oldest droppable items until the droppable bytes fit the cap; the caller
  // destroys them after unlocking. Droppable work is usually at the front, so this is
  // almost always pop_front.
  void Trim(size_t cap, std::vector<std::function<void()>>& out) {
    for (auto it = items.begin(); droppableBytes > cap && it != items.end();) {
      if (it->bytes == 0) {
        ++it;
        continue;
      }
      droppableBytes -= it->bytes;
      ++dropped;
      droppedBytes += it->bytes;
      out.push_back(std::move(it->work));
      it = items.erase(it);
    }
  }
};

// Function-local, so that another library's initialisation may already queue work.
WorkQueue& Queue() {
  static WorkQueue queue;
  return queue;
}

void Enqueue(std::function<void()> work, size_t bytes) {
  // An empty function has nothing to run; queuing it would only make the game thread throw.
  if (!work) return;
  std::vector<std::function<void()>> dropped;
  WorkQueue& queue = Queue();
  {
    std::lock_guard<std::mutex> lock(queue.mutex);
    queue.items.push_back({std::move(work), bytes, queue.nextTicket++});
    queue.droppableBytes += bytes;
    queue.Trim(Game::synchronizeCap, dropped);
  }
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
constexpr size_t kSynchronizeCap = 16u << 20;
size_t Game::synchronizeCap = kSynchronizeCap;

void Game::Quit() {
  quitRequested.store(true);
  isActive.store(false);
}

void Game::Synchronize(std::function<void()> work) {
  Enqueue(std::move(work), 0);
}

void Game::Synchronize(std::function<void()> work, size_t bytes) {
  // At least one byte, so that the item counts as droppable.
  Enqueue(std::move(work), bytes > 0 ? bytes : 1);
}

size_t Game::RunSynchronized() {
  return RunSynchronized(std::chrono::steady_clock::duration::max());
}

size_t Game::RunSynchronized(std::chrono::steady_clock::duration budget) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  WorkQueue& queue = Queue();
  uint64_t end;
  {
    std::lock_guard<std::mutex> lock(queue.mutex);
    end = queue.nextTicket;
  }
  // One item at a time, so that a throw or the budget leaves the rest where it was, and
  // the queuing threads can trim the queue meanwhile.
  size_t ran = 0;
  for (;;) {
    std::function<void()> work;
    {
      std::lock_guard<std::mutex> lock(queue.mutex);
      if (queue.items.empty() || queue.items.front().ticket >= end) break;
      work = std::move(queue.items.front().work);
      queue.droppableBytes -= queue.items.front().bytes;
      queue.items.pop_front();
    }
    ++ran;
    work();
    if (Clock::now() - start >= budget) break;
  }
  return ran;
}

Game::SynchronizeCounts Game::SynchronizeFigures() {
  WorkQueue& queue = Queue();
  std::lock_guard<std::mutex> lock(queue.mutex);
  return {queue.items.size(), queue.droppableBytes, queue.dropped, queue.droppedBytes};
}

bool Game::QuitRequested() {
  return quitRequested.load();
}

void Game::Reset() {
  std::deque<WorkQueue::Item> dropped;
  {
    WorkQueue& queue = Queue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    dropped.swap(queue.items);
    queue.droppableBytes = 0;
    queue.dropped = 0;
    queue.droppedBytes = 0;
  }
  dropped.clear();
  synchronizeCap = kSynchronizeCap;

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
