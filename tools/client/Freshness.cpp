#include "client/Freshness.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
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

uint64_t Fingerprint(const ClientSideEntity& e, const sandbox::SandboxInterface& interface) {
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
  Fold(hash, interface.SyncCalls());
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

// The interface's lines: its type, the sandbox's Sync count and what the last scan saw.
// Needs the entity's line with the pointer, so it runs a few entities after PrefetchEntity.
void PrefetchInterface(const ClientSideEntity& e) {
  if (const auto* interface = reinterpret_cast<const char*>(e.interface.get())) {
    for (size_t at = 0; at < sizeof(sandbox::SandboxInterface); at += 64) {
      __builtin_prefetch(interface + at);
    }
  }
}

}  // namespace

void Freshness::Step(double now, double serverTime, double interval) {
  const double elapsed = now - lastStep_;
  lastStep_ = now;
  if (elapsed > 0 && interval > 0) ScanBuckets(std::min(1.0, elapsed / interval), now, serverTime);
}

Freshness::Figures Freshness::Scan(double now, double serverTime) {
  ScanBuckets(1.0, now, serverTime);
  lastStep_ = now;
  Figures figures;
  figures.counted = ages_.size();
  figures.ageMs = Spread::Of(std::move(ages_));
  for (const Candidate& c : stalest_) {
    figures.stalest.push_back({c.id.ToString(), 1000.0 * (now - c.changedAt), c.serverTime});
  }
  figures.scanMs = scanMs_;
  ages_.clear();
  stalest_.clear();
  scanMs_ = 0;
  next_ = 0;
  return figures;
}

void Freshness::ScanBuckets(double share, double now, double serverTime) {
  const auto begun = std::chrono::steady_clock::now();
  // The stalest first, ties by id.
  const auto older = [](const Candidate& a, const Candidate& b) {
    if (a.changedAt != b.changedAt) return a.changedAt < b.changedAt;
    return a.id.word0 != b.id.word0 ? a.id.word0 < b.id.word0 : a.id.word1 < b.id.word1;
  };
  {
    std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    const auto& registry = ClientSideEntity::_sharedObjects;
    if (next_ == 0) {
      buckets_ = registry.bucket_count();
    } else if (registry.bucket_count() != buckets_) {
      // Rehashed since the round began (the registry grew): its entities moved between
      // buckets, so the round starts over.
      ages_.clear();
      stalest_.clear();
      next_ = 0;
      buckets_ = registry.bucket_count();
    }
    const size_t end =
        share >= 1.0
            ? buckets_
            : std::min(buckets_, next_ + static_cast<size_t>(std::ceil(share * double(buckets_))));
    // Entities lie wherever they were allocated: one pass collects the slice's, the next
    // reads each one's fields with its lines fetched a few entities ahead, so that the
    // misses overlap.
    entities_.clear();
    for (; next_ < end; ++next_) {
      for (auto it = registry.begin(next_); it != registry.end(next_); ++it) {
        if (it->second) entities_.push_back(it->second.get());
      }
    }
    for (size_t i = 0; i < entities_.size(); ++i) {
      if (i + kAhead < entities_.size()) PrefetchEntity(*entities_[i + kAhead]);
      if (i + kAhead / 2 < entities_.size()) PrefetchInterface(*entities_[i + kAhead / 2]);
      const ClientSideEntity& entity = *entities_[i];
      auto* interface = dynamic_cast<sandbox::SandboxInterface*>(entity.interface.get());
      if (interface == nullptr) continue;
      const uint64_t fingerprint = Fingerprint(entity, *interface);
      sandbox::SandboxInterface::Seen& seen = interface->seen;
      if (std::isnan(seen.changedAt) || seen.fingerprint != fingerprint) {
        seen = {fingerprint, serverTime, now};
      }
      ages_.push_back(1000.0 * (now - seen.changedAt));
      const Candidate candidate{entity.id, seen.changedAt, seen.serverTime};
      if (stalest_.size() < kStalest || older(candidate, stalest_.back())) {
        stalest_.insert(std::upper_bound(stalest_.begin(), stalest_.end(), candidate, older),
                        candidate);
        if (stalest_.size() > kStalest) stalest_.pop_back();
      }
    }
  }
  scanMs_ +=
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begun).count();
}

}  // namespace gameclient
