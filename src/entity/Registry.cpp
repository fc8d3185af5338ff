// The entity registry: at most one live entity per id (UNIQUE_OBJECT).
//
// Lock rules: Create and Destroy hold _sharedObjectsMutex exclusively, Get and Exists hold
// it shared. Entities are constructed before the lock is taken and a rejected duplicate is
// destroyed after it is released; a registered entity whose last reference is the
// registry's is destroyed inside Destroy's exclusive section.
#include <iostream>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "game/entity/ClientSideEntity.h"

namespace game::entity {

template <>
ClientSideEntity::Ptr ClientSideEntity::Create<ClientSideEntity>(const Id& id,
                                                                 const std::string& module,
                                                                 const std::string& text) {
  const orvex::modular::ModuleID moduleId(module);
  // Declared before the lock, so a rejected entity dies after the lock is released. The
  // entity and its reference count are two allocations: the pointer adopts the object the
  // game's constructor built, and its deleter is the game's deleting destructor. Should the
  // count's allocation fail, the pointer's constructor destroys the entity and rethrows.
  Ptr entity(new ClientSideEntity(id, moduleId, text));
  std::lock_guard<orvex::SharedMutex> lock(_sharedObjectsMutex);
  if (_sharedObjects.find(entity->id) != _sharedObjects.end()) {
    throw std::runtime_error("UNIQUE_OBJECT ClientSideEntity with id " + entity->id.ToString() +
                             " already exists");
  }
  _sharedObjects.emplace(entity->id, entity);
  return entity;
}

void ClientSideEntity::Destroy(Id id) {
  std::lock_guard<orvex::SharedMutex> lock(_sharedObjectsMutex);
  const auto it = _sharedObjects.find(id);
  if (it == _sharedObjects.end()) return;
  if (!it->second || it->second.use_count() != 1) {
    std::cerr << "WARNING: UNIQUE_OBJECT ClientSideEntity with id " << id.ToString()
              << " being Destroyed while still in use" << std::endl;
  }
  _sharedObjects.erase(it);
}

template <>
ClientSideEntity::Ptr ClientSideEntity::Get<ClientSideEntity>(Id id) {
  std::shared_lock<orvex::SharedMutex> lock(_sharedObjectsMutex);
  const auto it = _sharedObjects.find(id);
  return it != _sharedObjects.end() ? it->second : nullptr;
}

bool ClientSideEntity::Exists(Id id) {
  std::shared_lock<orvex::SharedMutex> lock(_sharedObjectsMutex);
  return _sharedObjects.find(id) != _sharedObjects.end();
}

}  // namespace game::entity
