#include "client/StatePasses.h"

#include <cmath>
#include <cstring>
#include <glm/glm.hpp>
#include <glm/gtc/quaternion.hpp>
#include <iostream>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "entity/Lookahead.h"
#include "game/entity/ClientSideEntity.h"

namespace client {

using game::entity::ClientSideEntity;
using game::entity::Id;
using game::entity::Orientation;

namespace {

void Snap(ClientSideEntity& entity) {
  entity.position = entity.targetPosition;
  entity.orientation = entity.targetOrientation;
  entity.hasTarget = true;
  entity.stale = false;
}

// Keeps the entity's place in the world while it moves from its old parent to `newParent`:
// M = inverse(A_new) x A_old x T. The rotation goes back to a quaternion in single
// precision. Returns false when either parent is unknown.
bool Reparent(ClientSideEntity& entity, const Id& oldParentId, const Id& newParentId) {
  const ClientSideEntity::Ptr oldParent = ClientSideEntity::Get<ClientSideEntity>(oldParentId);
  const ClientSideEntity::Ptr newParent = ClientSideEntity::Get<ClientSideEntity>(newParentId);
  if (!oldParent || !newParent) return false;
  const glm::dmat4 local = entity.GetTransform();
  const glm::dmat4 oldAbsolute = oldParent->GetAbsoluteTransformInEnvironment();
  const glm::dmat4 newAbsolute = newParent->GetAbsoluteTransformInEnvironment();
  const glm::dmat4 m = glm::inverse(newAbsolute) * oldAbsolute * local;
  entity.position = glm::dvec3(m[3]);
  const glm::quat rotation = glm::quat_cast(glm::mat3(glm::dmat3(m)));
  entity.orientation = Orientation{rotation.w, rotation.x, rotation.y, rotation.z};
  return true;
}

// The lookups of a pass's records, with the ids of the records ahead read from the
// datagram so that the registry can fetch their memory early. Records of `kStride` bytes
// open with their id.
template <unsigned long kStride>
class RecordLookups {
 public:
  // Before each record is read from `records`: reads the ids ahead when the last ones ran
  // out (whole records up to the first null id).
  void Before(const orvex::filesystem::ReadOnlyStream& records) {
    if (at_ < count_) return;
    at_ = count_ = 0;
    const unsigned char* bytes = records.GetBuffer();
    const unsigned long whole = records.GetBufferSize() / kStride;
    while (count_ < kChunk && count_ < whole) {
      std::memcpy(&ids_[count_], bytes + count_ * kStride, sizeof(Id));
      if (ids_[count_].IsNull()) break;
      ++count_;
    }
  }
  // The entity of the record just read, whose id is `id`.
  ClientSideEntity::Ptr Get(const Id& id) {
    if (at_ < count_ && ids_[at_] == id) return registry_.Get(ids_, at_++, count_);
    return ClientSideEntity::Get<ClientSideEntity>(id);
  }

 private:
  static constexpr size_t kChunk = 64;
  Id ids_[kChunk];
  size_t at_ = 0, count_ = 0;
  game::entity::RegistryLookahead registry_;
};

// Blocks for passes, kept for reuse. Taken on the delivery thread, given back on the game
// thread; `mutex` guards `free`. At most kKeep blocks are kept (a few ticks at the largest
// scale); the rest go back to the heap.
class PassBlocks {
 public:
  static constexpr size_t kBlock = 128;

  void* Take() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!free_.empty()) {
        void* block = free_.back();
        free_.pop_back();
        return block;
      }
    }
    return ::operator new(kBlock);
  }

  void Give(void* block) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (free_.size() < kKeep) {
        if (free_.capacity() == 0) free_.reserve(kKeep);
        free_.push_back(block);
        return;
      }
    }
    ::operator delete(block);
  }

 private:
  static constexpr size_t kKeep = 16384;
  std::mutex mutex_;
  std::vector<void*> free_;
};

// Never destroyed: passes may be freed during the process's exit.
PassBlocks& Blocks() {
  static PassBlocks* blocks = new PassBlocks;
  return *blocks;
}

}  // namespace

static_assert(sizeof(TransformPass) <= PassBlocks::kBlock &&
              sizeof(PhysicsPass) <= PassBlocks::kBlock);

void* TransformPass::operator new(size_t) {
  return Blocks().Take();
}
void TransformPass::operator delete(void* block, size_t) {
  Blocks().Give(block);
}
void* PhysicsPass::operator new(size_t) {
  return Blocks().Take();
}
void PhysicsPass::operator delete(void* block, size_t) {
  Blocks().Give(block);
}

TransformPass::TransformPass(orvex::filesystem::ReadOnlyStream records, int32_t divisor, Id parent,
                             bool foreign)
    : records_(std::move(records)), divisor_(divisor), parent_(parent), foreign_(foreign) {}

void TransformPass::operator()() {
  RecordLookups<56> lookups;
  for (;;) {
    lookups.Before(records_);
    const Id id = records_.ReadValue<Id>();
    if (id.IsNull()) return;
    const glm::dvec3 position = records_.ReadValue<glm::dvec3>();
    float rotation[4];
    records_.Read(reinterpret_cast<unsigned char*>(rotation), sizeof(rotation));
    if (std::isnan(position.x) || std::isnan(position.y) || std::isnan(position.z) ||
        std::isnan(rotation[0]) || std::isnan(rotation[1]) || std::isnan(rotation[2]) ||
        std::isnan(rotation[3])) {
      std::cerr << "Client Received NaN transform data" << std::endl;
      return;
    }

    const ClientSideEntity::Ptr entity = lookups.Get(id);
    if (!entity || !entity->serverDriven) continue;
    if (foreign_) {
      // The next transform from the local environment snaps the entity.
      entity->hasTarget = false;
      continue;
    }

    // N = 0 gives an infinite rate, which counts as "receiving datagrams" like any non-zero.
    entity->updateRate = 20.0f / static_cast<float>(divisor_);
    entity->targetOrientation = Orientation{rotation[0], rotation[1], rotation[2], rotation[3]};
    entity->targetPosition = position;

    const Id current = entity->parentId;
    if (parent_ == current) {
      if (!entity->hasTarget) {
        Snap(*entity);
      } else {
        entity->stale = false;
      }
    } else if (!entity->hasTarget || parent_.IsNull() || current.IsNull()) {
      entity->parentId = parent_;
      Snap(*entity);
    } else if (Reparent(*entity, current, parent_)) {
      // No snap: the entity keeps its place in the world, apart from its new target.
      entity->parentId = parent_;
      entity->stale = false;
    } else {
      entity->hasTarget = false;
      entity->parentId = parent_;
      Snap(*entity);
    }
  }
}

PhysicsPass::PhysicsPass(orvex::filesystem::ReadOnlyStream records)
    : records_(std::move(records)) {}

void PhysicsPass::operator()() {
  RecordLookups<64> lookups;
  for (;;) {
    lookups.Before(records_);
    const Id id = records_.ReadValue<Id>();
    if (id.IsNull()) return;
    const glm::dvec3 velocity = records_.ReadValue<glm::dvec3>();
    const glm::dvec3 extra = records_.ReadValue<glm::dvec3>();
    if (glm::any(glm::isnan(velocity)) || glm::any(glm::isnan(extra))) {
      std::cerr << "Client Received NaN physics data" << std::endl;
      return;
    }
    // Entities that sit on a parent never take physics from the server.
    const ClientSideEntity::Ptr entity = lookups.Get(id);
    if (entity && entity->serverDriven && entity->parentId.Load().IsNull()) {
      entity->velocity = velocity;
      entity->physicsExtra = extra;
    }
  }
}

}  // namespace client
