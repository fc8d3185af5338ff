// The two state passes that the game thread runs for every accepted state datagram, over
// full datagrams (23 transform records, 20 physics records) against a registry of 100,000
// driven entities; against decoding the same bytes with memcpy into a plain array, measured
// in the same run. A middle row does the pass's work with a std::unordered_map and a
// std::shared_mutex, to show what the registry's lock and the stream reads cost on top.
//
// The datagrams cover the whole registry in a shuffled order and are used one after the
// other, as a server tick's datagrams are: every record lands on an entity that is not in
// the cache.
//
// Names read Case/Implementation/variant; the implementation marked "base:" is the baseline
// that bench/run.sh divides by.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <glm/glm.hpp>
#include <glm/gtc/matrix_transform.hpp>
#include <glm/gtc/quaternion.hpp>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "BenchSupport.h"
#include "client/StatePasses.h"
#include "game/Networking.h"

namespace {

using benchsupport::ClientSideEntity;
using benchsupport::Id;
using game::entity::Orientation;
using orvex::filesystem::ReadOnlyStream;

constexpr size_t kTransformRecords = 23;
constexpr size_t kPhysicsRecords = 20;
// Children moved between the two parents by the re-parenting case.
constexpr size_t kChildren = 23 * 64;

// One datagram's records as the intake hands them to a pass (its own copy, positioned at
// the records) and, for the baselines, the same record bytes in memory.
struct Records {
  ReadOnlyStream stream;
  wire::Bytes bytes;
};

Records AtRecords(const wire::Bytes& datagram, size_t headerSize) {
  ReadOnlyStream stream(std::vector<unsigned char>(datagram.begin(), datagram.end()));
  std::vector<unsigned char> header(headerSize);
  stream.Read(header.data(), header.size());
  return {stream, wire::Bytes(datagram.begin() + static_cast<long>(headerSize), datagram.end())};
}

wire::TransformRecord TransformOf(const Id& id, uint64_t n) {
  wire::TransformRecord record;
  record.id = id;
  const double a = 0.001 * static_cast<double>(n);
  record.position = {10.0 * std::cos(a), 10.0 * std::sin(a), 1.0};
  record.orientation[0] = static_cast<float>(std::cos(a / 2));
  record.orientation[3] = static_cast<float>(std::sin(a / 2));
  return record;
}

struct Fixture {
  // The baseline's lookup: the same map under std::shared_mutex.
  ClientSideEntity::Ptr PlainGet(const Id& id) {
    std::shared_lock<std::shared_mutex> lock(plainMutex);
    const auto it = plain.find(id);
    return it != plain.end() ? it->second : nullptr;
  }

  std::vector<Records> transforms;  // 23 records each, parent: none
  std::vector<Records> physics;     // 20 records each
  // The re-parenting case: the same children under parent A, then under parent B.
  Id parentA, parentB;
  std::vector<Records> toA, toB;
  std::unordered_map<Id, ClientSideEntity::Ptr> plain;
  std::shared_mutex plainMutex;

  Fixture() {
    ClientSideEntity::_sharedObjects.reserve(benchsupport::kEntities);
    plain.reserve(benchsupport::kEntities);
    std::vector<Id> ids = benchsupport::FillRegistry(
        benchsupport::kEntities, 1,
        [this](const Id& id, const ClientSideEntity::Ptr& entity) { plain.emplace(id, entity); });
    std::mt19937_64 random(11);
    std::shuffle(ids.begin(), ids.end(), random);

    // ids[0] and ids[1] are the parents of the re-parenting case, the next kChildren its
    // children; the steady-state datagrams cover the rest.
    const size_t steady = 2 + kChildren;
    wire::StateHeader header;
    header.sequence = 1;
    for (size_t first = steady; first + kTransformRecords <= ids.size();
         first += kTransformRecords) {
      std::vector<wire::TransformRecord> records;
      for (size_t i = first; i < first + kTransformRecords; ++i) {
        records.push_back(TransformOf(ids[i], i));
      }
      transforms.push_back(
          AtRecords(wire::TransformsDatagram(header, Id{}, records), wire::kTransformsHeaderSize));
    }
    for (size_t first = steady; first + kPhysicsRecords <= ids.size(); first += kPhysicsRecords) {
      std::vector<wire::PhysicsRecord> records;
      for (size_t i = first; i < first + kPhysicsRecords; ++i) {
        const double v = static_cast<double>(i);
        records.push_back(wire::PhysicsRecord{ids[i], {v, -v, 0.5}, {0.0, 0.0, 0.25}});
      }
      physics.push_back(
          AtRecords(wire::PhysicsDatagram(header, records), wire::kPhysicsHeaderSize));
    }

    // Two parents apart in place and turn, and children that ride on A with a target.
    parentA = ids[0];
    parentB = ids[1];
    const ClientSideEntity::Ptr a = ClientSideEntity::Get<ClientSideEntity>(parentA);
    const ClientSideEntity::Ptr b = ClientSideEntity::Get<ClientSideEntity>(parentB);
    a->position = glm::dvec3(5.0, -3.0, 1.0);
    a->orientation = Orientation{std::cos(0.3), 0.0, 0.0, std::sin(0.3)};
    b->position = glm::dvec3(-8.0, 4.0, 0.0);
    b->orientation = Orientation{std::cos(-0.7), 0.0, std::sin(-0.7), 0.0};
    for (size_t first = 2; first + kTransformRecords <= steady; first += kTransformRecords) {
      std::vector<wire::TransformRecord> records;
      for (size_t i = first; i < first + kTransformRecords; ++i) {
        const ClientSideEntity::Ptr child = ClientSideEntity::Get<ClientSideEntity>(ids[i]);
        child->parentId = parentA;
        child->position = glm::dvec3(1.0, 2.0, 0.5);
        records.push_back(TransformOf(ids[i], i));
      }
      toB.push_back(AtRecords(wire::TransformsDatagram(header, parentB, records),
                              wire::kTransformsHeaderSize));
      toA.push_back(AtRecords(wire::TransformsDatagram(header, parentA, records),
                              wire::kTransformsHeaderSize));
    }
  }
};

Fixture& TheFixture() {
  static Fixture fixture;
  return fixture;
}

// A record decoded into plain memory.
struct TransformValues {
  Id id;
  glm::dvec3 position;
  float rotation[4];
};
struct PhysicsValues {
  Id id;
  glm::dvec3 velocity, extra;
};

// memcpy of each field out of the record bytes, up to the end marker, with the pass's NaN
// test. Returns the number of records.
size_t DecodeTransforms(const unsigned char* p, size_t size, TransformValues* out) {
  size_t n = 0;
  for (size_t at = 0; at + sizeof(Id) <= size; at += wire::kTransformRecordSize) {
    TransformValues& v = out[n];
    std::memcpy(&v.id, p + at, sizeof(Id));
    if (v.id.IsNull()) break;
    std::memcpy(&v.position, p + at + 16, sizeof(v.position));
    std::memcpy(v.rotation, p + at + 40, sizeof(v.rotation));
    if (std::isnan(v.position.x) || std::isnan(v.position.y) || std::isnan(v.position.z) ||
        std::isnan(v.rotation[0]) || std::isnan(v.rotation[1]) || std::isnan(v.rotation[2]) ||
        std::isnan(v.rotation[3])) {
      break;
    }
    ++n;
  }
  return n;
}

size_t DecodePhysics(const unsigned char* p, size_t size, PhysicsValues* out) {
  size_t n = 0;
  for (size_t at = 0; at + sizeof(Id) <= size; at += wire::kPhysicsRecordSize) {
    PhysicsValues& v = out[n];
    std::memcpy(&v.id, p + at, sizeof(Id));
    if (v.id.IsNull()) break;
    std::memcpy(&v.velocity, p + at + 16, sizeof(v.velocity));
    std::memcpy(&v.extra, p + at + 40, sizeof(v.extra));
    if (glm::any(glm::isnan(v.velocity)) || glm::any(glm::isnan(v.extra))) break;
    ++n;
  }
  return n;
}

void SetItems(benchmark::State& state, size_t recordsPerIteration) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * recordsPerIteration));
}

void CountAllocations(benchmark::State& state, uint64_t before) {
  state.counters["allocs"] =
      benchmark::Counter(static_cast<double>(benchsupport::Allocations() - before),
                         benchmark::Counter::kAvgIterations);
}

// ---------------------------------------------------------------------------------------
// Transform pass, steady state: the entity has a target and stays under its parent, so
// each record sets the target and the rate.

void TransformClient(benchmark::State& state) {
  Fixture& f = TheFixture();
  size_t i = 0;
  const uint64_t before = benchsupport::Allocations();
  for (auto _ : state) {
    if (++i >= f.transforms.size()) i = 0;
    client::TransformPass pass(f.transforms[i].stream, 1, Id{}, false);
    pass();
  }
  CountAllocations(state, before);
  SetItems(state, kTransformRecords);
}

void TransformPlainMap(benchmark::State& state) {
  Fixture& f = TheFixture();
  size_t i = 0;
  TransformValues values[kTransformRecords + 1];
  for (auto _ : state) {
    if (++i >= f.transforms.size()) i = 0;
    const wire::Bytes& records = f.transforms[i].bytes;
    const size_t n = DecodeTransforms(records.data(), records.size(), values);
    for (size_t r = 0; r < n; ++r) {
      const ClientSideEntity::Ptr entity = f.PlainGet(values[r].id);
      if (!entity || !entity->serverDriven) continue;
      const float* q = values[r].rotation;
      entity->updateRate = 20.0f;
      entity->targetOrientation = Orientation{q[0], q[1], q[2], q[3]};
      entity->targetPosition = values[r].position;
      if (entity->parentId.Load().IsNull() && entity->hasTarget) entity->stale = false;
    }
  }
  SetItems(state, kTransformRecords);
}

void TransformMemcpy(benchmark::State& state) {
  Fixture& f = TheFixture();
  size_t i = 0;
  TransformValues values[kTransformRecords + 1];
  for (auto _ : state) {
    if (++i >= f.transforms.size()) i = 0;
    const wire::Bytes& records = f.transforms[i].bytes;
    benchmark::DoNotOptimize(DecodeTransforms(records.data(), records.size(), values));
    benchmark::ClobberMemory();
  }
  SetItems(state, kTransformRecords);
}

// ---------------------------------------------------------------------------------------
// Physics pass: parentless driven entities take both vectors.

void PhysicsClient(benchmark::State& state) {
  Fixture& f = TheFixture();
  size_t i = 0;
  const uint64_t before = benchsupport::Allocations();
  for (auto _ : state) {
    if (++i >= f.physics.size()) i = 0;
    client::PhysicsPass pass(f.physics[i].stream);
    pass();
  }
  CountAllocations(state, before);
  SetItems(state, kPhysicsRecords);
}

void PhysicsPlainMap(benchmark::State& state) {
  Fixture& f = TheFixture();
  size_t i = 0;
  PhysicsValues values[kPhysicsRecords + 1];
  for (auto _ : state) {
    if (++i >= f.physics.size()) i = 0;
    const wire::Bytes& records = f.physics[i].bytes;
    const size_t n = DecodePhysics(records.data(), records.size(), values);
    for (size_t r = 0; r < n; ++r) {
      const ClientSideEntity::Ptr entity = f.PlainGet(values[r].id);
      if (entity && entity->serverDriven && entity->parentId.Load().IsNull()) {
        entity->velocity = values[r].velocity;
        entity->physicsExtra = values[r].extra;
      }
    }
  }
  SetItems(state, kPhysicsRecords);
}

void PhysicsMemcpy(benchmark::State& state) {
  Fixture& f = TheFixture();
  size_t i = 0;
  PhysicsValues values[kPhysicsRecords + 1];
  for (auto _ : state) {
    if (++i >= f.physics.size()) i = 0;
    const wire::Bytes& records = f.physics[i].bytes;
    benchmark::DoNotOptimize(DecodePhysics(records.data(), records.size(), values));
    benchmark::ClobberMemory();
  }
  SetItems(state, kPhysicsRecords);
}

// ---------------------------------------------------------------------------------------
// Re-parenting: each iteration moves 23 children from A to B and back (two datagrams, 46
// records), each keeping its place in the world: two parent lookups, three transforms,
// one inverse, two products and a quaternion per record.

void ReparentClient(benchmark::State& state) {
  Fixture& f = TheFixture();
  size_t i = 0;
  for (auto _ : state) {
    if (++i >= f.toB.size()) i = 0;
    client::TransformPass toB(f.toB[i].stream, 1, f.parentB, false);
    toB();
    client::TransformPass toA(f.toA[i].stream, 1, f.parentA, false);
    toA();
  }
  SetItems(state, 2 * kTransformRecords);
}

glm::dmat4 TransformOf(const glm::dvec3& p, const Orientation& o) {
  return glm::translate(glm::dmat4(1.0), p) * glm::mat4_cast(glm::dquat(o.w, o.x, o.y, o.z));
}

// The same arithmetic on plain values: decode, then for each record the three transforms,
// the inverse, the products and the quaternion, written back to a plain placement.
void ReparentMath(benchmark::State& state) {
  Fixture& f = TheFixture();
  struct Placement {
    glm::dvec3 position{1.0, 2.0, 0.5};
    Orientation orientation;
  };
  const Placement a{glm::dvec3(5.0, -3.0, 1.0),
                    Orientation{std::cos(0.3), 0.0, 0.0, std::sin(0.3)}};
  const Placement b{glm::dvec3(-8.0, 4.0, 0.0),
                    Orientation{std::cos(-0.7), 0.0, std::sin(-0.7), 0.0}};
  std::vector<Placement> children(kChildren);
  TransformValues values[kTransformRecords + 1];
  size_t i = 0;
  for (auto _ : state) {
    if (++i >= f.toB.size()) i = 0;
    for (int leg = 0; leg < 2; ++leg) {
      const wire::Bytes& records = leg == 0 ? f.toB[i].bytes : f.toA[i].bytes;
      const Placement& from = leg == 0 ? a : b;
      const Placement& to = leg == 0 ? b : a;
      const size_t n = DecodeTransforms(records.data(), records.size(), values);
      for (size_t r = 0; r < n; ++r) {
        Placement& child = children[i * kTransformRecords + r];
        const glm::dmat4 m = glm::inverse(TransformOf(to.position, to.orientation)) *
                             TransformOf(from.position, from.orientation) *
                             TransformOf(child.position, child.orientation);
        child.position = glm::dvec3(m[3]);
        const glm::quat q = glm::quat_cast(glm::mat3(glm::dmat3(m)));
        child.orientation = Orientation{q.w, q.x, q.y, q.z};
      }
    }
    benchmark::DoNotOptimize(children.data());
    benchmark::ClobberMemory();
  }
  SetItems(state, 2 * kTransformRecords);
}

BENCHMARK(TransformClient)->Name("TransformPass/client::TransformPass/23 records");
BENCHMARK(TransformPlainMap)->Name("TransformPass/unordered_map+shared_mutex/23 records");
BENCHMARK(TransformMemcpy)->Name("TransformPass/base:memcpy_decode/23 records");
BENCHMARK(PhysicsClient)->Name("PhysicsPass/client::PhysicsPass/20 records");
BENCHMARK(PhysicsPlainMap)->Name("PhysicsPass/unordered_map+shared_mutex/20 records");
BENCHMARK(PhysicsMemcpy)->Name("PhysicsPass/base:memcpy_decode/20 records");
BENCHMARK(ReparentClient)->Name("Reparent/client::TransformPass/2x23 records");
BENCHMARK(ReparentMath)->Name("Reparent/base:memcpy_decode+glm/2x23 records");

}  // namespace
