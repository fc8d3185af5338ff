#include "client/Dump.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <shared_mutex>
#include <sstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "Game.h"
#include "client/Client.h"
#include "client/Sandbox.h"
#include "common/OutputFile.h"
#include "game/entity/ClientSideEntity.h"

namespace gameclient {
namespace {

using game::entity::ClientSideEntity;

// What the dump shows of one entity, copied out of the registry under its lock.
struct EntityView {
  game::entity::Id id;
  ClientSideEntity::Ptr entity;
};

std::string IdPair(const game::entity::Id& id) {
  return "[\"" + std::to_string(id.word0) + "\", \"" + std::to_string(id.word1) + "\"]";
}

std::string Vec3(const glm::dvec3& v) {
  return "[" + JsonNumber(v.x) + ", " + JsonNumber(v.y) + ", " + JsonNumber(v.z) + "]";
}

std::string Quat(const game::entity::Orientation& q) {
  return "[" + JsonNumber(q.w) + ", " + JsonNumber(q.x) + ", " + JsonNumber(q.y) + ", " +
         JsonNumber(q.z) + "]";
}

const char* Bool(bool value) {
  return value ? "true" : "false";
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

void WriteEntity(std::ostream& out, const ClientSideEntity& e) {
  const std::shared_ptr<ClientSideEntity::Interface> interface = e.interface;
  std::vector<sandbox::Bytes> syncs;
  uint64_t syncsLeftOut = 0;
  if (auto sandboxInterface = std::dynamic_pointer_cast<sandbox::SandboxInterface>(interface)) {
    syncs = sandboxInterface->Syncs();
    syncsLeftOut = sandboxInterface->SyncsLeftOut();
  }
  out << "{\"id\": " << IdPair(e.id) << ", \"parent\": " << IdPair(e.parentId)
      << ", \"module\": " << JsonString(e.moduleId.String()) << ", \"text\": " << JsonString(e.text)
      << ", \"position\": " << Vec3(e.position)
      << ", \"targetPosition\": " << Vec3(e.targetPosition)
      << ", \"velocity\": " << Vec3(e.velocity) << ", \"physicsExtra\": " << Vec3(e.physicsExtra)
      << ", \"orientation\": " << Quat(e.orientation)
      << ", \"targetOrientation\": " << Quat(e.targetOrientation)
      << ", \"updateRate\": " << JsonNumber(static_cast<float>(e.updateRate))
      << ", \"smooth\": " << static_cast<unsigned>(e.smooth.Load())
      << ", \"forceSnap\": " << static_cast<unsigned>(e.forceSnap.Load())
      << ", \"serverDriven\": " << Bool(e.serverDriven) << ", \"hasTarget\": " << Bool(e.hasTarget)
      << ", \"velocityReset\": " << Bool(e.velocityReset) << ", \"stale\": " << Bool(e.stale)
      << ", \"ready\": " << Bool(e.ready) << ", \"aimId\": " << (interface ? interface->aimId : 0)
      << ", \"sync\": [";
  for (size_t i = 0; i < syncs.size(); ++i) out << (i ? ", " : "") << '"' << Hex(syncs[i]) << '"';
  out << "], \"syncLeftOut\": " << syncsLeftOut << "}";
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

std::string JsonNumber(double value) {
  if (std::isnan(value)) return "\"nan\"";
  if (std::isinf(value)) return value > 0 ? "\"inf\"" : "\"-inf\"";
  char buffer[64];
  const auto result =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 17);
  std::string text(buffer, result.ptr);
  // Without a '.' or an exponent a reader takes the number for an integer and loses -0.0.
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

std::string JsonString(const std::string& text) {
  // Texts come from the wire: bytes that are not UTF-8 become U+FFFD instead of failing.
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void WriteDump(std::ostream& out, const Identity& identity) {
  out << "{\n";
  out << "  \"playerId\": \"" << identity.playerId << "\",\n";
  out << "  \"username\": " << JsonString(identity.username) << ",\n";
  out << "  \"admin\": " << Bool(identity.admin) << ",\n";
  out << "  \"error\": " << JsonString(client::Client::error) << ",\n";
  out << "  \"ending\": " << JsonString(identity.ending) << ",\n";
  out << "  \"world\": " << JsonString(Game::_current_world) << ",\n";
  out << "  \"mode\": " << Game::_mode << ",\n";
  out << "  \"mods\": [";
  for (size_t i = 0; i < Game::_mods.size(); ++i) {
    out << (i ? ", " : "") << JsonString(Game::_mods[i]);
  }
  out << "],\n";
  out << "  \"timestamp\": " << JsonNumber(Game::timestamp.load()) << ",\n";
  out << "  \"config\": " << JsonString(Game::config.Text()) << ",\n";

  const std::vector<EntityView> entities = SortedEntities();
  out << "  \"entities\": [";
  for (size_t i = 0; i < entities.size(); ++i) {
    out << (i ? ",\n    " : "\n    ");
    WriteEntity(out, *entities[i].entity);
  }
  out << (entities.empty() ? "],\n" : "\n  ],\n");

  const std::vector<sandbox::ModuleMessage> messages = sandbox::ModuleMessages();
  out << "  \"moduleMessages\": [";
  for (size_t i = 0; i < messages.size(); ++i) {
    out << (i ? ",\n    " : "\n    ") << "{\"module\": " << JsonString(messages[i].module)
        << ", \"payload\": \"" << Hex(messages[i].payload) << "\"}";
  }
  out << (messages.empty() ? "],\n" : "\n  ],\n");
  out << "  \"moduleMessagesLeftOut\": " << sandbox::ModuleMessagesLeftOut() << "\n";
  out << "}\n";
}

void WriteDumpFile(const std::string& path, const Identity& identity) {
  std::ostringstream out;
  WriteDump(out, identity);
  tools::WriteText(path, out.str());
}

}  // namespace gameclient
