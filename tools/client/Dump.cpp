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
#include "game/entity/ClientSideEntity.h"

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
    for (const sandbox::Bytes& sync : sandboxInterface->Syncs()) syncs.push_back(Hex(sync));
    syncsLeftOut = sandboxInterface->SyncsLeftOut();
  }
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
              {"aimId", interface ? interface->aimId : 0},
              {"sync", syncs},
              {"syncLeftOut", syncsLeftOut}};
}

}  // namespace

std::string Hex(const std::vector<uint8_t>& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

nlohmann::ordered_json Number(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  return value;
}

void WriteDump(std::ostream& out, const Identity& identity) {
  // The dump is written as it is produced, one entity or message at a time, so that writing
  // it needs memory for one of them, not for the whole replica. The text is what one
  // dump(2) of the whole object would give.
  const auto write = [&out](const Json& value, const char* indent) {
    // Texts come from the wire: bytes that are not UTF-8 become U+FFFD instead of failing.
    std::string text = value.dump(2, ' ', false, Json::error_handler_t::replace);
    size_t lines = 0;
    for (char c : text) lines += c == '\n';
    if (lines == 0) {
      out << text;
      return;
    }
    const size_t step = std::char_traits<char>::length(indent);
    std::string indented;
    indented.reserve(text.size() + lines * step);
    for (char c : text) {
      indented += c;
      if (c == '\n') indented += indent;
    }
    out << indented;
  };
  const Json head = {{"playerId", std::to_string(identity.playerId)},
                     {"username", identity.username},
                     {"admin", identity.admin},
                     {"error", client::Client::error},
                     {"ending", identity.ending},
                     {"world", Game::_current_world},
                     {"mode", Game::_mode},
                     {"mods", Game::_mods},
                     {"timestamp", Number(Game::timestamp.load())},
                     {"config", Game::config.Text()}};
  out << "{";
  for (const auto& [key, value] : head.items()) {
    out << "\n  " << Json(key).dump() << ": ";
    write(value, "  ");
    out << ",";
  }
  out << "\n  \"entities\": [";
  bool first = true;
  for (const EntityView& view : SortedEntities()) {
    out << (first ? "\n    " : ",\n    ");
    write(EntityJson(*view.entity), "    ");
    first = false;
  }
  out << (first ? "]," : "\n  ],");
  out << "\n  \"moduleMessages\": [";
  first = true;
  sandbox::ForEachModuleMessage([&](const sandbox::ModuleMessage& message) {
    out << (first ? "\n    " : ",\n    ");
    write(Json{{"module", message.module}, {"payload", Hex(message.payload)}}, "    ");
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
