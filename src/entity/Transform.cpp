// Entity transforms, in 64-bit floating point. Quaternions are stored w, x, y, z and are
// used as they are: a non-unit orientation also scales.
//
// The registry lock is taken shared only around each parent lookup, never across the
// recursion; placement fields are read without a lock (Unlocked).
#include <glm/gtc/matrix_transform.hpp>
#include <glm/gtc/quaternion.hpp>
#include <mutex>
#include <shared_mutex>

#include "game/entity/ClientSideEntity.h"

namespace game::entity {

glm::dmat4 BaseEntity::GetTransform() const {
  const glm::dvec3 p = position;
  const Orientation o = orientation;
  const glm::dmat4 translation = glm::translate(glm::dmat4(1.0), p);
  const glm::dmat4 rotation = glm::mat4_cast(glm::dquat(o.w, o.x, o.y, o.z));
  return translation * rotation;
}

namespace {

// Parent links must form a tree. A server can still link an entity under its own
// descendant; a chain this deep is taken for such a cycle and ends like a dangling link,
// instead of recursing until the stack runs out.
constexpr int kMaxParentDepth = 1024;

glm::dmat4 Absolute(const ClientSideEntity& entity, int depth) {
  const Id parent = entity.parentId;
  if (parent.IsNull()) return entity.GetTransform();
  if (depth >= kMaxParentDepth) return glm::dmat4(1.0);
  ClientSideEntity::Ptr parentEntity;
  {
    std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    const auto it = ClientSideEntity::_sharedObjects.find(parent);
    if (it != ClientSideEntity::_sharedObjects.end()) parentEntity = it->second;
  }
  // A dangling link yields the identity, not the local transform.
  if (!parentEntity) return glm::dmat4(1.0);
  const glm::dmat4 local = entity.GetTransform();
  return Absolute(*parentEntity, depth + 1) * local;
}

}  // namespace

glm::dmat4 ClientSideEntity::GetAbsoluteTransformInEnvironment() const {
  return Absolute(*this, 0);
}

}  // namespace game::entity
