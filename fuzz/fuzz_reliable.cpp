// The reliable message stream after a fixed, valid welcome. Each input gets a client of its
// own, whose ReceivingThread() carries out the messages on libFuzzer's thread until the read
// at the end of the input fails. A creation for a live id, an update or a move for an id
// that is not live assert by design: the harness reads the stream first, with the framing
// and the live ids, and cuts it before the first such message. Any abort is then a
// finding, and so is a replica left with other ids than the messages leave.
#include <cstring>
#include <shared_mutex>
#include <stdexcept>
#include <unordered_set>

#include "FuzzSupport.h"
#include "Game.h"
#include "Messages.h"
#include "client/Client.h"
#include "game/Networking.h"
#include "game/entity/ClientSideEntity.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;

// Steps over the fields of one message. A false result means the receiving thread's read
// ends there: the input ends inside the field, or a count exceeds what a socket accepts.
struct Cursor {
  const uint8_t* data;
  size_t size;
  size_t pos = 0;

  bool Skip(size_t n) {
    if (size - pos < n) return false;
    pos += n;
    return true;
  }
  template <typename T>
  bool Value(T& value) {
    if (!Skip(sizeof(T))) return false;
    std::memcpy(&value, data + pos - sizeof(T), sizeof(T));
    return true;
  }
  // A string or a sub-stream: u32 count, then the bytes.
  bool Block() {
    uint32_t count;
    return Value(count) && count <= orvex::filesystem::Stream::kMaxBlockSize && Skip(count);
  }
};

struct Plan {
  size_t send;                  // bytes of the input to send: all, or up to an asserting message
  std::unordered_set<Id> live;  // ids registered once the receiving thread has ended
};

// What the receiving thread does with `data`, message by message.
Plan Foresee(const uint8_t* data, size_t size) {
  Plan plan{size, {}};
  Cursor in{data, size};
  for (uint8_t code; in.Value(code);) {
    const size_t start = in.pos - 1;
    Id id;
    orvex::modular::ModuleID module;
    bool complete = true, asserts = false;
    switch (code) {
      case networking::MSG_DISCONNECT:
        return plan;
      case networking::MSG_WORLD:
        complete = in.Block();
        break;
      case networking::MSG_ADMIN_STATUS:
        complete = in.Block() && in.Skip(1);
        break;
      case networking::MSG_ENTITY_CREATE:
        // id, module, text, parent, position, orientation, smooth, forceSnap, data
        complete = in.Value(id) && in.Value(module) && in.Block() && in.Skip(16 + 24 + 32 + 2) &&
                   in.Block();
        asserts = plan.live.count(id) != 0;
        if (complete && !asserts && fuzz::SuppliesInterface(module.String())) plan.live.insert(id);
        break;
      case networking::MSG_ENTITY_DESTROY:
        if ((complete = in.Value(id))) plan.live.erase(id);
        break;
      case networking::MSG_ENTITY_UPDATE:
        // id, ignored id, position, orientation, smooth, forceSnap, data
        complete = in.Value(id) && in.Skip(16 + 24 + 32 + 2) && in.Block();
        asserts = plan.live.count(id) == 0;
        break;
      case networking::MSG_ENTITY_MOVE:
        // id, smooth, position, orientation
        complete = in.Value(id) && in.Skip(1 + 24 + 32);
        asserts = plan.live.count(id) == 0;
        break;
      case networking::MSG_FOR_MODULE:
        complete = in.Skip(16) && in.Block();
        break;
    }
    // A message cut short is sent as it is: the client's read fails before its check.
    if (!complete) return plan;
    if (asserts) return Plan{start, std::move(plan.live)};
  }
  return plan;
}

void CheckReplica(const std::unordered_set<Id>& expected) {
  std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
  if (ClientSideEntity::_sharedObjects.size() != expected.size()) {
    fuzz::Fail("the replica holds " + std::to_string(ClientSideEntity::_sharedObjects.size()) +
               " entities where the messages leave " + std::to_string(expected.size()));
  }
  for (const auto& [id, entity] : ClientSideEntity::_sharedObjects) {
    if (expected.count(id) == 0) fuzz::Fail("the replica holds an entity the messages removed");
    if (!entity || !entity->interface || !entity->ready) {
      fuzz::Fail("a replicated entity is not complete");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Start();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::LoopbackServer& server = *new fuzz::LoopbackServer();
  static const fuzz::Bytes welcome = [] {
    wire::Welcome w = testlib::DefaultWelcome();
    w.mods = {fuzz::kShip};
    return testlib::Welcome(w);
  }();
  const Plan plan = Foresee(data, size);
  fuzz::Bytes reply = welcome;
  reply.insert(reply.end(), data, data + plan.send);
  server.Arm(std::move(reply), true);
  try {
    client::Client client("127.0.0.1", server.Port(), "token", "");
    client.ReceivingThread();
    CheckReplica(plan.live);
  } catch (const std::runtime_error& failure) {
    fuzz::Fail(std::string("the fixed welcome failed: ") + failure.what());
  }
  server.WaitServed();
  Game::ResetEntities();
  Game::Reset();
  return 0;
}
