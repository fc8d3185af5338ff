// Entity transforms, in 64-bit floating point. Quaternions are stored w, x, y, z and are
// used as they are: a non-unit orientation also scales.
//
// The registry lock is taken shared only around each parent lookup, never across the walk or
// the arithmetic; placement fields are read without a lock (Unlocked).
#include <mutex>
#include <shared_mutex>
#include <vector>

#include <glm/gtc/matrix_transform.hpp>
#include <glm/gtc/quaternion.hpp>

#include "game/entity/ClientSideEntity.h"

namespace game::entity {

glm::dmat4 BaseEntity::GetTransform() const {
  const glm::dvec3 p = position;
  const Orientation o = orientation;
  const glm::dmat4 translation = glm::translate(glm::dmat4(1.0), p);
  const glm::dmat4 rotation = glm::mat4_cast(glm::dquat(o.w, o.x, o.y, o.z));
  return translation * rotation;
}

// Parent links must form a tree, but a server can link an entity under its own descendant
// or build a chain of any depth. The walk is a loop, so no depth exhausts the stack, and
// every link of the chain takes part in the product however deep it is. The link that leads
// back to an entity already on the walk ends the chain like a dangling link: Brent's cycle
// detection finds it within a small multiple of the cycle's length, with no lookups beyond
// the walk's own.
glm::dmat4 ClientSideEntity::GetAbsoluteTransformInEnvironment() const {
  if (parentId.Load().IsNull()) return GetTransform();
  // chain[i + 1] is chain[i]'s parent; held[] keeps the parents alive until the product is
  // formed. The product covers chain[0 .. end): with `top`, chain[end - 1] has no parent
  // and its own transform is the last factor; otherwise chain[end]'s parent link is taken
  // as dangling, which yields the identity for chain[end] and everything above it.
  std::vector<const ClientSideEntity*> chain{this};
  std::vector<Ptr> held;
  size_t end = 0;
  bool top = false;
  // Brent: `mark` is the entity at the latest power-of-two checkpoint, `since` the steps
  // taken from it, `power` the length of the current stretch.
  const ClientSideEntity* mark = this;
  size_t since = 0, power = 1;
  for (;;) {
    const Id parent = chain.back()->parentId;
    if (parent.IsNull()) {
      top = true;
      end = chain.size();
      break;
    }
    Ptr parentEntity;
    {
      std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
      const auto it = ClientSideEntity::_sharedObjects.find(parent);
      if (it != ClientSideEntity::_sharedObjects.end()) parentEntity = it->second;
    }
    if (!parentEntity) {
      end = chain.size() - 1;
      break;
    }
    chain.push_back(parentEntity.get());
    held.push_back(std::move(parentEntity));
    ++since;
    if (chain.back() == mark) {
      // A cycle of length `since`: the first entity on it is the first i whose entry comes
      // back `since` steps later, and the entity before its return closes the cycle.
      size_t first = 0;
      while (chain[first] != chain[first + since]) ++first;
      end = first + since - 1;
      break;
    }
    if (since == power) {
      mark = chain.back();
      since = 0;
      power *= 2;
    }
  }
  if (!top && end == 0) return glm::dmat4(1.0);
  glm::dmat4 result = top ? chain[end - 1]->GetTransform() : glm::dmat4(1.0);
  for (size_t i = top ? end - 1 : end; i-- > 0;) result = result * chain[i]->GetTransform();
  return result;
}

}  // namespace game::entity
