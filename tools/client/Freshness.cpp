#include "client/Freshness.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <shared_mutex>

#include "client/Sandbox.h"
#include "game/entity/ClientSideEntity.h"

namespace gameclient {
namespace {

using game::entity::ClientSideEntity;

// Folds the words of `value` into `hash` (a multiply-xorshift mix: no cryptography needed, a
// missed change needs two states of one entity to collide in 64 bits).
template <typename T>
void Fold(uint64_t& hash, const T& value) {
  std::array<uint64_t, (sizeof(T) + 7) / 8> words{};
  std::memcpy(words.data(), &value, sizeof(T));
  for (uint64_t word : words) {
    hash = (hash ^ word) * 0x9E3779B97F4A7C15ull;
    hash ^= hash >> 29;
  }
}

uint64_t Fingerprint(const ClientSideEntity& e) {
  uint64_t hash = 0;
  Fold(hash, e.parentId.Load());
  Fold(hash, e.targetPosition.Load());
  Fold(hash, e.targetOrientation.Load());
  Fold(hash, e.velocity.Load());
  Fold(hash, e.physicsExtra.Load());
  const float rate = e.updateRate;
  uint32_t rateBits;
  std::memcpy(&rateBits, &rate, sizeof rate);
  Fold(hash, uint64_t{rateBits} << 16 | uint64_t{e.smooth.Load()} << 8 | e.forceSnap.Load());
  if (const auto* sandbox = dynamic_cast<const sandbox::SandboxInterface*>(e.interface.get())) {
    Fold(hash, sandbox->SyncCalls());
  }
  return hash;
}

// The lines of `e` that Fingerprint reads, from the parent link to the interface pointer;
// hints only, a wrong address costs bandwidth, never a fault.
void PrefetchEntity(const ClientSideEntity& e) {
  const char* end = reinterpret_cast<const char*>(&e.interface + 1);
  for (const char* at = reinterpret_cast<const char*>(&e.parentId); at < end; at += 64) {
    __builtin_prefetch(at);
  }
  __builtin_prefetch(end - 1);
}

// The interface's first two lines: its type and the sandbox's Sync count. Needs the entity's
// line with the pointer, so it runs a few entities after PrefetchEntity.
void PrefetchInterface(const ClientSideEntity& e) {
  if (const auto* interface = reinterpret_cast<const char*>(e.interface.get())) {
    __builtin_prefetch(interface);
    __builtin_prefetch(interface + 64);
  }
}

bool Older(const std::pair<game::entity::Id, double>& a,
           const std::pair<game::entity::Id, double>& b) {
  if (a.second != b.second) return a.second < b.second;
  return a.first.word0 != b.first.word0 ? a.first.word0 < b.first.word0
                                        : a.first.word1 < b.first.word1;
}

}  // namespace

Freshness::Figures Freshness::Scan(double now, double serverTime) {
  const auto begun = std::chrono::steady_clock::now();
  const uint32_t scan = ++scans_;
  std::vector<double> ages;
  // The stalest so far, oldest first.
  std::vector<std::pair<game::entity::Id, double>> stalest;
  {
    std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    // Entities lie wherever they were allocated: one pass collects them, the next reads each
    // one's fields with its lines fetched a few entities ahead, so that the misses overlap.
    entities_.clear();
    for (const auto& [id, entity] : ClientSideEntity::_sharedObjects) {
      if (entity) entities_.push_back(entity.get());
    }
    ages.reserve(entities_.size());
    for (size_t i = 0; i < entities_.size(); ++i) {
      if (i + kAhead < entities_.size()) PrefetchEntity(*entities_[i + kAhead]);
      if (i + kAhead / 2 < entities_.size()) PrefetchInterface(*entities_[i + kAhead / 2]);
      const ClientSideEntity& entity = *entities_[i];
      const uint64_t fingerprint = Fingerprint(entity);
      const auto [it, added] =
          seen_.try_emplace(entity.id, Seen{fingerprint, serverTime, now, scan});
      Seen& seen = it->second;
      if (!added && seen.fingerprint != fingerprint)
        seen = Seen{fingerprint, serverTime, now, scan};
      seen.scan = scan;
      ages.push_back(1000.0 * (now - seen.changedAt));
      const std::pair<game::entity::Id, double> candidate{entity.id, seen.changedAt};
      if (stalest.size() < kStalest || Older(candidate, stalest.back())) {
        stalest.insert(std::upper_bound(stalest.begin(), stalest.end(), candidate, Older),
                       candidate);
        if (stalest.size() > kStalest) stalest.pop_back();
      }
    }
  }
  std::erase_if(seen_, [scan](const auto& entry) { return entry.second.scan != scan; });
  Figures figures;
  figures.ageMs = Spread::Of(std::move(ages));
  for (const auto& [id, changedAt] : stalest) {
    figures.stalest.push_back({id.ToString(), 1000.0 * (now - changedAt), seen_.at(id).serverTime});
  }
  figures.scanMs =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begun).count();
  return figures;
}

}  // namespace gameclient
