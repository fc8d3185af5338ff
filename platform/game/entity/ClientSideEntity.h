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
#include "orvex/SharedMutex.h"
#include "orvex/filesystem/Stream.h"
#include "orvex/modular/ModuleID.h"

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

class ClientSideEntity : public BaseEntity, public std::enable_shared_from_this<ClientSideEntity> {
 public:
  using Ptr = std::shared_ptr<ClientSideEntity>;

  // The entity's behaviour, supplied by its module.
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

  // Stores the id and the module; the game then lets the entity's module supply its
  // interface, renderables and serverDriven. Must not use the registry. Defined by game.so.
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
  bool hasPendingActions = false;
};

template <>
ClientSideEntity::Ptr ClientSideEntity::Create<ClientSideEntity>(const Id& id,
                                                                 const std::string& module,
                                                                 const std::string& text);
template <>
ClientSideEntity::Ptr ClientSideEntity::Get<ClientSideEntity>(Id id);

}  // namespace game::entity
