// The entity registry at the module's scale (100,000 entities): lookups by id, with one and
// two threads, and create/destroy churn; against a std::unordered_map guarded by a
// std::shared_mutex that holds the same shared pointers, measured in the same run.
//
// Names read Case/Implementation/variant; the implementation marked "base:" is the baseline
// that bench/run.sh divides by.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "BenchSupport.h"

namespace {

using benchsupport::ClientSideEntity;
using benchsupport::Id;

// The registry filled once per process, the same entries in a plain map, and the ids in a
// shuffled order so that consecutive lookups land anywhere in the table, as a datagram's
// records do.
struct Registry {
  std::vector<Id> ids;
  std::vector<Id> missing;
  std::unordered_map<Id, ClientSideEntity::Ptr> plain;
  std::shared_mutex plainMutex;

  Registry() {
    // Both maps reserve like the client's constructor and grow side by side, so their
    // nodes are spread over memory alike.
    ClientSideEntity::_sharedObjects.reserve(benchsupport::kEntities);
    plain.reserve(benchsupport::kEntities);
    ids = benchsupport::FillRegistry(
        benchsupport::kEntities, 1,
        [this](const Id& id, const ClientSideEntity::Ptr& entity) { plain.emplace(id, entity); });
    std::mt19937_64 random(7);
    std::shuffle(ids.begin(), ids.end(), random);
    for (uint64_t serial = 0; serial < ids.size(); ++serial) {
      missing.push_back(benchsupport::MakeId(serial + 10'000'000));
    }
  }
};

Registry& TheRegistry() {
  static Registry registry;
  return registry;
}

// Each thread walks the shuffled ids from its own starting point.
size_t StartOf(const benchmark::State& state, size_t count) {
  return static_cast<size_t>(state.thread_index()) * (count / 2 + 1);
}

void GetClient(benchmark::State& state, bool hit) {
  Registry& registry = TheRegistry();
  const std::vector<Id>& ids = hit ? registry.ids : registry.missing;
  size_t i = StartOf(state, ids.size());
  for (auto _ : state) {
    if (++i >= ids.size()) i = 0;
    ClientSideEntity::Ptr entity = ClientSideEntity::Get<ClientSideEntity>(ids[i]);
    benchmark::DoNotOptimize(entity);
  }
}

void GetPlain(benchmark::State& state, bool hit) {
  Registry& registry = TheRegistry();
  const std::vector<Id>& ids = hit ? registry.ids : registry.missing;
  size_t i = StartOf(state, ids.size());
  for (auto _ : state) {
    if (++i >= ids.size()) i = 0;
    ClientSideEntity::Ptr entity;
    {
      std::shared_lock<std::shared_mutex> lock(registry.plainMutex);
      const auto it = registry.plain.find(ids[i]);
      if (it != registry.plain.end()) entity = it->second;
    }
    benchmark::DoNotOptimize(entity);
  }
}

// The registry's own map under a std::shared_mutex instead of its orvex::SharedMutex: the
// same nodes as ClientSideEntity::Get, so the difference to that row is the lock alone.
void GetRegistryStdLock(benchmark::State& state) {
  Registry& registry = TheRegistry();
  size_t i = StartOf(state, registry.ids.size());
  for (auto _ : state) {
    if (++i >= registry.ids.size()) i = 0;
    ClientSideEntity::Ptr entity;
    {
      std::shared_lock<std::shared_mutex> lock(registry.plainMutex);
      const auto it = ClientSideEntity::_sharedObjects.find(registry.ids[i]);
      if (it != ClientSideEntity::_sharedObjects.end()) entity = it->second;
    }
    benchmark::DoNotOptimize(entity);
  }
}

void ExistsClient(benchmark::State& state) {
  Registry& registry = TheRegistry();
  size_t i = StartOf(state, registry.ids.size());
  for (auto _ : state) {
    if (++i >= registry.ids.size()) i = 0;
    bool found = ClientSideEntity::Exists(registry.ids[i]);
    benchmark::DoNotOptimize(found);
  }
}

void ExistsPlain(benchmark::State& state) {
  Registry& registry = TheRegistry();
  size_t i = StartOf(state, registry.ids.size());
  for (auto _ : state) {
    if (++i >= registry.ids.size()) i = 0;
    bool found;
    {
      std::shared_lock<std::shared_mutex> lock(registry.plainMutex);
      found = registry.plain.find(registry.ids[i]) != registry.plain.end();
    }
    benchmark::DoNotOptimize(found);
  }
}

// One entity created and destroyed per iteration, next to the 100,000 that stay. Both
// sides construct the same entity (the game library's constructor asks the mod registry
// for its module), so the difference is the registry's own work and the module text parse.
void ChurnClient(benchmark::State& state) {
  TheRegistry();
  uint64_t serial = 20'000'000;
  const uint64_t before = benchsupport::Allocations();
  for (auto _ : state) {
    const Id id = benchsupport::MakeId(++serial);
    {
      ClientSideEntity::Ptr entity =
          ClientSideEntity::Create<ClientSideEntity>(id, benchsupport::kModule, "ship");
      benchmark::DoNotOptimize(entity);
    }
    ClientSideEntity::Destroy(id);
  }
  state.counters["allocs"] =
      benchmark::Counter(static_cast<double>(benchsupport::Allocations() - before),
                         benchmark::Counter::kAvgIterations);
}

void ChurnPlain(benchmark::State& state) {
  Registry& registry = TheRegistry();
  const orvex::modular::ModuleID module(benchsupport::kModule);
  uint64_t serial = 30'000'000;
  const uint64_t before = benchsupport::Allocations();
  for (auto _ : state) {
    const Id id = benchsupport::MakeId(++serial);
    {
      ClientSideEntity::Ptr entity(new ClientSideEntity(id, module, "ship"));
      std::unique_lock<std::shared_mutex> lock(registry.plainMutex);
      registry.plain.emplace(id, std::move(entity));
    }
    std::unique_lock<std::shared_mutex> lock(registry.plainMutex);
    registry.plain.erase(id);
  }
  state.counters["allocs"] =
      benchmark::Counter(static_cast<double>(benchsupport::Allocations() - before),
                         benchmark::Counter::kAvgIterations);
}

BENCHMARK_CAPTURE(GetClient, hit, true)
    ->Name("Get/ClientSideEntity::Get/hit")
    ->ThreadRange(1, 2)
    ->UseRealTime();
BENCHMARK_CAPTURE(GetPlain, hit, true)
    ->Name("Get/base:unordered_map+shared_mutex/hit")
    ->ThreadRange(1, 2)
    ->UseRealTime();
BENCHMARK(GetRegistryStdLock)
    ->Name("Get/_sharedObjects+std::shared_mutex/hit")
    ->ThreadRange(1, 2)
    ->UseRealTime();
BENCHMARK_CAPTURE(GetClient, miss, false)
    ->Name("Get/ClientSideEntity::Get/miss")
    ->ThreadRange(1, 2)
    ->UseRealTime();
BENCHMARK_CAPTURE(GetPlain, miss, false)
    ->Name("Get/base:unordered_map+shared_mutex/miss")
    ->ThreadRange(1, 2)
    ->UseRealTime();
BENCHMARK(ExistsClient)->Name("Exists/ClientSideEntity::Exists")->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(ExistsPlain)
    ->Name("Exists/base:unordered_map+shared_mutex")
    ->ThreadRange(1, 2)
    ->UseRealTime();
BENCHMARK(ChurnClient)->Name("CreateDestroy/ClientSideEntity::Create+Destroy");
BENCHMARK(ChurnPlain)->Name("CreateDestroy/base:unordered_map+shared_mutex");

}  // namespace
