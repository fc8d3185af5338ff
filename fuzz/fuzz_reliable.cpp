// The reliable stream after a valid welcome, cut before the first message that asserts by design
// (creating a live id, updating or moving an unknown one); the replica must hold the ids it leaves.
#include <cstring>
#include <shared_mutex>
#include <unordered_set>

#include "FuzzSupport.h"
#include "Messages.h"
#include "filesystem/StreamValues.h"
#include "game/Networking.h"
#include "game/entity/ClientSideEntity.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using orvex::filesystem::Stream;

// Steps over the fields of one message. False means the receiving thread's read ends there: the
// input ends inside the field, or a count exceeds what a socket accepts.
struct Cursor {
  const uint8_t* data;
  size_t size;
  size_t pos = 0;

  bool Skip(size_t n) { return size - pos >= n && ((pos += n), true); }
  template <typename T>
  bool Value(T& value) {
    return Skip(sizeof(T)) && std::memcpy(&value, data + pos - sizeof(T), sizeof(T));
  }
  // A string or a sub-stream: u32 count, then the bytes.
  bool Block() {
    uint32_t n;
    return Value(n) && n <= kMaxBlockSize && Skip(n);
  }
};

// What the receiving thread does with the input: sets `send` to the bytes to send (all, or up to an
// asserting message) and returns the ids registered once it has ended.
std::unordered_set<Id> Foresee(const uint8_t* data, size_t& send) {
  std::unordered_set<Id> live;
  Cursor in{data, send};
  for (uint8_t code; in.Value(code);) {
    const size_t start = in.pos - 1;
    Id id;
    orvex::modular::ModuleID module;
    bool complete = true, asserts = false;
    switch (code) {
      case networking::MSG_DISCONNECT:
        return live;
      case networking::MSG_WORLD:
      case networking::MSG_ADMIN_STATUS:  // a text, then the flag
        complete = in.Block() && (code == networking::MSG_WORLD || in.Skip(1));
        break;
      case networking::MSG_ENTITY_CREATE: {
        // id, module, text, parent, position, orientation, smooth, forceSnap, data
        complete = in.Value(id) && in.Value(module) && in.Block() && in.Skip(16 + 24 + 32 + 2) &&
                   in.Block();
        asserts = live.count(id) != 0;
        // The entity constructor looks the mod up by the text form of the module's id.
        static const std::string ship = orvex::modular::ModuleID(fuzz::kShip).String(),
                                 fixed = orvex::modular::ModuleID(fuzz::kStatic).String();
        const std::string name = module.String();
        if (complete && !asserts && (name == ship || name == fixed)) live.insert(id);
        break;
      }
      case networking::MSG_ENTITY_DESTROY:
        if ((complete = in.Value(id))) live.erase(id);
        break;
      case networking::MSG_ENTITY_UPDATE:  // id, ignored id, placement, flags, data
        complete = in.Value(id) && in.Skip(16 + 24 + 32 + 2) && in.Block();
        asserts = live.count(id) == 0;
        break;
      case networking::MSG_ENTITY_MOVE:  // id, smooth, position, orientation
        complete = in.Value(id) && in.Skip(1 + 24 + 32);
        asserts = live.count(id) == 0;
        break;
      case networking::MSG_FOR_MODULE:
        complete = in.Skip(16) && in.Block();
        break;
    }
    // A message cut short is sent as it is: the client's read fails before its check.
    if (complete && asserts) send = start;
    if (!complete || asserts) return live;
  }
  return live;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const fuzz::Bytes welcome = [] {
    wire::Welcome w = testlib::DefaultWelcome();
    w.mods = {fuzz::kShip};
    return testlib::Welcome(w);
  }();
  size_t send = size;
  const std::unordered_set<Id> live = Foresee(data, send);
  fuzz::Bytes reply = welcome;
  reply.insert(reply.end(), data, data + send);
  const auto run = [&](client::Client& client) {
    client.ReceivingThread();
    std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    if (ClientSideEntity::_sharedObjects.size() != live.size()) {
      fuzz::Fail("the replica holds another number of entities than the messages leave");
    }
    for (const auto& [id, entity] : ClientSideEntity::_sharedObjects) {
      if (live.count(id) == 0) fuzz::Fail("the replica holds an entity the messages removed");
      if (!entity || !entity->interface || !entity->ready) {
        fuzz::Fail("a replicated entity is not complete");
      }
    }
  };
  fuzz::Connect(reply, run, [](const std::runtime_error& failure) {
    fuzz::Fail(std::string("the fixed welcome failed: ") + failure.what());
  });
  return 0;
}
