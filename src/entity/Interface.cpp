// Entity interfaces: how a replicated entity comes to life, and the default Sync and Init.
//
// Interface::Create locks the registry only inside ClientSideEntity::Create and Destroy;
// placing, linking, Sync and Init run unlocked on the calling thread. Other threads may
// already find the entity while it is being completed; its `ready` turns true last.
#include <any>
#include <stdexcept>
#include <utility>

#include "Game.h"
#include "game/entity/ClientSideEntity.h"
#include "game/graphics/Renderer.h"

namespace game::entity {

ClientSideEntity::Interface::~Interface() = default;

ClientSideEntity::Ptr ClientSideEntity::Interface::Create(
    Id id, const std::string& module, const std::string& text, Id parent, glm::dvec3 position,
    Orientation orientation, orvex::filesystem::ReadOnlyStream&& data) {
  Ptr entity = ClientSideEntity::Create<ClientSideEntity>(id, module, text);
  entity->parentId = parent;
  entity->position = position;
  entity->orientation = orientation;

  if (!entity->interface) {
    // With this reference gone the registry's is the only one: removed without a warning.
    entity.reset();
    ClientSideEntity::Destroy(id);
    return nullptr;
  }

  // On an exception from here on the entity stays registered and neither `ready` is set.
  const std::shared_ptr<Interface> interface = entity->interface;
  interface->entity = entity;
  interface->self = entity->interface;
  interface->id = entity->id;
  interface->sharedMember = entity->sharedMember;
  interface->Sync(data);
  interface->Init();
  for (const std::shared_ptr<graphics::RenderableInstance>& renderable : entity->renderables) {
    if (renderable) renderable->linked = true;
  }
  interface->ready = true;
  entity->ready = true;
  return entity;
}

void ClientSideEntity::Interface::Sync(orvex::filesystem::ReadOnlyStream& /*data*/) {}

// REQUIRES: the owning entity is alive and every renderable entry holds an instance.
// The renderer gets a weak reference, so it keeps neither the interface nor the entity alive.
void ClientSideEntity::Interface::Init() {
  const Ptr owner = entity.lock();
  if (!owner) throw std::logic_error("ClientSideEntity::Interface::Init: the entity is gone");
  std::any reference = self;
  aimId = Game::renderer->AddAimReference(owner->moduleId.String(), std::move(reference));
  for (const std::shared_ptr<graphics::RenderableInstance>& renderable : owner->renderables) {
    if (!renderable) {
      throw std::logic_error("ClientSideEntity::Interface::Init: empty renderable entry");
    }
    renderable->SetAimID(aimId);
  }
}

}  // namespace game::entity
