// The game library's replicated entity, its interface and its registry (game.so, with the
// inline operations that the client module provides: src/entity).
#pragma once

#include <atomic>
#include <cstdint>
#include <glm/glm.hpp>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "game/entity/Id.h"
#include "game/entity/Unlocked.h"
#include "identifiers/ModuleID.h"
#include "orvex/filesystem/Stream.h"
#include "support/SharedMutex.h"

namespace game::graphics {
class RenderableInstance;
}

namespace game::entity {

// Placement relative to the parent entity (or to the environment when the parent id is
// null). Written by the receiving thread and the game thread without a lock (Unlocked).
class BaseEntity {
 public:
  virtual ~BaseEntity();

  // T · R: rotate by `orientation`, then translate by `position`.
  glm::dmat4 GetTransform() const;

  Unlocked<glm::dvec3> position;
  Unlocked<Orientation> orientation;
  Unlocked<Id> parentId;
};

// An entity's "actions queued" flag. Every change of its value is counted process-wide, so
// the send step can see in one load that no entity has anything queued and skip its walk
// over the registry. Whoever sets or clears the flag keeps the count right without knowing
// of it; an entity destroyed with its flag set takes itself out of the count.
//
// Each set flag is also counted in a slot picked by its address (a counting filter), so a
// walk can rule out most entities from the node's pointer alone, without loading a line of
// the entity: MightBeSet(flag) is false only when no set flag hashes to that slot. A raise
// counts its slot before the process-wide count and a lowering uncounts it after, so whoever
// sees Pending() include a flag sees its slot counted too.
class ActionFlag {
 public:
  ActionFlag() = default;
  ActionFlag(const ActionFlag&) = delete;
  ActionFlag& operator=(const ActionFlag&) = delete;
  ~ActionFlag() { Set(false); }

  ActionFlag& operator=(bool value) {
    Set(value);
    return *this;
  }
  operator bool() const { return flag_.load(std::memory_order_acquire); }  // NOLINT

  // Entities whose flag is set, in the whole process.
  static size_t Pending() { return pending_.load(std::memory_order_acquire); }

  // False when the flag at `flag` is certainly not set; true when it may be. Reads the
  // filter only, never the flag, so `flag` may be computed from a pointer not yet loaded.
  static bool MightBeSet(const ActionFlag* flag) {
    return slots_[Slot(flag)].load(std::memory_order_acquire) != 0;
  }

 private:
  static constexpr unsigned kSlotBits = 15;

  static size_t Slot(const ActionFlag* flag) {
    // Fibonacci hashing of the address: entities lie a few hundred bytes apart.
    return (reinterpret_cast<uintptr_t>(flag) * 0x9E3779B97F4A7C15ull) >> (64 - kSlotBits);
  }

  void Set(bool value) {
    if (flag_.exchange(value, std::memory_order_acq_rel) == value) return;
    if (value) {
      slots_[Slot(this)].fetch_add(1, std::memory_order_acq_rel);
      pending_.fetch_add(1, std::memory_order_acq_rel);
    } else {
      pending_.fetch_sub(1, std::memory_order_acq_rel);
      slots_[Slot(this)].fetch_sub(1, std::memory_order_acq_rel);
    }
  }

  std::atomic<bool> flag_{false};
  static std::atomic<size_t> pending_;                          // defined by game.so
  static std::atomic<uint32_t> slots_[size_t{1} << kSlotBits];  // defined by game.so
};

class ClientSideEntity : public BaseEntity, public std::enable_shared_from_this<ClientSideEntity> {
 public:
  using Ptr = std::shared_ptr<ClientSideEntity>;

  // The entity's behaviour, supplied by its module (see GAME_Mod::supplyInterface).
  class Interface {
   public:
    virtual ~Interface();

    // Registers the entity `id` (module text, entity text), places it under `parent` at
    // `position`/`orientation`, links and initialises its interface (Sync with `data`,
    // then Init), marks both ready and returns the entity. When the module supplies no
    // interface the entity is removed again and the result is empty. Throws the
    // registry's duplicate-id error when `id` is taken (nothing else is done then).
    static Ptr Create(Id id, const std::string& module, const std::string& text, Id parent,
                      glm::dvec3 position, Orientation orientation,
                      orvex::filesystem::ReadOnlyStream&& data);

    // Reads the interface's own data. The default reads nothing.
    virtual void Sync(orvex::filesystem::ReadOnlyStream& data);
    // The default registers an aim reference named by the module text and hands its id to
    // every renderable (each entry must hold an instance).
    virtual void Init();

    std::weak_ptr<ClientSideEntity> entity;
    std::weak_ptr<Interface> self;
    Id id;
    bool ready = false;
    std::shared_ptr<void> sharedMember;
    uint32_t aimId = 0;
  };

  // Stores the id and the module, then asks the module (GAME_Mod::GetModule by the
  // module's text) to supply the interface, the renderables and serverDriven. Must not
  // use the registry. Defined by game.so.
  ClientSideEntity(Id id, const orvex::modular::ModuleID& module, const std::string& text);
  ~ClientSideEntity() override;

  // The product of the local transforms along the parent chain, top-most first. A
  // dangling parent link yields the identity.
  glm::dmat4 GetAbsoluteTransformInEnvironment() const;

  // Registry operations (inline operations of the entity header; src/entity). Only the
  // ClientSideEntity instantiations exist.
  template <typename T>
  static std::shared_ptr<T> Create(const Id& id, const std::string& module,
                                   const std::string& text);
  template <typename T>
  static std::shared_ptr<T> Get(Id id);
  static void Destroy(Id id);
  static bool Exists(Id id);

  // The registry: one strong reference per live entity. _sharedObjectsMutex guards the
  // map: exclusive for Create and Destroy, shared for lookups and walks. Lock order:
  // _sharedObjectsMutex before an entity's actionsMutex. Not reentrant, so an entity's
  // destructor (which may run inside Destroy) must not touch the registry.
  static std::unordered_map<Id, Ptr> _sharedObjects;
  static orvex::SharedMutex _sharedObjectsMutex;

  const Id id;
  orvex::modular::ModuleID moduleId;
  // The entity text that the server sent with the creation.
  std::string text;
  std::shared_ptr<void> sharedMember;

  // Server state, written by inbound traffic without a lock (see Unlocked).
  Unlocked<glm::dvec3> targetPosition;
  Unlocked<Orientation> targetOrientation;
  Unlocked<float> updateRate{0.0f};
  Unlocked<glm::dvec3> velocity;
  Unlocked<glm::dvec3> physicsExtra;
  Unlocked<uint8_t> smooth{0};
  Unlocked<uint8_t> forceSnap{0};
  // Maintained by the game's entity code (here: the module's supplier); traffic only reads.
  Unlocked<bool> serverDriven{false};
  Unlocked<bool> hasTarget{false};
  Unlocked<bool> velocityReset{false};
  Unlocked<bool> stale{false};

  std::shared_ptr<Interface> interface;
  std::vector<std::shared_ptr<graphics::RenderableInstance>> renderables;
  Unlocked<bool> ready{false};

  // Actions queued by the game for upload. actionsMutex guards pendingActions;
  // hasPendingActions is set by whoever queues (after pushing, under the mutex) and read
  // by the send step before it takes the mutex.
  std::mutex actionsMutex;
  std::vector<orvex::filesystem::Stream> pendingActions;
  ActionFlag hasPendingActions;

  // Queues one action (engine convenience for games and tools).
  void QueueAction(orvex::filesystem::Stream action);
};

template <>
ClientSideEntity::Ptr ClientSideEntity::Create<ClientSideEntity>(const Id& id,
                                                                 const std::string& module,
                                                                 const std::string& text);
template <>
ClientSideEntity::Ptr ClientSideEntity::Get<ClientSideEntity>(Id id);

}  // namespace game::entity
