#include "server/Scene.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace gameserver {
namespace {

// Entity ids carry the tag "ENTY" in bytes 0-3 and the serial in bytes 4-7 of word 0.
constexpr uint64_t kIdTag =
    uint64_t{'E'} | uint64_t{'N'} << 8 | uint64_t{'T'} << 16 | uint64_t{'Y'} << 24;
constexpr double kRecreateDelay = 1.0;
constexpr const char* kNoInterface = "nointerface";

uint64_t SplitMix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

wire::Orientation Yaw(double angle) {
  return wire::Orientation{std::cos(angle / 2), 0.0, 0.0, std::sin(angle / 2)};
}

}  // namespace

wire::Bytes SceneEntity::Data() const {
  return wire::ByteWriter().U32(serial).U32(revision);
}

Scene::Scene(const Options& options) : options_(options), random_(options.seed) {
  if (options_.modules.empty()) options_.modules.push_back(wire::ModuleID("DEMO_sandbox"));
  entities_.reserve(options_.entities);
  for (size_t i = 0; i < options_.entities; ++i) {
    // Every fourth entity rides on the one before it, which is always parentless.
    const wire::Id parent = (options_.riders && i % 4 == 3) ? entities_[i - 1].id : wire::Id{};
    entities_.push_back(Make(i, parent));
    Place(entities_.back(), 0.0);
    entities_.back().sentPosition = entities_.back().position;
    entities_.back().sentOrientation = entities_.back().orientation;
  }
}

SceneEntity Scene::Make(size_t index, const wire::Id& parent) {
  SceneEntity e;
  e.serial = nextSerial_++;
  e.id.word0 = kIdTag | uint64_t{e.serial} << 32;
  e.id.word1 = SplitMix(options_.seed ^ e.serial) | 1;
  e.parent = parent;
  e.module = options_.modules[index % options_.modules.size()];
  e.text = index % 20 == 9 ? kNoInterface : index % 10 == 4 ? "static" : "ship";
  const double i = static_cast<double>(index);
  if (parent.IsNull()) {
    e.radius = 10.0 + 4.0 * static_cast<double>(index % 7);
    e.speed = (0.15 + 0.05 * static_cast<double>(index % 5)) * (index % 2 ? -1.0 : 1.0);
    e.height = 2.0 * static_cast<double>(index % 3);
  } else {
    e.radius = 3.0;
    e.speed = 0.8;
    e.height = 1.0;
  }
  if (e.text == "static") e.speed = 0.0;
  e.phase = 0.7 * i;
  return e;
}

void Scene::Place(SceneEntity& e, double t) const {
  const double a = e.speed * t + e.phase;
  e.position = {e.radius * std::cos(a), e.radius * std::sin(a), e.height};
  e.orientation = Yaw(a + M_PI / 2);
  e.velocity = {-e.radius * e.speed * std::sin(a), e.radius * e.speed * std::cos(a), 0.0};
  e.extra = {0.0, 0.0, e.speed};
}

wire::EntityCreate Scene::CreateOf(SceneEntity& e) {
  e.sentPosition = e.position;
  e.sentOrientation = e.orientation;
  wire::EntityCreate create;
  create.id = e.id;
  create.module = e.module;
  create.text = e.text;
  create.parent = e.parent;
  create.position = e.position;
  create.orientation = e.orientation;
  create.smooth = 1;
  create.forceSnap = 0;
  create.data = e.Data();
  return create;
}

bool Scene::HasChildren(const wire::Id& id) const {
  return std::any_of(entities_.begin(), entities_.end(),
                     [&](const SceneEntity& e) { return e.parent == id; });
}

void Scene::WriteCreates(orvex::filesystem::Stream& out) {
  for (SceneEntity& e : entities_) wire::WriteEntityCreate(out, CreateOf(e));
}

SceneChanges Scene::Step(double t, orvex::filesystem::Stream& out) {
  SceneChanges changes;
  const double dt = std::max(0.0, t - time_);
  time_ = t;
  for (SceneEntity& e : entities_) Place(e, t);

  for (auto it = recreate_.begin(); it != recreate_.end();) {
    if (it->at > t) {
      ++it;
      continue;
    }
    SceneEntity e = it->entity;
    it = recreate_.erase(it);
    const bool parentAlive =
        !e.parent.IsNull() && std::any_of(entities_.begin(), entities_.end(),
                                          [&](const SceneEntity& p) { return p.id == e.parent; });
    if (!parentAlive) e.parent = wire::Id{};
    e.serial = nextSerial_++;
    e.id.word0 = kIdTag | uint64_t{e.serial} << 32;
    e.id.word1 = SplitMix(options_.seed ^ e.serial) | 1;
    e.revision = 0;
    Place(e, t);
    entities_.push_back(e);
    wire::WriteEntityCreate(out, CreateOf(entities_.back()));
    ++changes.creates;
  }

  const double mean = options_.eventsPerSecond * dt;
  const int events = mean > 0 ? std::poisson_distribution<int>(mean)(random_) : 0;
  for (int n = 0; n < events && !entities_.empty(); ++n) {
    const int kind = std::uniform_int_distribution<int>(0, 2)(random_);
    size_t index = std::uniform_int_distribution<size_t>(0, entities_.size() - 1)(random_);
    SceneEntity& e = entities_[index];
    // A client keeps no replica of an entity without an interface, and an update or move
    // for an entity it does not hold is fatal to it; such entities are only created and
    // destroyed.
    if (kind != 2 && e.text == kNoInterface) continue;
    if (kind == 0) {
      ++e.revision;
      wire::EntityUpdate update;
      update.id = e.id;
      update.ignored = e.parent;
      update.position = e.position;
      update.orientation = e.orientation;
      update.smooth = 1;
      update.forceSnap = e.revision % 4 == 0 ? 1 : 0;
      update.data = e.Data();
      wire::WriteEntityUpdate(out, update);
      e.sentPosition = e.position;
      e.sentOrientation = e.orientation;
      ++changes.updates;
    } else if (kind == 1) {
      wire::WriteEntityMove(out, wire::EntityMove{e.id, 1, e.position, e.orientation});
      e.sentPosition = e.position;
      e.sentOrientation = e.orientation;
      ++changes.moves;
    } else {
      // Only leaves go, so no entity is ever left riding on a parent that is gone.
      if (HasChildren(e.id)) continue;
      wire::WriteEntityDestroy(out, e.id);
      recreate_.push_back(Pending{t + kRecreateDelay, e});
      entities_.erase(entities_.begin() + static_cast<long>(index));
      ++changes.destroys;
    }
  }
  return changes;
}

std::vector<std::pair<wire::Id, std::vector<wire::TransformRecord>>> Scene::TransformGroups() {
  std::vector<std::pair<wire::Id, std::vector<wire::TransformRecord>>> groups;
  std::unordered_map<wire::Id, size_t> groupOf;
  for (SceneEntity& e : entities_) {
    auto [it, added] = groupOf.try_emplace(e.parent, groups.size());
    if (added) groups.emplace_back(e.parent, std::vector<wire::TransformRecord>());
    wire::TransformRecord record;
    record.id = e.id;
    record.position = e.position;
    const wire::Orientation& q = e.orientation;
    record.orientation[0] = static_cast<float>(q.w);
    record.orientation[1] = static_cast<float>(q.x);
    record.orientation[2] = static_cast<float>(q.y);
    record.orientation[3] = static_cast<float>(q.z);
    groups[it->second].second.push_back(record);
    e.sentPosition = e.position;
    e.sentOrientation = {record.orientation[0], record.orientation[1], record.orientation[2],
                         record.orientation[3]};
  }
  return groups;
}

std::vector<wire::PhysicsRecord> Scene::PhysicsRecords() const {
  std::vector<wire::PhysicsRecord> records;
  for (const SceneEntity& e : entities_) {
    if (e.parent.IsNull()) records.push_back(wire::PhysicsRecord{e.id, e.velocity, e.extra});
  }
  return records;
}

}  // namespace gameserver
