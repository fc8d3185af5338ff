// The reference server's world: a seeded scene of entities that move on circles, some
// riding on others, with occasional updates, moves, destroys and re-creates. Pure state,
// no sockets; the server owns one and serialises access to it.
//
// Rules the scene keeps so that every message makes sense to a client's replica: parents
// are announced before their children; only entities without children are destroyed;
// entities of the text "nointerface" (which a client does not keep) are never parents and
// never get an update or a move.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "protocol/Wire.h"

namespace gameserver {

struct SceneEntity {
  wire::Id id;
  wire::Id parent;  // null: placed directly in the environment
  wire::ModuleID module;
  std::string text;  // the interface name: "ship", "static" or "nointerface"
  uint32_t serial = 0;
  uint32_t revision = 0;  // bumped by every update; part of the interface data
  // The current placement, relative to the parent, and the physics vectors.
  glm::dvec3 position{};
  wire::Orientation orientation;
  glm::dvec3 velocity{}, extra{};
  // The placement last put on the wire (transform datagrams round the orientation to
  // single precision, so this is what a client that snapped to it holds).
  glm::dvec3 sentPosition{};
  wire::Orientation sentOrientation;
  // Motion: a circle of `radius` at `height`, `speed` radians per second from `phase`.
  double radius = 0, speed = 0, phase = 0, height = 0;

  // The interface data carried by create and update: u32 serial, u32 revision.
  wire::Bytes Data() const;
};

// How many messages of each kind a step produced.
struct SceneChanges {
  uint64_t creates = 0, updates = 0, moves = 0, destroys = 0;
};

class Scene {
 public:
  struct Options {
    size_t entities = 16;
    std::vector<wire::ModuleID> modules;  // at least one
    uint64_t seed = 1;
    double eventsPerSecond = 1.0;  // 0: the scene never changes its population
    bool riders = true;            // false: every entity is placed in the environment
  };

  explicit Scene(const Options& options);

  // Moves every entity to time `t` (seconds), draws the events due since the last step and
  // writes the TCP messages they produce (update, move, destroy, create) to `out`.
  SceneChanges Step(double t, orvex::filesystem::Stream& out);

  // The live entities, parents before their children.
  const std::vector<SceneEntity>& Entities() const { return entities_; }
  // The create message of every live entity, parents first; for a client that joins.
  void WriteCreates(orvex::filesystem::Stream& out);

  // This tick's transform records, one group per parent id (the null id for entities in
  // the environment), each record with the orientation in single precision. Records what
  // was sent.
  std::vector<std::pair<wire::Id, std::vector<wire::TransformRecord>>> TransformGroups();
  // This tick's physics records: entities without a parent only.
  std::vector<wire::PhysicsRecord> PhysicsRecords() const;

 private:
  SceneEntity Make(size_t index, const wire::Id& parent);
  void Place(SceneEntity& e, double t) const;
  wire::EntityCreate CreateOf(SceneEntity& e);
  bool HasChildren(const wire::Id& id) const;

  Options options_;
  std::mt19937_64 random_;
  std::vector<SceneEntity> entities_;
  // Destroyed entities come back as new ones (new id) after a second.
  struct Pending {
    double at;
    SceneEntity entity;
  };
  std::vector<Pending> recreate_;
  uint32_t nextSerial_ = 1;
  double time_ = 0;
};

}  // namespace gameserver
