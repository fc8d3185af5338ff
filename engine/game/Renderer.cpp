// The headless renderer: it keeps what it is given and hands out aim ids 1, 2, 3, ... It
// keeps a reference only while its interface lives: the ones whose interface is gone are
// dropped as new ones come, so an endless stream of creations and destructions costs
// bounded memory. What renderable instances were told is kept for the newest
// kInstancesKept instances only, for the same reason.
#include "game/graphics/Renderer.h"

#include <algorithm>
#include <deque>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "game/Host.h"
#include "game/RuntimeState.h"
#include "game/entity/ClientSideEntity.h"

namespace {

constexpr size_t kInstancesKept = 4096;

// `mutex` guards every member.
struct Records {
  std::mutex mutex;
  std::vector<orvex::engine::AimReference> references;
  uint32_t lastAimId = 0;
  // references.size() at which the next sweep runs: twice what the last one kept, so the
  // sweeps cost a constant per registration.
  size_t sweepAt = 64;
  std::unordered_map<const game::graphics::RenderableInstance*, orvex::engine::AimIdCalls>
      instances;
  std::deque<const game::graphics::RenderableInstance*> instanceOrder;

  // Drops the references whose interface is gone.
  void DropExpired() {
    // The entity code registers a weak reference to the interface; anything else is kept.
    std::erase_if(references, [](const orvex::engine::AimReference& aim) {
      const auto* interface =
          std::any_cast<std::weak_ptr<game::entity::ClientSideEntity::Interface>>(&aim.reference);
      return interface != nullptr && interface->expired();
    });
    sweepAt = std::max<size_t>(64, 2 * references.size());
  }
};

// Never destroyed: entities may register during the process's exit.
Records& TheRecords() {
  static Records* records = new Records;
  return *records;
}

}  // namespace

namespace game::graphics {

void RenderableInstance::SetAimID(unsigned int id) {
  Records& records = TheRecords();
  std::lock_guard<std::mutex> lock(records.mutex);
  auto [it, added] = records.instances.try_emplace(this);
  it->second.aimId = id;
  ++it->second.calls;
  if (!added) return;
  records.instanceOrder.push_back(this);
  if (records.instanceOrder.size() > kInstancesKept) {
    records.instances.erase(records.instanceOrder.front());
    records.instanceOrder.pop_front();
  }
}

uint32_t GameRenderer::AddAimReference(const std::string& name, std::any reference) {
  Records& records = TheRecords();
  std::lock_guard<std::mutex> lock(records.mutex);
  if (records.references.size() >= records.sweepAt) records.DropExpired();
  records.references.push_back({name, std::move(reference), ++records.lastAimId});
  return records.lastAimId;
}

}  // namespace game::graphics

void game::runtime::ResetRendererRecords() {
  Records& records = TheRecords();
  std::vector<orvex::engine::AimReference> dropped;  // destroyed after the lock
  std::lock_guard<std::mutex> lock(records.mutex);
  dropped.swap(records.references);
  records.lastAimId = 0;
  records.sweepAt = 64;
  records.instances.clear();
  records.instanceOrder.clear();
}

namespace orvex::engine {

std::vector<AimReference> AimReferences() {
  Records& records = TheRecords();
  std::lock_guard<std::mutex> lock(records.mutex);
  return records.references;
}

size_t AimReferenceCount() {
  Records& records = TheRecords();
  std::lock_guard<std::mutex> lock(records.mutex);
  return records.references.size();
}

AimIdCalls AimIdOf(const game::graphics::RenderableInstance& instance) {
  Records& records = TheRecords();
  std::lock_guard<std::mutex> lock(records.mutex);
  const auto it = records.instances.find(&instance);
  return it != records.instances.end() ? it->second : AimIdCalls{};
}

}  // namespace orvex::engine
