// The sandbox mod: a stand-in for a game's mods that the headless game loads once for each
// mod the server names. It gives the server's entities interfaces, records what arrives for
// it, and answers module messages so that both directions of every channel can be exercised.
//
// Behaviour of one instance (one per mod name; its module identifier is built from that name):
//   - entities of its module: text "nointerface" gets no interface; "static" gets an
//     interface and serverDriven false; any other text an interface and serverDriven true.
//     Every entity with an interface has one renderable instance.
//   - the interface's Sync records all remaining bytes; Init is the default.
//   - connect: writes the user name as a platform string.
//   - message: records the payload (the newest ones), then by its first byte: 'R' sends the whole
//   payload
//     back in the next Send() as a reliable module message, 'U' as an unreliable one;
//     'A' + 16-byte entity id queues the bytes after the id as one action on that entity
//     (nothing when the entity is unknown or the id is cut short); anything else: nothing.
//   - send: every waiting reliable payload as a record of its own, every waiting
//     unreliable payload as a datagram of its own.
//
// Threads: message handlers run on the client's receiving thread (TCP) and on the UDP
// socket's delivery thread (datagrams); Sync on the receiving thread; connect and send on
// the game thread. Every piece of recorded or waiting state has its own lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "client/History.h"
#include "client/SmallLock.h"
#include "game/entity/ClientSideEntity.h"

class GAME_Mod;

namespace sandbox {

using Bytes = std::vector<uint8_t>;

// The handlers of a mod are plain function pointers, so every instance is bound to one
// of a fixed number of slots.
inline constexpr size_t kMaxMods = 64;
// What is kept for the dump: the newest module messages (all instances together) and the
// newest Sync records of each interface, all of them within one byte budget
// (KeptBytes::kDefaultCap unless SetKeptBytesCap says otherwise); older ones are counted,
// not kept.
inline constexpr size_t kKeptModuleMessages = 4096;
inline constexpr size_t kKeptSyncs = 16;

// The interface of every sandbox entity that has one.
class SandboxInterface : public game::entity::ClientSideEntity::Interface {
 public:
  void Sync(orvex::filesystem::ReadOnlyStream& data) override;
  // Calls `visit` with the bytes of each Sync call kept, oldest first (under the
  // interface's lock), and says how many were let go.
  void ForEachSync(const std::function<void(std::span<const uint8_t>)>& visit) const;
  uint64_t SyncsLeftOut() const;
  // Sync calls so far (any thread).
  uint64_t SyncCalls() const { return syncCalls_.load(std::memory_order_relaxed); }

  // What the freshness scan (client/Freshness.h) last saw of the entity: kept here, with
  // the entity, it costs 24 bytes an entity and goes when the entity goes. Only the scan
  // reads and writes it, on the game thread. changedAt is NaN until the first scan.
  struct Seen {
    uint64_t fingerprint = 0;
    double serverTime = 0;
    double changedAt = std::numeric_limits<double>::quiet_NaN();
  };
  Seen seen;

 private:
  std::atomic<uint64_t> syncCalls_{0};
  mutable SmallLock lock_;
  // Each record's bytes in a std::string, whose own buffer holds up to 15 bytes: the
  // usual Sync data (a few bytes an entity) costs no allocation of its own.
  History<std::string> syncs_{kKeptSyncs};
};

struct ModuleMessage {
  std::string module;  // the receiving mod's module text
  Bytes payload;
};

// Builds a sandbox instance named `name` and loads it into the game's mod registry.
// Throws std::invalid_argument when the name is not a module name, a mod with the same
// module identifier is loaded, or every slot is taken.
std::shared_ptr<GAME_Mod> Load(const std::string& name);
// Unloads every sandbox instance and forgets the recorded module messages.
void UnloadAll();
// Calls `visit` with each module message kept (the newest that sandbox message handlers
// received, all instances, in order of arrival), and says how many were let go.
void ForEachModuleMessage(const std::function<void(const ModuleMessage&)>& visit);
uint64_t ModuleMessagesLeftOut();
// The byte budget of everything kept for the dump, module messages and Sync records
// together. Call before the run.
void SetKeptBytesCap(uint64_t bytes);

}  // namespace sandbox
