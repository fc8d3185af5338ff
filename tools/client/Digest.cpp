#include "client/Digest.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <shared_mutex>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/Sandbox.h"
#include "game/entity/ClientSideEntity.h"

namespace gameclient {
namespace {

using game::entity::ClientSideEntity;
using Json = nlohmann::ordered_json;

// FNV-1a over the bytes, finished by a 64-bit mixer so that every bit reaches the top.
class Hash {
 public:
  template <typename T>
  Hash& Add(const T& value) {
    return Bytes(&value, sizeof value);
  }
  Hash& Bytes(const void* data, size_t size) {
    const auto* p = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < size; ++i) h_ = (h_ ^ p[i]) * 0x100000001B3ull;
    return *this;
  }
  uint64_t Done() const {
    uint64_t h = h_;
    h ^= h >> 33;
    h *= 0xFF51AFD7ED558CCDull;
    h ^= h >> 33;
    h *= 0xC4CEB9FE1A85EC53ull;
    return h ^ (h >> 33);
  }

 private:
  uint64_t h_ = 0xCBF29CE484222325ull;
};

using FieldHashes = std::array<uint64_t, kDigestFields.size()>;

// The fields in kDigestFields' order, as their bytes in memory: a replay that reproduces
// the replica reproduces every bit.
FieldHashes HashFields(const ClientSideEntity& e) {
  const std::shared_ptr<ClientSideEntity::Interface> interface = e.interface;
  const game::entity::Id parent = e.parentId.Load();
  const glm::dvec3 vectors[] = {e.position, e.targetPosition, e.velocity, e.physicsExtra};
  const game::entity::Orientation orientations[] = {e.orientation, e.targetOrientation};
  const std::string module = e.moduleId.String();
  Hash sync;
  if (auto sandbox = std::dynamic_pointer_cast<sandbox::SandboxInterface>(interface)) {
    sandbox->ForEachSync([&sync](std::span<const uint8_t> record) {
      sync.Add(record.size()).Bytes(record.data(), record.size());
    });
    sync.Add(sandbox->SyncsLeftOut());
  }
  return {Hash().Add(parent.word0).Add(parent.word1).Done(),
          Hash().Bytes(module.data(), module.size()).Done(),
          Hash().Bytes(e.text.data(), e.text.size()).Done(),
          Hash().Add(vectors[0]).Done(),
          Hash().Add(vectors[1]).Done(),
          Hash().Add(vectors[2]).Done(),
          Hash().Add(vectors[3]).Done(),
          Hash().Add(orientations[0]).Done(),
          Hash().Add(orientations[1]).Done(),
          Hash().Add(static_cast<float>(e.updateRate)).Done(),
          Hash().Add(e.smooth.Load()).Done(),
          Hash().Add(e.forceSnap.Load()).Done(),
          Hash().Add(static_cast<bool>(e.serverDriven)).Done(),
          Hash().Add(static_cast<bool>(e.hasTarget)).Done(),
          Hash().Add(static_cast<bool>(e.velocityReset)).Done(),
          Hash().Add(static_cast<bool>(e.stale)).Done(),
          Hash().Add(static_cast<bool>(e.ready)).Done(),
          Hash().Add(interface ? interface->aimId : 0u).Done(),
          sync.Done()};
}

Json Identify(const game::entity::Id& id) {
  return Json::array({id.ToString(), {std::to_string(id.word0), std::to_string(id.word1)}});
}

}  // namespace

ReplicaDigest::ReplicaDigest(std::ostream& out) : out_(out) {
  out_ << Json{{"fields", kDigestFields}}.dump() << '\n';
}

void ReplicaDigest::Frame(uint64_t events) {
  std::vector<ClientSideEntity::Ptr> entities;
  {
    std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    entities.reserve(ClientSideEntity::_sharedObjects.size());
    for (const auto& [id, entity] : ClientSideEntity::_sharedObjects) {
      if (entity) entities.push_back(entity);
    }
  }
  Json changed = Json::array(), gone = Json::array();
  std::unordered_map<game::entity::Id, uint64_t> current;
  current.reserve(entities.size());
  uint64_t total = entities.size();
  for (const ClientSideEntity::Ptr& entity : entities) {
    const FieldHashes fields = HashFields(*entity);
    Hash whole;
    for (uint64_t field : fields) whole.Add(field);
    const uint64_t hash = whole.Done();
    total += hash;  // a sum: the registry's order does not count
    current.emplace(entity->id, hash);
    const auto before = previous_.find(entity->id);
    if (before != previous_.end() && before->second == hash) continue;
    std::string text;
    char hex[5];
    for (uint64_t field : fields) {
      std::snprintf(hex, sizeof hex, "%04x", static_cast<unsigned>(field >> 48));
      text += hex;
    }
    Json line = Identify(entity->id);
    line.push_back(text);
    changed.push_back(std::move(line));
  }
  for (const auto& [id, hash] : previous_) {
    if (current.count(id) == 0) gone.push_back(Identify(id));
  }
  previous_.swap(current);
  char hash[17];
  std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(total));
  const Json line = {{"frame", ++frame_},           {"events", events},   {"hash", hash},
                     {"entities", entities.size()}, {"changed", changed}, {"gone", gone}};
  out_ << line.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

}  // namespace gameclient
