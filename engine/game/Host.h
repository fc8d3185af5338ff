// What the reference game runtime offers its hosts (game-client, the tests, the benchmarks)
// beyond the declared game library: running the game thread's queue, its figures and
// bounds, mods, actions, the configuration text and aim references as the runtime recorded
// them, and resets between games.
#pragma once

#include "HostOnly.h"

#include <any>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "GAME_Mod.h"
#include "game/entity/ClientSideEntity.h"
#include "orvex/filesystem/Stream.h"

namespace orvex::engine {

// The game thread's queue (what Game::Synchronize fills).
//
// Runs the work queued so far, in queuing order, on the calling (game) thread; work queued
// while it runs waits for the next call. Returns how many functions ran.
size_t RunSynchronized();
// The same within a time budget: once `budget` has passed (after at least one function),
// the rest keeps its place at the front of the queue for the next call. `waited`, when
// given, is told how long each function waited in the queue, just before it runs.
size_t RunSynchronized(
    std::chrono::steady_clock::duration budget,
    const std::function<void(std::chrono::steady_clock::duration)>& waited = nullptr);

// What a host may put around each function RunSynchronized runs (game-client records and,
// in a replay, imposes the order of the game thread's work against the other threads').
// Begins is called on the game thread once a function is waiting to run; false leaves it
// (and the rest) queued and ends the run. Ends follows each function that ran, on every
// way out.
class QueueGate {
 public:
  virtual ~QueueGate() = default;
  virtual bool WorkBegins() = 0;
  virtual void WorkEnds() = 0;
};
// Installs `gate` (null: none). REQUIRES: no RunSynchronized runs meanwhile; the gate
// outlives its installation.
void SetQueueGate(QueueGate* gate);

// The queue bounds itself: a thread that queues while `cap` functions wait is held back
// until the game thread takes some, for at most `hold`, and then queues all the same. A
// datagram delivery thread held back leaves datagrams in its socket, whose buffer then
// overflows as a lossy network would (the kernel counts those drops). The game thread itself,
// and any thread once the game stops, is never held back. Work is never dropped. Set by the
// host before its threads start; ResetGame() restores the defaults (16384 functions, about
// four ticks of state for 100,000 entities; 100 ms).
inline constexpr size_t kDefaultSynchronizeCap = 16384;
inline constexpr std::chrono::milliseconds kDefaultSynchronizeHold{100};
void SetSynchronizeBound(size_t cap, std::chrono::milliseconds hold);

struct SynchronizeCounts {
  size_t queued = 0;     // functions waiting now
  size_t holding = 0;    // threads held back now
  uint64_t held = 0;     // Synchronize calls held back since ResetGame()
  uint64_t heldNs = 0;   // their time held back, in total
  uint64_t overCap = 0;  // of them, those that queued past the cap when their hold ran out
};
SynchronizeCounts SynchronizeFigures();

// Whether Game::Quit() was called since the last ResetGame().
bool QuitRequested();
// Puts every Game static back to its load-time value, drops queued work, restores the
// queue's bounds, forgets the configuration text and the aim references, and installs a
// fresh renderer. For hosts and tests that run several games in one process.
void ResetGame();
// Empties the entity registry and then destroys the entities. Between games only (before
// unloading mods, between test cases): no other thread may use the registry meanwhile.
void ResetEntities();

// Mods. A mod's interface supplier is called by the entity constructor for entities of its
// module: it sets the entity's interface (or leaves it empty), its renderables and
// serverDriven. It runs outside the registry lock and must not use the registry.
using InterfaceSupplier = std::function<void(game::entity::ClientSideEntity& entity)>;
// Throws std::invalid_argument when the mod's id is not valid or a mod with the same id is
// loaded.
void LoadMod(std::shared_ptr<GAME_Mod> mod, InterfaceSupplier supplier = nullptr);
void UnloadMod(const std::string& name);
void UnloadAllMods();

// Queues one action on `entity` for the send step to upload, as a game does: under the
// entity's actionsMutex, then the flag.
void QueueAction(game::entity::ClientSideEntity& entity, filesystem::Stream action);

// The text given to the last game::Config::Parse() (up to its first zero byte).
std::string ConfigText();

// The aim references the current renderer was given, in order of registration: every one
// registered so far except some whose interface is gone (those are dropped in batches, so
// an endless stream of creations and destructions costs bounded memory).
struct AimReference {
  std::string name;
  std::any reference;
  uint32_t aimId = 0;
};
std::vector<AimReference> AimReferences();
size_t AimReferenceCount();
// What a renderable instance was told: its aim id (0: never) and how many times.
struct AimIdCalls {
  unsigned int aimId = 0;
  int calls = 0;
};
AimIdCalls AimIdOf(const game::graphics::RenderableInstance& instance);

}  // namespace orvex::engine
