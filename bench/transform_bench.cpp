// The parent chain walk of GetAbsoluteTransformInEnvironment(): what one link costs (a
// shared lock, a lookup in the 100,000-entity registry, a matrix product), for honest chains
// up to the walk's depth limit and for parent cycles, against an entity without parent
// measured in the same run. The depth limit and the cycle detection bound what a server's
// re-parenting can cost the game thread; docs/performance.md reads the limit off this table.
#include <benchmark/benchmark.h>

#include "BenchSupport.h"

namespace {

using benchsupport::ClientSideEntity;
using benchsupport::Id;

// Chains and cycles placed among a full registry, so that lookups miss the caches as they
// do in a game. Chain entity i rides on chain entity i + 1; the top has no parent.
struct Chains {
  std::vector<ClientSideEntity::Ptr> chain;
  ClientSideEntity::Ptr cycleOfTwo;
  ClientSideEntity::Ptr cycleOfEight;

  static ClientSideEntity::Ptr Link(uint64_t serial, uint64_t parentSerial) {
    auto entity = ClientSideEntity::Get<ClientSideEntity>(benchsupport::MakeId(serial));
    entity->parentId = parentSerial == 0 ? Id{} : benchsupport::MakeId(parentSerial);
    return entity;
  }

  Chains() {
    benchsupport::FillRegistry(benchsupport::kEntities, 1);
    // Serials 1.. are registered; the chain uses 1..64 (1 at the bottom), the cycles 100..
    for (uint64_t i = 1; i <= 64; ++i) chain.push_back(Link(i, i == 64 ? 0 : i + 1));
    cycleOfTwo = Link(100, 101);
    Link(101, 100);
    cycleOfEight = Link(200, 201);
    for (uint64_t i = 201; i < 208; ++i) Link(i, i == 207 ? 200 : i + 1);
  }
};

Chains& TheChains() {
  static Chains chains;
  return chains;
}

// The entity `depth` links below the top of the chain.
void Chain(benchmark::State& state) {
  const ClientSideEntity::Ptr& entity = TheChains().chain.at(64 - 1 - state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(entity->GetAbsoluteTransformInEnvironment());
}

void Cycle(benchmark::State& state, int length) {
  Chains& chains = TheChains();
  const ClientSideEntity::Ptr& entity = length == 2 ? chains.cycleOfTwo : chains.cycleOfEight;
  for (auto _ : state) benchmark::DoNotOptimize(entity->GetAbsoluteTransformInEnvironment());
}

void Root(benchmark::State& state) {
  const ClientSideEntity::Ptr& entity = TheChains().chain.back();
  for (auto _ : state) benchmark::DoNotOptimize(entity->GetAbsoluteTransformInEnvironment());
}

}  // namespace

BENCHMARK(Root)->Name("AbsoluteTransform/base:no parent");
BENCHMARK(Chain)->Name("AbsoluteTransform/chain")->Arg(1)->Arg(4)->Arg(16)->Arg(32)->Arg(63);
BENCHMARK_CAPTURE(Cycle, two, 2)->Name("AbsoluteTransform/cycle of 2");
BENCHMARK_CAPTURE(Cycle, eight, 8)->Name("AbsoluteTransform/cycle of 8");
