#include "client/Dump.h"

#include <algorithm>
#include <cmath>
#include <shared_mutex>
#include <sstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "Game.h"
#include "client/Client.h"
#include "client/Sandbox.h"
#include "common/OutputFile.h"
#include "game/Host.h"
#include "game/entity/ClientSideEntity.h"
#include "protocol/Hex.h"

namespace gameclient {
namespace {

using game::entity::ClientSideEntity;

// What the dump shows of one entity, copied out of the registry under its lock.
struct EntityView {
  game::entity::Id id;
  ClientSideEntity::Ptr entity;
};

using Json = nlohmann::ordered_json;

Json Words(const game::entity::Id& id) {
  return Json::array({std::to_string(id.word0), std::to_string(id.word1)});
}

Json Vec3(const glm::dvec3& v) {
  return Json::array({Number(v.x), Number(v.y), Number(v.z)});
}

Json Quat(const game::entity::Orientation& q) {
  return Json::array({Number(q.w), Number(q.x), Number(q.y), Number(q.z)});
}

std::vector<EntityView> SortedEntities() {
  std::vector<EntityView> views;
  {
    std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    views.reserve(ClientSideEntity::_sharedObjects.size());
    for (const auto& [id, entity] : ClientSideEntity::_sharedObjects) {
      if (entity) views.push_back(EntityView{id, entity});
    }
  }
  std::sort(views.begin(), views.end(), [](const EntityView& a, const EntityView& b) {
    return a.id.word0 != b.id.word0 ? a.id.word0 < b.id.word0 : a.id.word1 < b.id.word1;
  });
  return views;
}

Json EntityJson(const ClientSideEntity& e) {
  const std::shared_ptr<ClientSideEntity::Interface> interface = e.interface;
  Json syncs = Json::array();
  uint64_t syncsLeftOut = 0;
  if (auto sandboxInterface = std::dynamic_pointer_cast<sandbox::SandboxInterface>(interface)) {
    for (const sandbox::Bytes& sync : sandboxInterface->Syncs()) syncs.push_back(wire::Hex(sync));
    syncsLeftOut = sandboxInterface->SyncsLeftOut();
  }
  return Json{{"id", e.id.ToString()},
              {"words", Words(e.id)},
              {"parent", e.parentId.Load().ToString()},
              {"module", e.moduleId.String()},
              {"text", e.text},
              {"position", Vec3(e.position)},
              {"targetPosition", Vec3(e.targetPosition)},
              {"velocity", Vec3(e.velocity)},
              {"physicsExtra", Vec3(e.physicsExtra)},
              {"orientation", Quat(e.orientation)},
              {"targetOrientation", Quat(e.targetOrientation)},
              {"updateRate", Number(static_cast<float>(e.updateRate))},
              {"smooth", static_cast<unsigned>(e.smooth.Load())},
              {"forceSnap", static_cast<unsigned>(e.forceSnap.Load())},
              {"serverDriven", static_cast<bool>(e.serverDriven)},
              {"hasTarget", static_cast<bool>(e.hasTarget)},
              {"velocityReset", static_cast<bool>(e.velocityReset)},
              {"stale", static_cast<bool>(e.stale)},
              {"ready", static_cast<bool>(e.ready)},
              {"aimId", interface ? interface->aimId : 0},
              {"sync", syncs},
              {"syncLeftOut", syncsLeftOut}};
}

}  // namespace

nlohmann::ordered_json Number(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  return value;
}

void WriteDump(std::ostream& out, const Identity& identity) {
  Json entities = Json::array();
  for (const EntityView& view : SortedEntities()) entities.push_back(EntityJson(*view.entity));
  Json messages = Json::array();
  for (const sandbox::ModuleMessage& message : sandbox::ModuleMessages()) {
    messages.push_back({{"module", message.module}, {"payload", wire::Hex(message.payload)}});
  }
  const Json dump = {{"playerId", std::to_string(identity.playerId)},
                     {"username", identity.username},
                     {"admin", identity.admin},
                     {"error", client::Client::error},
                     {"ending", identity.ending},
                     {"world", Game::_current_world},
                     {"mode", Game::_mode},
                     {"mods", Game::_mods},
                     {"timestamp", Number(Game::timestamp.load())},
                     {"config", orvex::engine::ConfigText()},
                     {"entities", entities},
                     {"moduleMessages", messages},
                     {"moduleMessagesLeftOut", sandbox::ModuleMessagesLeftOut()}};
  // Texts come from the wire: bytes that are not UTF-8 become U+FFFD instead of failing.
  out << dump.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

void WriteDumpFile(const std::string& path, const Identity& identity) {
  std::ostringstream out;
  WriteDump(out, identity);
  tools::WriteText(path, out.str());
}

}  // namespace gameclient
