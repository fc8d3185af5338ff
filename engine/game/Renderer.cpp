// The headless renderer: it keeps what it is given and hands out aim ids 1, 2, 3, ...
#include "game/graphics/Renderer.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "game/entity/ClientSideEntity.h"

namespace game::graphics {

void RenderableInstance::SetAimID(unsigned int id) {
  aimId = id;
  ++aimIdCalls;
}

uint32_t GameRenderer::AddAimReference(const std::string& name, std::any reference) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (references_.size() >= sweepAt_) DropExpired();
  references_.push_back(AimReference{name, std::move(reference), ++lastAimId_});
  return lastAimId_;
}

void GameRenderer::DropExpired() {
  // The entity code registers a weak reference to the interface; anything else is kept.
  std::erase_if(references_, [](const AimReference& aim) {
    const auto* interface =
        std::any_cast<std::weak_ptr<entity::ClientSideEntity::Interface>>(&aim.reference);
    return interface != nullptr && interface->expired();
  });
  sweepAt_ = std::max<size_t>(64, 2 * references_.size());
}

std::vector<GameRenderer::AimReference> GameRenderer::AimReferences() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return references_;
}

size_t GameRenderer::AimReferenceCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return references_.size();
}

}  // namespace game::graphics
