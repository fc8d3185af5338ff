// The game library's part of the entity class: construction (with the module's interface
// supply), destruction, the registry's storage and the action queue.
#include "game/entity/ClientSideEntity.h"

#include <utility>
#include <vector>

#include "game/Host.h"
#include "game/ModSuppliers.h"

namespace game::entity {

std::unordered_map<Id, ClientSideEntity::Ptr> ClientSideEntity::_sharedObjects;
orvex::SharedMutex ClientSideEntity::_sharedObjectsMutex;

}  // namespace game::entity

void orvex::engine::ResetEntities() {
  using game::entity::ClientSideEntity;
  // The registry's lock belongs to the module, so the contract is the caller's: no other
  // thread touches the registry meanwhile. The entities die after the map is emptied, so a
  // destructor that looks at the registry finds it empty; clear() keeps the buckets a host
  // reserved.
  std::vector<ClientSideEntity::Ptr> doomed;
  doomed.reserve(ClientSideEntity::_sharedObjects.size());
  for (auto& entry : ClientSideEntity::_sharedObjects) doomed.push_back(std::move(entry.second));
  ClientSideEntity::_sharedObjects.clear();
}

namespace game::entity {

BaseEntity::~BaseEntity() = default;

// Runs outside the registry lock (the registry constructs before it locks), and the entity
// is not owned by a shared pointer yet: the supplier must not call shared_from_this().
ClientSideEntity::ClientSideEntity(Id entityId, const orvex::modular::ModuleID& module,
                                   const std::string& entityText)
    : id(entityId), moduleId(module), text(entityText) {
  if (const auto supplier = runtime::SupplierOf(moduleId.String())) supplier(*this);
}

// May run inside the registry's exclusive section: nothing here touches the registry.
ClientSideEntity::~ClientSideEntity() = default;

}  // namespace game::entity

void orvex::engine::QueueAction(game::entity::ClientSideEntity& entity, filesystem::Stream action) {
  std::lock_guard<std::mutex> lock(entity.actionsMutex);
  entity.pendingActions.push_back(std::move(action));
  entity.hasPendingActions = true;
}
