// The game library's process-wide state, the quit request and the game-thread work queue.
#include "Game.h"

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
//
// The items live in a ring that grows by doubling and keeps its size, so that a steady
// stream of work allocates nothing here. Dropped work leaves an empty item behind where it
// cannot be removed at once (behind work that is never dropped); runs skip it.
struct WorkQueue {
  struct Item {
    std::function<void()> work;  // empty once dropped
    size_t bytes = 0;            // 0: never dropped
    uint64_t ticket = 0;         // queuing order, to tell work queued during a run
    std::chrono::steady_clock::time_point queued;
  };
  std::mutex mutex;
  std::vector<Item> ring;  // a power of two long once used
  size_t head = 0, count = 0;
  size_t live = 0;  // items in the ring that still hold work
  uint64_t nextTicket = 0;
  size_t droppableBytes = 0;
  uint64_t dropped = 0;
  uint64_t droppedBytes = 0;

  Item& At(size_t i) { return ring[(head + i) & (ring.size() - 1)]; }

  void Push(Item item) {
    if (count == ring.size()) {
      std::vector<Item> bigger(ring.empty() ? 256 : 2 * ring.size());
      for (size_t i = 0; i < count; ++i) bigger[i] = std::move(At(i));
      ring.swap(bigger);
      head = 0;
    }
    At(count++) = std::move(item);
    ++live;
  }

  // Removes the front item, moving its work to `work` and its queuing time to `queued`.
  void PopFront(std::function<void()>& work,
                std::chrono::steady_clock::time_point* queued = nullptr) {
    Item& front = At(0);
    if (front.work) --live;
    work = std::move(front.work);
    if (queued != nullptr) *queued = front.queued;
    droppableBytes -= front.bytes;
    front = Item{};
    head = (head + 1) & (ring.size() - 1);
    --count;
  }

  // Drops the oldest droppable work until the droppable bytes fit the cap; the caller
  // destroys `out` after unlocking. Droppable work is usually at the front.
  void Trim(size_t cap, std::vector<std::function<void()>>& out) {
    for (size_t i = 0; droppableBytes > cap && i < count; ++i) {
      Item& item = At(i);
      if (item.bytes == 0 || !item.work) continue;
      ++dropped;
      droppedBytes += item.bytes;
      droppableBytes -= item.bytes;
      item.bytes = 0;
      out.push_back(std::move(item.work));
      item.work = nullptr;
      --live;
    }
    std::function<void()> none;
    while (count > 0 && !At(0).work) PopFront(none);
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
    queue.Push({std::move(work), bytes, queue.nextTicket++, std::chrono::steady_clock::now()});
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

size_t Game::RunSynchronized(
    std::chrono::steady_clock::duration budget,
    const std::function<void(std::chrono::steady_clock::duration)>& waited) {
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
    Clock::time_point queued;
    {
      std::lock_guard<std::mutex> lock(queue.mutex);
      while (queue.count > 0 && !queue.At(0).work) queue.PopFront(work);
      if (queue.count == 0 || queue.At(0).ticket >= end) break;
      queue.PopFront(work, &queued);
    }
    ++ran;
    if (waited) waited(Clock::now() - queued);
    work();
    if (Clock::now() - start >= budget) break;
  }
  return ran;
}

Game::SynchronizeCounts Game::SynchronizeFigures() {
  WorkQueue& queue = Queue();
  std::lock_guard<std::mutex> lock(queue.mutex);
  return {queue.live, queue.droppableBytes, queue.dropped, queue.droppedBytes};
}

bool Game::QuitRequested() {
  return quitRequested.load();
}

void Game::Reset() {
  std::vector<WorkQueue::Item> dropped;
  {
    WorkQueue& queue = Queue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    dropped.swap(queue.ring);
    queue.head = queue.count = queue.live = 0;
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
