// What the client benchmarks and the load driver share: a mod that makes entities the way a
// game's mods do, a registry filled to the module's promised scale, a client connected to
// the in-process test server on loopback, and an allocation counter.
//
// Every executable that includes this header replaces the global operator new and delete
// (one translation unit per executable), so allocations made inside the module and the
// engine libraries are counted too.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "TestServer.h"
#include "client/Client.h"
#include "filesystem/StreamValues.h"
#include "game/Host.h"
#include "game/entity/ClientSideEntity.h"
#include "net/TcpConnection.h"
#include "protocol/Wire.h"

namespace benchsupport {

// Relaxed: a count, read by the thread that made the allocations it cares about.
inline std::atomic<uint64_t> allocations{0};

inline uint64_t Allocations() {
  return allocations.load(std::memory_order_relaxed);
}

}  // namespace benchsupport

// Out of line, so that the compiler never pairs an inlined free() with a new-expression.
[[gnu::noinline]] void* operator new(std::size_t size) {
  benchsupport::allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](std::size_t size) {
  return operator new(size);
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}

namespace benchsupport {

using game::entity::ClientSideEntity;
using game::entity::Id;

// The module of every benchmark entity.
inline constexpr const char* kModule = "BENCH_ship";
// The registry size the module is built for (the client reserves this much).
inline constexpr size_t kEntities = 100000;

inline uint64_t SplitMix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// Ids spread like the server's: word 1 (the hash) pseudo-random, never zero.
inline Id MakeId(uint64_t serial) {
  return Id{0x59544E45ull | serial << 32, SplitMix(serial) | 1};
}

// Loads (once per process) a mod named `name` that supplies what a game's mod supplies:
// text "nointerface" gets no interface, "static" an interface and serverDriven false,
// anything else an interface and serverDriven true.
inline void LoadMod(const std::string& name = kModule) {
  if (GAME_Mod::GetModule(orvex::modular::ModuleID(name).String())) return;
  auto mod = std::make_shared<GAME_Mod>(name);
  orvex::engine::InterfaceSupplier modSupplier = [](ClientSideEntity& entity) {
    if (entity.text == "nointerface") return;
    entity.interface = std::make_shared<ClientSideEntity::Interface>();
    entity.serverDriven = entity.text != "static";
  };
  orvex::engine::LoadMod(mod, modSupplier);
}

// Registers `count` driven entities (serials first .. first+count-1) that already have a
// target, placed in the environment (no parent), the way the client's receiving thread
// does it: one Create after the other, so that the map's nodes lie between the entities.
// `also` sees each entity right after its creation (a baseline that keeps its own copy
// gets the same interleaving). Returns the ids in creation order.
inline std::vector<Id> FillRegistry(
    size_t count, uint64_t first = 1,
    const std::function<void(const Id&, const ClientSideEntity::Ptr&)>& also = nullptr) {
  LoadMod();
  std::vector<Id> ids;
  ids.reserve(count);
  for (uint64_t serial = first; serial < first + count; ++serial) {
    const Id id = MakeId(serial);
    const ClientSideEntity::Ptr entity =
        ClientSideEntity::Create<ClientSideEntity>(id, kModule, "ship");
    entity->hasTarget = true;
    if (also) also(id, entity);
    ids.push_back(id);
  }
  return ids;
}

inline size_t RegistrySize() {
  std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
  return ClientSideEntity::_sharedObjects.size();
}

// A client::Client connected to the in-process test server on loopback. The server's side
// of the connection is drained by a thread of its own, so nothing the client sends ever
// backs up; its datagram socket keeps what arrives until Discard().
class ConnectedClient {
 public:
  ConnectedClient() {
    std::exception_ptr failure;
    std::thread constructing([&] {
      try {
        client_ = std::make_unique<client::Client>("127.0.0.1", server_.Port(), "bench", "");
      } catch (...) {
        failure = std::current_exception();
      }
    });
    try {
      connection_ = server_.Accept();
      connection_->ReadHello(0);
      wire::Welcome welcome;
      welcome.serverTag = 0x0B0C;
      welcome.playerId = 42;
      welcome.username = "bench";
      welcome.config = wire::ConfigText("bench=1");
      orvex::filesystem::Stream out;
      wire::WriteWelcome(out, welcome);
      connection_->Send(orvex::filesystem::BytesOf(out));
    } catch (...) {
      constructing.join();
      throw;
    }
    constructing.join();
    if (failure) std::rethrow_exception(failure);
    draining_ = std::thread([this] { Drain(); });
  }

  ~ConnectedClient() {
    stop_ = true;
    draining_.join();
    client_.reset();
  }

  ConnectedClient(const ConnectedClient&) = delete;
  ConnectedClient& operator=(const ConnectedClient&) = delete;

  client::Client& Client() { return *client_; }
  testserver::TestServer& Server() { return server_; }
  uint64_t BytesDrained() const { return drained_.load(std::memory_order_relaxed); }

 private:
  // Reads and forgets everything the client sends on TCP until stop_.
  void Drain() {
    orvex::net::TcpConnection& tcp = connection_->Tcp();
    std::vector<unsigned char> sink(1 << 20);
    while (!stop_) {
      if (tcp.Poll(50) != 1) continue;
      try {
        drained_.fetch_add(tcp.ReadSome(sink.data(), sink.size()), std::memory_order_relaxed);
      } catch (const std::exception&) {
        return;
      }
    }
  }

  testserver::TestServer server_;
  std::unique_ptr<testserver::TestConnection> connection_;
  std::unique_ptr<client::Client> client_;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> drained_{0};
  std::thread draining_;
};

}  // namespace benchsupport
