// The game library's part of the entity class: construction (with the module's interface
// supply), destruction, the registry's storage and the action queue.
#include "game/entity/ClientSideEntity.h"

#include <utility>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "game/graphics/Renderer.h"

namespace game::entity {

std::unordered_map<Id, ClientSideEntity::Ptr> ClientSideEntity::_sharedObjects;
orvex::SharedMutex ClientSideEntity::_sharedObjectsMutex;

}  // namespace game::entity

void Game::ResetEntities() {
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
std::atomic<size_t> ActionFlag::pending_{0};
std::atomic<uint32_t> ActionFlag::slots_[size_t{1} << kSlotBits];

BaseEntity::~BaseEntity() = default;

// Runs outside the registry lock (the registry constructs before it locks), and the entity
// is not owned by a shared pointer yet: the supplier must not call shared_from_this().
ClientSideEntity::ClientSideEntity(Id entityId, const orvex::modular::ModuleID& module,
                                   const std::string& entityText)
    : id(entityId), moduleId(module), text(entityText) {
  const std::shared_ptr<GAME_Mod> mod = GAME_Mod::GetModule(moduleId.String());
  if (mod && mod->supplyInterface) mod->supplyInterface(*this);
}

// May run inside the registry's exclusive section: nothing here touches the registry.
ClientSideEntity::~ClientSideEntity() = default;

void ClientSideEntity::QueueAction(orvex::filesystem::Stream action) {
  std::lock_guard<std::mutex> lock(actionsMutex);
  pendingActions.push_back(std::move(action));
  hasPendingActions = true;
}

}  // namespace game::entity
