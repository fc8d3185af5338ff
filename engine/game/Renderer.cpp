// The headless renderer: it keeps what it is given and hands out aim ids 1, 2, 3, ... It
// keeps a reference only while its interface lives: the ones whose interface is gone are
// dropped as new ones come, so an endless stream of creations and destructions costs
// bounded memory. What renderable instances were told is kept for the newest
// kInstancesKept instances only, for the same reason.
#include "game/graphics/Renderer.h"

#include <algorithm>
#include <any>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "game/Host.h"
#include "game/RuntimeState.h"
#include "game/entity/ClientSideEntity.h"

namespace {

constexpr size_t kInstancesKept = 4096;

using WeakInterface = std::weak_ptr<game::entity::ClientSideEntity::Interface>;

// One reference as kept. The entity code registers a weak reference to each interface,
// named by its module: the weak pointer is held as itself (a std::any would put it on the
// heap) and the name as an index into the names in use, which the references of one module
// share: 32 bytes a reference, with no block of its own (docs/reliability.md has the
// figures).
struct Kept {
  std::variant<WeakInterface, std::any> reference;
  uint32_t name = 0;
  uint32_t aimId = 0;

  bool Expired() const {
    const auto* weak = std::get_if<WeakInterface>(&reference);
    return weak != nullptr && weak->expired();
  }
};

// `mutex` guards every member.
struct Records {
  std::mutex mutex;
  // A deque: a vector's doubling would leave up to half its capacity unused.
  std::deque<Kept> references;
  // The names of the kept references, and each one's index; rebuilt at each sweep, so
  // names no reference uses any more go with them.
  std::vector<std::string> names;
  std::unordered_map<std::string, uint32_t> nameIndex;
  uint32_t lastAimId = 0;
  // references.size() at which the next sweep runs: twice what the last one kept, so the
  // sweeps cost a constant per registration.
  size_t sweepAt = 64;
  std::unordered_map<const game::graphics::RenderableInstance*, orvex::engine::AimIdCalls>
      instances;
  std::deque<const game::graphics::RenderableInstance*> instanceOrder;

  uint32_t NameIndex(const std::string& name) {
    const auto [it, added] = nameIndex.try_emplace(name, static_cast<uint32_t>(names.size()));
    if (added) names.push_back(name);
    return it->second;
  }

  // Drops the references whose interface is gone, and the names no reference uses.
  void DropExpired() {
    std::erase_if(references, [](const Kept& kept) { return kept.Expired(); });
    std::vector<std::string> used;
    used.swap(names);
    nameIndex.clear();
    for (Kept& kept : references) kept.name = NameIndex(used[kept.name]);
    sweepAt = std::max<size_t>(64, 2 * references.size());
  }

  void Clear() {
    references.clear();
    names.clear();
    nameIndex.clear();
    lastAimId = 0;
    sweepAt = 64;
    instances.clear();
    instanceOrder.clear();
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
  Kept kept{{}, records.NameIndex(name), ++records.lastAimId};
  if (auto* weak = std::any_cast<WeakInterface>(&reference)) {
    kept.reference = std::move(*weak);
  } else {
    kept.reference = std::move(reference);
  }
  records.references.push_back(std::move(kept));
  return records.lastAimId;
}

}  // namespace game::graphics

void game::runtime::ResetRendererRecords() {
  Records& records = TheRecords();
  Records dropped;  // the references destroyed after the lock
  std::lock_guard<std::mutex> lock(records.mutex);
  dropped.references.swap(records.references);
  records.Clear();
}

namespace orvex::engine {

std::vector<AimReference> AimReferences() {
  Records& records = TheRecords();
  std::lock_guard<std::mutex> lock(records.mutex);
  std::vector<AimReference> references;
  references.reserve(records.references.size());
  for (const Kept& kept : records.references) {
    std::any reference;
    if (const auto* weak = std::get_if<WeakInterface>(&kept.reference)) {
      reference = *weak;
    } else {
      reference = std::get<std::any>(kept.reference);
    }
    references.push_back({records.names[kept.name], std::move(reference), kept.aimId});
  }
  return references;
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
