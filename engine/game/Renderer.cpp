// The headless renderer: it keeps what it is given and hands out aim ids 1, 2, 3, ...
#include "game/graphics/Renderer.h"

#include <utility>

namespace game::graphics {

void RenderableInstance::SetAimID(unsigned int id) {
  aimId = id;
  ++aimIdCalls;
}

uint32_t GameRenderer::AddAimReference(const std::string& name, std::any reference) {
  std::lock_guard<std::mutex> lock(mutex_);
  references_.push_back(AimReference{name, std::move(reference)});
  return static_cast<uint32_t>(references_.size());
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
