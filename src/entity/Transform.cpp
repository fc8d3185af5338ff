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

// Parent links must form a tree: a cycle recurses until the stack is exhausted.
glm::dmat4 ClientSideEntity::GetAbsoluteTransformInEnvironment() const {
  const Id parent = parentId;
  if (parent.IsNull()) return GetTransform();
  Ptr parentEntity;
  {
    std::shared_lock<orvex::SharedMutex> lock(_sharedObjectsMutex);
    const auto it = _sharedObjects.find(parent);
    if (it != _sharedObjects.end()) parentEntity = it->second;
  }
  // A dangling link yields the identity, not the local transform.
  if (!parentEntity) return glm::dmat4(1.0);
  const glm::dmat4 local = GetTransform();
  return parentEntity->GetAbsoluteTransformInEnvironment() * local;
}

}  // namespace game::entity
