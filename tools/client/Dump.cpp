#include "client/Dump.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iostream>
#include <shared_mutex>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "Game.h"
#include "client/Client.h"
#include "client/Sandbox.h"
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

// Every field of an entity but its Sync records, which WriteDump streams after them.
Json EntityJson(const ClientSideEntity& e) {
  const std::shared_ptr<ClientSideEntity::Interface> interface = e.interface;
  const game::entity::Id parent = e.parentId.Load();
  return Json{{"id", e.id.ToString()},
              {"words", Words(e.id)},
              {"parent", parent.ToString()},
              {"parentWords", Words(parent)},
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
              {"aimId", interface ? interface->aimId : 0}};
}

// Writes `bytes` as a JSON string of lower-case hex.
void WriteHex(std::ostream& out, const std::vector<uint8_t>& bytes) {
  out << '"';
  wire::WriteHex(out, bytes);
  out << '"';
}

}  // namespace

nlohmann::ordered_json Number(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  return value;
}

void WriteDump(std::ostream& out, const Identity& identity) {
  // The dump is written as it is produced, one entity or message at a time, so that writing
  // it needs memory for one of them, not for the whole replica. The text is what one
  // dump(2) of the whole object would give.
  // The library's serializer, started at the indentation where the value sits; texts come
  // from the wire: bytes that are not UTF-8 become U+FFFD instead of failing.
  std::string text;
  const auto indented = [&text](const Json& value, unsigned indent) -> const std::string& {
    text.clear();
    nlohmann::detail::serializer<Json> serializer(
        nlohmann::detail::output_adapter<char, std::string>(text), ' ',
        Json::error_handler_t::replace);
    serializer.dump(value, true, false, 2, indent);
    return text;
  };
  const auto write = [&](const Json& value, unsigned indent) { out << indented(value, indent); };
  const Json head = {{"playerId", std::to_string(identity.playerId)},
                     {"username", identity.username},
                     {"admin", identity.admin},
                     {"error", client::Client::error},
                     {"ending", identity.ending},
                     {"world", Game::_current_world},
                     {"mode", Game::_mode},
                     {"mods", Game::_mods},
                     {"timestamp", Number(Game::timestamp.load())},
                     {"config", orvex::engine::ConfigText()}};
  out << "{";
  for (const auto& [key, value] : head.items()) {
    out << "\n  " << Json(key).dump() << ": ";
    write(value, 2);
    out << ",";
  }
  out << "\n  \"entities\": [";
  bool first = true;
  for (const EntityView& view : SortedEntities()) {
    out << (first ? "\n    " : ",\n    ");
    // The object without its closing "\n}", then the Sync records and their count.
    const std::string& fields = indented(EntityJson(*view.entity), 4);
    out.write(fields.data(), static_cast<std::streamsize>(fields.size() - 6));
    auto syncs = std::dynamic_pointer_cast<sandbox::SandboxInterface>(view.entity->interface);
    uint64_t syncsLeftOut = 0;
    out << ",\n      \"sync\": [";
    bool none = true;
    if (syncs) {
      syncs->ForEachSync([&](const sandbox::Bytes& sync) {
        out << (none ? "\n        " : ",\n        ");
        WriteHex(out, sync);
        none = false;
      });
      syncsLeftOut = syncs->SyncsLeftOut();
    }
    out << (none ? "]" : "\n      ]") << ",\n      \"syncLeftOut\": " << syncsLeftOut << "\n    }";
    first = false;
  }
  out << (first ? "]," : "\n  ],");
  out << "\n  \"moduleMessages\": [";
  first = true;
  sandbox::ForEachModuleMessage([&](const sandbox::ModuleMessage& message) {
    out << (first ? "\n    " : ",\n    ");
    out << "{\n      \"module\": ";
    write(Json(message.module), 0);
    out << ",\n      \"payload\": ";
    WriteHex(out, message.payload);
    out << "\n    }";
    first = false;
  });
  out << (first ? "]," : "\n  ],");
  out << "\n  \"moduleMessagesLeftOut\": " << sandbox::ModuleMessagesLeftOut() << "\n}\n";
}

void WriteDumpFile(const std::string& path, const Identity& identity) {
  if (path == "-") {
    WriteDump(std::cout, identity);
    std::cout.flush();
    if (!std::cout) throw std::runtime_error("cannot write to standard output");
    return;
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  WriteDump(file, identity);
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
}

}  // namespace gameclient
