// The per-frame send step with the registry at the module's scale (100,000 entities), on a
// client connected to the in-process test server over loopback, whose side of the
// connection reads and forgets everything that arrives. Against a plain walk over a vector
// of the same 100,000 shared pointers that tests the same flag, measured in the same run.
//
//   - "no actions": nothing queued, the common frame: the step is the walk (plus the
//     liveness test, the module loop and an occasional keep-alive);
//   - "1% actions": one action queued on 1,000 entities spread over the registry before
//     each frame (queuing is the game's work and is not timed); the baseline then also
//     writes the same records to a TCP connection to the same server and flushes once.
//
// Names read Case/Implementation/variant; the implementation marked "base:" is the baseline
// that bench/run.sh divides by.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <vector>

#include "BenchSupport.h"
#include "filesystem/StreamValues.h"
#include "game/Host.h"
#include "game/Networking.h"
#include "net/TcpConnection.h"

namespace {

using benchsupport::ClientSideEntity;
using benchsupport::Id;

// Every hundredth entity of a shuffled order gets an action.
constexpr size_t kActionEvery = 100;

struct Fixture {
  benchsupport::ConnectedClient connected;
  std::vector<ClientSideEntity::Ptr> entities;  // the baseline's vector, registry order
  std::vector<ClientSideEntity::Ptr> acting;    // 1% of them, spread over the registry
  orvex::filesystem::Stream action;             // an 8-byte action payload

  // The baseline's own connection to the same server, drained like the client's.
  std::unique_ptr<orvex::net::TcpConnection> tcp;
  std::unique_ptr<testserver::TestConnection> peer;
  std::atomic<bool> stop{false};
  std::thread draining;

  Fixture() {
    entities.reserve(benchsupport::kEntities);
    benchsupport::FillRegistry(
        benchsupport::kEntities, 1,
        [this](const Id&, const ClientSideEntity::Ptr& entity) { entities.push_back(entity); });
    std::vector<ClientSideEntity::Ptr> shuffled = entities;
    std::mt19937_64 random(5);
    std::shuffle(shuffled.begin(), shuffled.end(), random);
    for (size_t i = 0; i < shuffled.size(); i += kActionEvery) acting.push_back(shuffled[i]);
    WriteValue(action, uint64_t{0x1122334455667788ull});

    testserver::TestServer& server = connected.Server();
    tcp = std::make_unique<orvex::net::TcpConnection>("127.0.0.1", server.Port(), 0, 5000);
    peer = server.Accept();
    draining = std::thread([this] {
      std::vector<unsigned char> sink(1 << 20);
      while (!stop) {
        if (peer->Tcp().Poll(50) != 1) continue;
        try {
          peer->Tcp().ReadSome(sink.data(), sink.size());
        } catch (const std::exception&) {
          return;
        }
      }
    });
  }

  ~Fixture() {
    stop = true;
    draining.join();
  }

  void QueueActions() {
    for (const ClientSideEntity::Ptr& entity : acting) orvex::engine::QueueAction(*entity, action);
  }
};

Fixture& TheFixture() {
  static Fixture fixture;
  return fixture;
}

void CountAllocations(benchmark::State& state, uint64_t allocations) {
  state.counters["allocs"] =
      benchmark::Counter(static_cast<double>(allocations), benchmark::Counter::kAvgIterations);
}

void SendClient(benchmark::State& state, bool actions) {
  Fixture& f = TheFixture();
  client::Client& client = f.connected.Client();
  uint64_t allocations = 0;
  for (auto _ : state) {
    if (actions) {
      state.PauseTiming();
      f.QueueActions();
      state.ResumeTiming();
    }
    const uint64_t mark = benchsupport::Allocations();
    client.Send();
    allocations += benchsupport::Allocations() - mark;
  }
  CountAllocations(state, allocations);
}

// Walks the vector and tests each entity's flag, as the send step's walk does; with
// actions, writes each queued action as the client's record (code, id, embedded stream)
// to its TCP connection, empties the queue, and flushes once at the end.
void SendVectorWalk(benchmark::State& state, bool actions) {
  Fixture& f = TheFixture();
  orvex::net::TcpConnection& tcp = *f.tcp;
  for (auto _ : state) {
    if (actions) {
      state.PauseTiming();
      f.QueueActions();
      state.ResumeTiming();
    }
    size_t flagged = 0;
    for (const ClientSideEntity::Ptr& entity : f.entities) {
      if (!entity || !entity->hasPendingActions) continue;
      ++flagged;
      std::lock_guard<std::mutex> lock(entity->actionsMutex);
      for (const orvex::filesystem::Stream& queued : entity->pendingActions) {
        WriteValue(tcp, networking::MSG_ENTITY_ACTION);
        WriteValue(tcp, entity->id);
        tcp.Write(queued);
      }
      entity->pendingActions.clear();
      entity->hasPendingActions = false;
    }
    tcp.Flush();
    benchmark::DoNotOptimize(flagged);
  }
}

// The send step's own walk and nothing else: the registry's map under its shared lock,
// testing each entity's flag. Separates the walk from the rest of Send().
void RegistryWalk(benchmark::State& state) {
  TheFixture();
  for (auto _ : state) {
    size_t flagged = 0;
    std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    for (const auto& [id, entity] : ClientSideEntity::_sharedObjects) {
      if (entity && entity->hasPendingActions) ++flagged;
    }
    benchmark::DoNotOptimize(flagged);
  }
}

BENCHMARK_CAPTURE(SendClient, none, false)
    ->Name("Send/client::Client::Send/no actions")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(SendVectorWalk, none, false)
    ->Name("Send/base:vector_walk/no actions")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(RegistryWalk)->Name("Send/registry_walk/no actions")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(SendClient, actions, true)
    ->Name("Send/client::Client::Send/1% actions")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(SendVectorWalk, actions, true)
    ->Name("Send/base:vector_walk/1% actions")
    ->Unit(benchmark::kMicrosecond);

}  // namespace
