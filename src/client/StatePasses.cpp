#include "client/StatePasses.h"

#include <array>
#include <cmath>
#include <cstring>
#include <glm/glm.hpp>
#include <glm/gtc/quaternion.hpp>
#include <iostream>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "client/Limits.h"
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

// Absolute transforms of the parents a transform pass looks at, remembered for the rest of
// the pass, so that its work on parents is bounded by the entities the datagram touches and
// not by the records times the depth of their chains. Each value equals what
// GetAbsoluteTransformInEnvironment() gives at that moment, bit for bit: it is formed in the
// same order, top-most first, as the parent's remembered product times the entity's own
// transform. Every entity on a remembered chain is itself remembered (and held, so its
// address is not reused), so when the pass moves one of them, forgetting everything drops
// every value that depended on it; moving any other entity changes no remembered value.
// A chain that runs into a cycle is computed by GetAbsoluteTransformInEnvironment() and not
// remembered: there the result depends on where the walk enters the cycle. Game thread.
class ParentTransforms {
 public:
  glm::dmat4 Absolute(const ClientSideEntity::Ptr& entity) {
    if (const auto it = known_.find(entity.get()); it != known_.end()) return it->second;
    // Up the chain to a remembered entity, the top or a dangling link.
    std::vector<ClientSideEntity::Ptr>& chain = walk_;
    chain.assign(1, entity);
    glm::dmat4 base(1.0);
    for (;;) {
      const ClientSideEntity& at = *chain.back();
      const Id parentId = at.parentId;
      if (parentId.IsNull()) {
        base = at.GetTransform();
        Remember(chain.back(), base);
        chain.pop_back();
        break;
      }
      ClientSideEntity::Ptr parent = ClientSideEntity::Get<ClientSideEntity>(parentId);
      if (!parent) {
        base = glm::dmat4(1.0);  // a dangling link: the identity, whatever the placement
        Remember(chain.back(), base);
        chain.pop_back();
        break;
      }
      if (const auto it = known_.find(parent.get()); it != known_.end()) {
        base = it->second;
        break;
      }
      for (const ClientSideEntity::Ptr& below : chain) {
        if (below == parent) return entity->GetAbsoluteTransformInEnvironment();
      }
      chain.push_back(std::move(parent));
    }
    for (size_t i = chain.size(); i-- > 0;) {
      base = base * chain[i]->GetTransform();
      Remember(chain[i], base);
    }
    chain.clear();
    return base;
  }

  // The pass changed `entity`'s placement.
  void Moved(const ClientSideEntity& entity) {
    if (known_.empty() || known_.find(&entity) == known_.end()) return;
    known_.clear();
    held_.clear();
  }

 private:
  void Remember(const ClientSideEntity::Ptr& entity, const glm::dmat4& absolute) {
    known_.emplace(entity.get(), absolute);
    held_.push_back(entity);
  }

  std::unordered_map<const ClientSideEntity*, glm::dmat4> known_;
  std::vector<ClientSideEntity::Ptr> held_;
  std::vector<ClientSideEntity::Ptr> walk_;
};

// Keeps the entity's place in the world while it moves from its old parent to `newParent`:
// M = inverse(A_new) x A_old x T. The rotation goes back to a quaternion in single
// precision. Returns false when either parent is unknown.
bool Reparent(ClientSideEntity& entity, const Id& oldParentId, const Id& newParentId,
              ParentTransforms& parents) {
  const ClientSideEntity::Ptr oldParent = ClientSideEntity::Get<ClientSideEntity>(oldParentId);
  const ClientSideEntity::Ptr newParent = ClientSideEntity::Get<ClientSideEntity>(newParentId);
  if (!oldParent || !newParent) return false;
  const glm::dmat4 local = entity.GetTransform();
  const glm::dmat4 oldAbsolute = parents.Absolute(oldParent);
  const glm::dmat4 newAbsolute = parents.Absolute(newParent);
  const glm::dmat4 m = glm::inverse(newAbsolute) * oldAbsolute * local;
  entity.position = glm::dvec3(m[3]);
  const glm::quat rotation = glm::quat_cast(glm::mat3(glm::dmat3(m)));
  entity.orientation = Orientation{rotation.w, rotation.x, rotation.y, rotation.z};
  return true;
}

// A pass's records, read from its stream a chunk at a time (one read of whole records; the
// stream gives zeros beyond its end, so a cut record reads as it would field by field), with
// the lookups of a chunk's entities made through the registry's lookahead, which fetches the
// memory of the records ahead early. Records of `kStride` bytes open with their id.
template <unsigned long kStride>
class RecordChunks {
 public:
  explicit RecordChunks(orvex::filesystem::ReadOnlyStream& records) : records_(records) {}

  // The next record's bytes, or null where the list ends (at the first null id).
  const unsigned char* Next() {
    if (at_ == count_) {
      if (ended_) return nullptr;
      Fill();
      if (count_ == 0) return nullptr;
    }
    return bytes_ + kStride * at_++;
  }
  // The entity of the record that Next() returned last.
  ClientSideEntity::Ptr Entity() { return registry_.Get(ids_, at_ - 1, count_); }

 private:
  static constexpr size_t kChunk = 64;

  void Fill() {
    const unsigned long waiting = records_.GetBufferSize();
    unsigned long records = (waiting + kStride - 1) / kStride;
    records = records < 1 ? 1 : records > kChunk ? kChunk : records;
    records_.Read(bytes_, records * kStride);
    at_ = count_ = 0;
    while (count_ < records) {
      std::memcpy(&ids_[count_], bytes_ + kStride * count_, sizeof(Id));
      if (ids_[count_].IsNull()) {
        ended_ = true;
        break;
      }
      ++count_;
    }
  }

  orvex::filesystem::ReadOnlyStream& records_;
  unsigned char bytes_[kChunk * kStride];
  Id ids_[kChunk];
  size_t at_ = 0, count_ = 0;
  bool ended_ = false;
  game::entity::RegistryLookahead registry_;
};

template <typename T>
T Field(const unsigned char* record, size_t offset) {
  T value;
  std::memcpy(&value, record + offset, sizeof(T));
  return value;
}

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
  RecordChunks<limits::kTransformRecordSize> records(records_);
  ParentTransforms parents;
  while (const unsigned char* record = records.Next()) {
    const glm::dvec3 position = Field<glm::dvec3>(record, 16);
    const auto rotation = Field<std::array<float, 4>>(record, 40);
    if (std::isnan(position.x) || std::isnan(position.y) || std::isnan(position.z) ||
        std::isnan(rotation[0]) || std::isnan(rotation[1]) || std::isnan(rotation[2]) ||
        std::isnan(rotation[3])) {
      std::cerr << "Client Received NaN transform data" << std::endl;
      return;
    }

    const ClientSideEntity::Ptr entity = records.Entity();
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
        parents.Moved(*entity);
      } else {
        entity->stale = false;
      }
      continue;
    }
    if (!entity->hasTarget || parent_.IsNull() || current.IsNull()) {
      entity->parentId = parent_;
      Snap(*entity);
    } else if (Reparent(*entity, current, parent_, parents)) {
      // No snap: the entity keeps its place in the world, apart from its new target.
      entity->parentId = parent_;
      entity->stale = false;
    } else {
      entity->hasTarget = false;
      entity->parentId = parent_;
      Snap(*entity);
    }
    parents.Moved(*entity);
  }
}

PhysicsPass::PhysicsPass(orvex::filesystem::ReadOnlyStream records)
    : records_(std::move(records)) {}

void PhysicsPass::operator()() {
  RecordChunks<limits::kPhysicsRecordSize> records(records_);
  while (const unsigned char* record = records.Next()) {
    const glm::dvec3 velocity = Field<glm::dvec3>(record, 16);
    const glm::dvec3 extra = Field<glm::dvec3>(record, 40);
    if (glm::any(glm::isnan(velocity)) || glm::any(glm::isnan(extra))) {
      std::cerr << "Client Received NaN physics data" << std::endl;
      return;
    }
    // Entities that sit on a parent never take physics from the server.
    const ClientSideEntity::Ptr entity = records.Entity();
    if (entity && entity->serverDriven && entity->parentId.Load().IsNull()) {
      entity->velocity = velocity;
      entity->physicsExtra = extra;
    }
  }
}

}  // namespace client
