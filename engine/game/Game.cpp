// The game library's process-wide state, the quit request and the game-thread work queue.
#include "Game.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "game/Host.h"
#include "game/RuntimeState.h"
#include "game/graphics/Renderer.h"

namespace {

using Clock = std::chrono::steady_clock;

// The renderer in place at load time; it has no state of its own, so Game::renderer points
// at a constructed object before any library's dynamic initialisation runs.
constinit game::graphics::GameRenderer loadTimeRenderer;
// The renderer installed by the latest ResetGame(); empty until then.
std::unique_ptr<game::graphics::GameRenderer> resetRenderer;

std::atomic<bool> quitRequested{false};

// Work for the game thread, in queuing order. `mutex` guards every member and is never
// held while work runs or while queued functions are destroyed; `taken` is signalled
// whenever the game thread takes work, for the threads held back at the cap.
//
// The items live in a ring that grows by doubling and keeps its size, so that a steady
// stream of work allocates nothing here.
struct WorkQueue {
  struct Item {
    std::function<void()> work;
    uint64_t ticket = 0;  // queuing order, to tell work queued during a run
    Clock::time_point queued;
  };
  std::mutex mutex;
  std::condition_variable taken;
  std::vector<Item> ring;  // a power of two long once used
  size_t head = 0, count = 0;
  uint64_t nextTicket = 0;
  size_t cap = orvex::engine::kDefaultSynchronizeCap;
  Clock::duration hold = orvex::engine::kDefaultSynchronizeHold;
  std::thread::id gameThread;  // the thread that last ran the queue
  size_t holding = 0;          // threads waiting at the cap
  orvex::engine::SynchronizeCounts counts;

  Item& At(size_t i) { return ring[(head + i) & (ring.size() - 1)]; }

  void Push(Item item) {
    if (count == ring.size()) {
      std::vector<Item> bigger(ring.empty() ? 256 : 2 * ring.size());
      for (size_t i = 0; i < count; ++i) bigger[i] = std::move(At(i));
      ring.swap(bigger);
      head = 0;
    }
    At(count++) = std::move(item);
  }

  // Removes the front item, moving its work to `work` and its queuing time to `queued`.
  void PopFront(std::function<void()>& work, Clock::time_point& queued) {
    Item& front = At(0);
    work = std::move(front.work);
    queued = front.queued;
    front = Item{};
    head = (head + 1) & (ring.size() - 1);
    --count;
  }
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
  Queue().taken.notify_all();  // threads held back at the cap stop waiting
}

void Game::Synchronize(std::function<void()> work) {
  // An empty function has nothing to run; queuing it would only make the game thread throw.
  if (!work) return;
  WorkQueue& queue = Queue();
  std::unique_lock<std::mutex> lock(queue.mutex);
  if (queue.count >= queue.cap && std::this_thread::get_id() != queue.gameThread &&
      isActive.load()) {
    const auto start = Clock::now();
    ++queue.holding;
    const bool room = queue.taken.wait_until(
        lock, start + queue.hold, [&] { return queue.count < queue.cap || !isActive.load(); });
    --queue.holding;
    ++queue.counts.held;
    queue.counts.heldNs += static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
    if (!room) ++queue.counts.overCap;
  }
  queue.Push({std::move(work), queue.nextTicket++, Clock::now()});
}

namespace orvex::engine {

size_t RunSynchronized() {
  return RunSynchronized(Clock::duration::max());
}

namespace {

QueueGate* queueGate = nullptr;  // game thread only

}  // namespace

void SetQueueGate(QueueGate* gate) {
  queueGate = gate;
}

size_t RunSynchronized(Clock::duration budget, const std::function<void(Clock::duration)>& waited) {
  const auto start = Clock::now();
  WorkQueue& queue = Queue();
  QueueGate* const gate = queueGate;
  uint64_t end;
  {
    std::lock_guard<std::mutex> lock(queue.mutex);
    end = queue.nextTicket;
    queue.gameThread = std::this_thread::get_id();
  }
  // One item at a time, so that a throw or the budget leaves the rest where it was.
  size_t ran = 0;
  for (;;) {
    std::function<void()> work;
    Clock::time_point queued;
    {
      std::lock_guard<std::mutex> lock(queue.mutex);
      if (queue.count == 0 || queue.At(0).ticket >= end) break;
      // Only this thread takes from the queue: the front stays while the gate decides.
      if (gate != nullptr) {
        queue.mutex.unlock();
        const bool go = gate->WorkBegins();
        queue.mutex.lock();
        if (!go) break;
      }
      queue.PopFront(work, queued);
    }
    queue.taken.notify_all();
    ++ran;
    if (waited) waited(Clock::now() - queued);
    struct End {
      QueueGate* gate;
      ~End() {
        if (gate != nullptr) gate->WorkEnds();
      }
    } end{gate};
    work();
    if (Clock::now() - start >= budget) break;
  }
  return ran;
}

void SetSynchronizeBound(size_t cap, std::chrono::milliseconds hold) {
  WorkQueue& queue = Queue();
  std::lock_guard<std::mutex> lock(queue.mutex);
  queue.cap = cap;
  queue.hold = hold;
}

SynchronizeCounts SynchronizeFigures() {
  WorkQueue& queue = Queue();
  std::lock_guard<std::mutex> lock(queue.mutex);
  SynchronizeCounts counts = queue.counts;
  counts.queued = queue.count;
  counts.holding = queue.holding;
  return counts;
}

bool QuitRequested() {
  return quitRequested.load();
}

void ResetGame() {
  std::vector<WorkQueue::Item> dropped;
  {
    WorkQueue& queue = Queue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    dropped.swap(queue.ring);
    queue.head = queue.count = 0;
    queue.cap = kDefaultSynchronizeCap;
    queue.hold = kDefaultSynchronizeHold;
    queue.counts = SynchronizeCounts{};
  }
  queueGate = nullptr;
  Queue().taken.notify_all();
  dropped.clear();

  Game::isActive.store(true);
  quitRequested.store(false);
  Game::_is_server = false;
  Game::_mode = 0;
  Game::_mods.clear();
  Game::config = game::Config();
  Game::_current_world.clear();
  Game::timestamp.store(0.0);
  Game::parentEnvironmentId = 0;
  Game::relativeEnvironmentId = 0;
  game::runtime::ResetConfigRecord();
  game::runtime::ResetRendererRecords();

  auto fresh = std::make_unique<game::graphics::GameRenderer>();
  Game::renderer = fresh.get();
  resetRenderer = std::move(fresh);
}

}  // namespace orvex::engine
