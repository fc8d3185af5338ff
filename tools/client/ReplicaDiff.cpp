// replica-diff: compares two runs' replica digests (game-client --digest) over one
// recording and names the first frame where the replicas differ, the entities and fields
// that differ there and, given the recording, the last reliable message or datagram that
// touched each of them. See docs/replay.md.
//
// Exit status: 0 when the runs agree in every frame both hold, 1 when they differ, 64 for
// bad arguments, 65 for a file that is not what it should be (one line says which).
#include <algorithm>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "common/Recording.h"
#include "common/ThreadOrder.h"
#include "game/Networking.h"
#include "protocol/Wire.h"

namespace {

using Json = nlohmann::ordered_json;
using Words = std::pair<std::string, std::string>;  // an entity id's two words, as text

constexpr int kDiffer = 1, kUsage = 64, kBadInput = 65;
constexpr size_t kShown = 12;  // entities listed on the screen

struct BadInput : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// One run's digest file, read frame by frame; the state is every entity's field hashes.
class Run {
 public:
  explicit Run(const std::string& path) : path_(path), in_(path) {
    if (!in_) throw BadInput("cannot open " + path);
    const Json head = NextLine();
    if (!head.is_object() || !head.contains("fields")) Fail("does not open with its fields");
    fields_ = head["fields"].get<std::vector<std::string>>();
  }

  // Applies the next frame; false at the end of the file.
  bool Next() {
    Json line = NextLine();
    if (line.is_null()) return false;
    try {
      frame_ = line.at("frame").get<uint64_t>();
      events_ = line.at("events").get<uint64_t>();
      hash_ = line.at("hash").get<std::string>();
      touched_.clear();
      for (const Json& e : line.at("gone")) {
        const Words id = IdOf(e);
        state_.erase(id);
        touched_.insert(id);
      }
      for (const Json& e : line.at("changed")) {
        const Words id = IdOf(e);
        state_[id] = {e.at(0).get<std::string>(), e.at(2).get<std::string>()};
        touched_.insert(id);
      }
    } catch (const Json::exception&) {
      Fail("has a frame line without its frame, events, hash, changed or gone");
    }
    return true;
  }

  struct Entity {
    std::string text;    // the id's text form
    std::string fields;  // four hex digits per field
  };
  const std::string& Path() const { return path_; }
  const std::vector<std::string>& Fields() const { return fields_; }
  uint64_t Frame() const { return frame_; }
  uint64_t Events() const { return events_; }
  const std::string& Hash() const { return hash_; }
  const std::set<Words>& Touched() const { return touched_; }
  const Entity* Find(const Words& id) const {
    const auto it = state_.find(id);
    return it == state_.end() ? nullptr : &it->second;
  }

 private:
  [[noreturn]] void Fail(const std::string& what) const {
    throw BadInput(path_ + ": line " + std::to_string(line_) + " " + what);
  }
  Json NextLine() {
    std::string text;
    if (!std::getline(in_, text)) return nullptr;
    ++line_;
    try {
      return Json::parse(text);
    } catch (const Json::exception&) {
      Fail("is not JSON");
    }
  }
  Words IdOf(const Json& e) const {
    return {e.at(1).at(0).get<std::string>(), e.at(1).at(1).get<std::string>()};
  }

  std::string path_;
  std::ifstream in_;
  uint64_t line_ = 0;
  std::vector<std::string> fields_;
  uint64_t frame_ = 0, events_ = 0;
  std::string hash_;
  std::map<Words, Entity> state_;
  std::set<Words> touched_;
};

// The last message that touched an entity, from the recording.
struct Touch {
  std::string kind;    // "reliable message" or "datagram"
  uint64_t index = 0;  // counted from 1 in its kind
  std::string what;
  double seconds = 0;  // since the recording's first frame
  uint64_t event = 0;
};

Words WordsOf(const game::entity::Id& id) {
  return {std::to_string(id.word0), std::to_string(id.word1)};
}

// Per entity, the last message of each kind that named it.
struct Touches {
  Touch reliable, transforms, physics;
};

// The fields a physics record writes; a transform record writes the others, a reliable
// message any.
bool PhysicsField(const std::string& field) {
  return field == "velocity" || field == "physicsExtra" || field == "velocityReset";
}

// The latest message that may have written one of `fields`.
const Touch* LastWriter(const Touches& t, const Json& fields) {
  bool physics = fields.empty(), other = fields.empty();
  for (const Json& f : fields) (PhysicsField(f.get<std::string>()) ? physics : other) = true;
  const Touch* last = nullptr;
  for (const Touch* c :
       {&t.reliable, other ? &t.transforms : nullptr, physics ? &t.physics : nullptr}) {
    if (c != nullptr && !c->kind.empty() && (last == nullptr || c->event > last->event)) last = c;
  }
  return last;
}

// Walks the recording up to `events` events of its thread order and remembers, per entity,
// the last reliable message and datagram of each kind that named it.
std::map<Words, Touches> LastTouches(const recording::Recording& recorded, uint64_t events) {
  // Which events were messages and which datagrams, numbered in their kinds.
  std::vector<uint64_t> messageEvents, datagramEvents;
  order::Decoder decoder(recorded.order);
  order::Event event;
  uint64_t count, at = 0;
  while (at < events && decoder.Next(event, count)) {
    for (uint64_t i = 0; i < count && at < events; ++i, ++at) {
      if (event == order::Event::kMessage) messageEvents.push_back(at);
      if (event == order::Event::kDatagram) datagramEvents.push_back(at);
    }
  }
  std::map<Words, Touches> touches;
  const uint64_t start = recorded.items.empty() ? 0 : recorded.items.front().time;
  const auto touch = [&](const game::entity::Id& id, const Touch& t) {
    Touches& last = touches[WordsOf(id)];
    (t.kind == "datagram" ? (t.what == "physics" ? last.physics : last.transforms)
                          : last.reliable) = t;
  };
  // Reliable messages: the server's bytes as the client read them; the welcome is read
  // before the receiving thread starts and is no event.
  wire::Bytes tcp;
  std::vector<std::pair<size_t, uint64_t>> segments;  // where each segment starts, its time
  size_t datagrams = 0;
  for (const recording::Item& item : recorded.items) {
    if (item.kind == recording::Item::kServerTcp) {
      segments.emplace_back(tcp.size(), item.time);
      tcp.insert(tcp.end(), item.bytes.begin(), item.bytes.end());
    } else if (item.kind == recording::Item::kServerDatagram && datagrams < datagramEvents.size()) {
      const double seconds = double(item.time - start) / 1e6;
      Touch t{"datagram", datagrams + 1, "", seconds, datagramEvents[datagrams]};
      ++datagrams;
      if (item.bytes.size() <= sizeof networking::MAGIC) continue;
      orvex::filesystem::ReadOnlyStream in(item.bytes);
      try {
        if (item.bytes[sizeof networking::MAGIC] == networking::MSG_TRANSFORMS) {
          t.what = "transforms";
          for (const auto& r : wire::Read<wire::Transforms>(in).records) touch(r.id, t);
        } else if (item.bytes[sizeof networking::MAGIC] == networking::MSG_PHYSICS) {
          t.what = "physics";
          for (const auto& r : wire::Read<wire::Physics>(in).records) touch(r.id, t);
        }
      } catch (const std::runtime_error&) {
        // A datagram the client would have read only in part names no one here.
      }
    }
  }
  orvex::filesystem::ReadOnlyStream in(tcp);
  const auto offset = [&] { return tcp.size() - in.GetBufferSize(); };
  const auto seconds = [&](size_t at) {
    auto it = std::upper_bound(segments.begin(), segments.end(), std::make_pair(at, UINT64_MAX));
    return it == segments.begin() ? 0.0 : double(std::prev(it)->second - start) / 1e6;
  };
  try {
    wire::Read<wire::Welcome>(in);
    for (size_t m = 0; m < messageEvents.size() && in.GetBufferSize() > 0; ++m) {
      const size_t begins = offset();
      Touch t{"reliable message", m + 1, "", seconds(begins), messageEvents[m]};
      const wire::ServerMessage message = wire::ReadServerMessage(in);
      if (message.entity.IsNull()) continue;
      t.what = message.code == networking::MSG_ENTITY_CREATE    ? "entity create"
               : message.code == networking::MSG_ENTITY_DESTROY ? "entity destroy"
               : message.code == networking::MSG_ENTITY_UPDATE  ? "entity update"
                                                                : "entity move";
      touch(message.entity, t);
    }
  } catch (const std::runtime_error&) {
    // The stream ends inside a message: what came before stands.
  }
  return touches;
}

std::string FieldsThatDiffer(const Run& a, const Run::Entity* x, const Run::Entity* y,
                             Json& names) {
  if (x == nullptr || y == nullptr)
    return x == nullptr ? "only in the second run" : "only in the first run";
  std::string text;
  for (size_t i = 0; i < a.Fields().size(); ++i) {
    if (x->fields.compare(4 * i, 4, y->fields, 4 * i, 4) == 0) continue;
    names.push_back(a.Fields()[i]);
    text += (text.empty() ? "" : ", ") + a.Fields()[i];
  }
  return text.empty() ? "a field whose 16-bit hashes collide" : text;
}

int Compare(Run& a, Run& b, const std::optional<recording::Recording>& recorded, bool json) {
  if (a.Fields() != b.Fields()) {
    throw BadInput(a.Path() + " and " + b.Path() + " digest different fields");
  }
  uint64_t frames = 0;
  for (;;) {
    const bool more = a.Next(), moreB = b.Next();
    if (!more || !moreB) break;
    ++frames;
    if (a.Events() != b.Events()) {
      const std::string text = "the runs' frames do not line up from frame " +
                               std::to_string(a.Frame()) + " (" + std::to_string(a.Events()) +
                               " and " + std::to_string(b.Events()) +
                               " events): they did not follow one recording's thread order";
      if (json) {
        std::cout << Json{{"misaligned", a.Frame()}, {"events", {a.Events(), b.Events()}}}.dump(2)
                  << std::endl;
      } else {
        std::cout << "replica-diff: " << text << std::endl;
      }
      return kDiffer;
    }
    if (a.Hash() == b.Hash()) continue;
    std::set<Words> ids = a.Touched();
    ids.insert(b.Touched().begin(), b.Touched().end());
    std::map<Words, Touches> touches;
    if (recorded) touches = LastTouches(*recorded, a.Events());
    Json entities = Json::array();
    for (const Words& id : ids) {
      const Run::Entity *x = a.Find(id), *y = b.Find(id);
      if (x != nullptr && y != nullptr && x->fields == y->fields) continue;
      Json names = Json::array();
      const std::string text = FieldsThatDiffer(a, x, y, names);
      Json entity = {{"id", (x != nullptr ? x : y)->text},
                     {"words", {id.first, id.second}},
                     {"fields", names},
                     {"differs", text}};
      const auto touched = touches.find(id);
      const Touch* writer = touched == touches.end() ? nullptr : LastWriter(touched->second, names);
      if (writer != nullptr) {
        const Touch& t = *writer;
        entity["lastTouch"] = {{"kind", t.kind},
                               {"index", t.index},
                               {"what", t.what},
                               {"seconds", t.seconds},
                               {"event", t.event + 1}};
      }
      entities.push_back(std::move(entity));
    }
    if (json) {
      std::cout << Json{{"frame", a.Frame()}, {"events", a.Events()}, {"entities", entities}}.dump(
                       2, ' ', false, Json::error_handler_t::replace)
                << std::endl;
      return kDiffer;
    }
    std::cout << "replica-diff: the runs first differ at frame " << a.Frame() << ", after "
              << a.Events() << " events of the thread order: " << entities.size()
              << (entities.size() == 1 ? " entity differs" : " entities differ") << std::endl;
    for (size_t i = 0; i < entities.size() && i < kShown; ++i) {
      const Json& e = entities[i];
      std::cout << "  " << e["id"].get<std::string>() << " [" << e["words"][0].get<std::string>()
                << " " << e["words"][1].get<std::string>()
                << "]: " << e["differs"].get<std::string>() << std::endl;
      if (e.contains("lastTouch")) {
        const Json& t = e["lastTouch"];
        std::cout << "    last touched by " << t["kind"].get<std::string>() << " "
                  << t["index"].get<uint64_t>() << " (" << t["what"].get<std::string>() << ", at "
                  << t["seconds"].get<double>() << " s, event " << t["event"].get<uint64_t>() << ")"
                  << std::endl;
      } else if (recorded) {
        std::cout << "    touched by no message of the recording up to this frame" << std::endl;
      }
    }
    if (entities.size() > kShown) {
      std::cout << "  and " << entities.size() - kShown << " more (--json lists all)" << std::endl;
    }
    return kDiffer;
  }
  if (json) {
    std::cout << Json{{"frame", nullptr}, {"frames", frames}}.dump(2) << std::endl;
  } else {
    std::cout << "replica-diff: the runs agree in all " << frames << " frames both hold"
              << std::endl;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string first, second, recordingPath;
  bool json = false;
  CLI::App app{
      "Compares two runs' replica digests (game-client --digest) and names the first frame "
      "where the replicas differ, the entities and fields that differ there and, given the "
      "recording both runs followed, the last message that touched each."};
  app.set_version_flag("--version", std::string("replica-diff ") + ORVEX_VERSION);
  app.add_option("first", first, "the first run's digest")->required();
  app.add_option("second", second, "the second run's digest")->required();
  app.add_option("--recording", recordingPath,
                 "the recording both runs followed (game-client --record), to name the last "
                 "message that touched each entity");
  app.add_flag("--json", json, "the result as one JSON object");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "replica-diff: " << e.what() << std::endl;
    return kUsage;
  }
  try {
    std::optional<recording::Recording> recorded;
    if (!recordingPath.empty()) {
      try {
        recorded = recording::LoadRecording(recordingPath);
      } catch (const std::runtime_error& e) {
        throw BadInput(e.what());
      }
      if (!recorded->ordered) {
        std::cerr << "replica-diff: " << recordingPath
                  << " holds no thread order: no message can be named" << std::endl;
        recorded.reset();
      }
    }
    Run a(first), b(second);
    return Compare(a, b, recorded, json);
  } catch (const BadInput& e) {
    std::cerr << "replica-diff: " << e.what() << std::endl;
    return kBadInput;
  }
}
