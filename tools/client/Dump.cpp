#include "client/Dump.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <shared_mutex>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

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

// The shortest text that reads back as the same double, with a '.' or an exponent (-0.0
// included); non-finite values as the strings "nan", "inf", "-inf".
void AppendNumber(std::string& text, double value) {
  if (!std::isfinite(value)) {
    text += std::isnan(value) ? "\"nan\"" : value > 0 ? "\"inf\"" : "\"-inf\"";
    return;
  }
  char digits[32];
  char* const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  text.append(digits, end);
  if (std::find_if(digits, end, [](char c) { return c == '.' || c == 'e'; }) == end) {
    text += ".0";
  }
}

// A compact JSON object built in one reused string: keys and numbers written here, texts
// through the JSON library's serializer, which escapes them and turns bytes that are not
// UTF-8 into U+FFFD instead of failing (the id's words beside it keep it exact). No library
// object is built per entity: the dump's time is this writer's (docs/reliability.md).
class ObjectLine {
 public:
  ObjectLine()
      : serializer_(nlohmann::detail::output_adapter<char, std::string>(text_), ' ',
                    Json::error_handler_t::replace) {}

  const std::string& Line() const { return text_; }
  void Begin() { text_ = "{"; }
  // "key": with the comma before it when a field came before.
  void Key(std::string_view key) {
    if (text_.size() > 1) text_ += ',';
    text_ += '"';
    text_ += key;
    text_ += "\":";
  }
  void String(const std::string& value) { serializer_.dump(Json(value), false, false, 0); }
  void Raw(std::string_view value) { text_ += value; }
  void Unsigned(uint64_t value) {
    char digits[24];
    text_.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
  }
  void Number(double value) { AppendNumber(text_, value); }
  void Words(const game::entity::Id& id) {
    text_ += "[\"";
    Unsigned(id.word0);
    text_ += "\",\"";
    Unsigned(id.word1);
    text_ += "\"]";
  }
  void Numbers(std::initializer_list<double> values) {
    text_ += '[';
    for (double value : values) {
      if (text_.back() != '[') text_ += ',';
      Number(value);
    }
    text_ += ']';
  }

 private:
  std::string text_;
  nlohmann::detail::serializer<Json> serializer_;
};

// Every field of an entity but its Sync records, which WriteDump streams after them; the
// object is left open.
void EntityFields(ObjectLine& line, const ClientSideEntity& e) {
  const std::shared_ptr<ClientSideEntity::Interface> interface = e.interface;
  const game::entity::Id parent = e.parentId.Load();
  const auto vec3 = [&line](const glm::dvec3& v) { line.Numbers({v.x, v.y, v.z}); };
  const auto quat = [&line](const game::entity::Orientation& q) {
    line.Numbers({q.w, q.x, q.y, q.z});
  };
  const auto flag = [&line](bool value) { line.Raw(value ? "true" : "false"); };
  line.Begin();
  line.Key("id"), line.String(e.id.ToString());
  line.Key("words"), line.Words(e.id);
  line.Key("parent"), line.String(parent.ToString());
  line.Key("parentWords"), line.Words(parent);
  line.Key("module"), line.String(e.moduleId.String());
  line.Key("text"), line.String(e.text);
  line.Key("position"), vec3(e.position);
  line.Key("targetPosition"), vec3(e.targetPosition);
  line.Key("velocity"), vec3(e.velocity);
  line.Key("physicsExtra"), vec3(e.physicsExtra);
  line.Key("orientation"), quat(e.orientation);
  line.Key("targetOrientation"), quat(e.targetOrientation);
  line.Key("updateRate"), line.Number(static_cast<float>(e.updateRate));
  line.Key("smooth"), line.Unsigned(e.smooth.Load());
  line.Key("forceSnap"), line.Unsigned(e.forceSnap.Load());
  line.Key("serverDriven"), flag(e.serverDriven);
  line.Key("hasTarget"), flag(e.hasTarget);
  line.Key("velocityReset"), flag(e.velocityReset);
  line.Key("stale"), flag(e.stale);
  line.Key("ready"), flag(e.ready);
  line.Key("aimId"), line.Unsigned(interface ? interface->aimId : 0);
}

// Writes `bytes` as a JSON string of lower-case hex.
void WriteHex(std::ostream& out, std::span<const uint8_t> bytes) {
  out << '"';
  wire::WriteHex(out, bytes);
  out << '"';
}

}  // namespace

void WriteDump(std::ostream& out, const Identity& identity) {
  // The dump is written as it is produced, one entity or message at a time, so that writing
  // it needs memory for one of them (its text without its Sync records, which go straight
  // to `out`), not for the whole replica. The game state's values are indented as the
  // library does where they sit (texts from the wire with bytes that are not UTF-8 as
  // U+FFFD); each entity and each module message is one compact line, so that line tools
  // (grep, diff) see one entity a line.
  const auto indented = [](const Json& value) {
    std::string text;
    nlohmann::detail::serializer<Json>(nlohmann::detail::output_adapter<char, std::string>(text),
                                       ' ', Json::error_handler_t::replace)
        .dump(value, true, false, 2, 2);
    return text;
  };
  std::string timestamp;
  AppendNumber(timestamp, Game::timestamp.load());
  const std::pair<const char*, std::string> head[] = {
      {"playerId", indented(std::to_string(identity.playerId))},
      {"username", indented(identity.username)},
      {"admin", indented(identity.admin)},
      {"error", indented(client::Client::error)},
      {"ending", indented(identity.ending)},
      {"world", indented(Game::_current_world)},
      {"mode", indented(Game::_mode)},
      {"mods", indented(Game::_mods)},
      {"timestamp", timestamp},
      {"config", indented(orvex::engine::ConfigText())}};
  out << "{";
  for (const auto& [key, value] : head) out << "\n  \"" << key << "\": " << value << ",";
  ObjectLine line;
  out << "\n  \"entities\": [";
  bool first = true;
  for (const EntityView& view : SortedEntities()) {
    out << (first ? "\n    " : ",\n    ");
    EntityFields(line, *view.entity);
    line.Key("sync");
    out << line.Line() << '[';
    auto syncs = std::dynamic_pointer_cast<sandbox::SandboxInterface>(view.entity->interface);
    uint64_t syncsLeftOut = 0;
    if (syncs) {
      bool none = true;
      syncs->ForEachSync([&](std::span<const uint8_t> sync) {
        if (!none) out << ',';
        WriteHex(out, sync);
        none = false;
      });
      syncsLeftOut = syncs->SyncsLeftOut();
    }
    out << "],\"syncLeftOut\":" << syncsLeftOut << '}';
    first = false;
  }
  out << (first ? "]," : "\n  ],");
  out << "\n  \"moduleMessages\": [";
  first = true;
  sandbox::ForEachModuleMessage([&](const sandbox::ModuleMessage& message) {
    out << (first ? "\n    " : ",\n    ");
    line.Begin();
    line.Key("module"), line.String(message.module);
    line.Key("payload");
    out << line.Line();
    WriteHex(out, message.payload);
    out << '}';
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
