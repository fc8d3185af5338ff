// The reliable stream after a valid welcome, cut before the first message that asserts by design
// (creating a live id, updating or moving an unknown one); the replica must hold the ids it leaves.
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
using orvex::filesystem::ReadOnlyStream;

// What the receiving thread does with the input: sets `send` to the bytes to send (all, or up to an
// asserting message) and returns the ids registered once it has ended. Messages are read with the
// codec; one cut short, or with a count over what a socket accepts, ends the receiving thread's
// read there, before any check of the client's.
std::unordered_set<Id> Foresee(const uint8_t* data, size_t& send) {
  std::unordered_set<Id> live;
  ReadOnlyStream in = ReadOnlyStream(data, send);
  // The entity constructor looks the mod up by the text form of the module's id.
  static const std::string ship = orvex::modular::ModuleID(fuzz::kShip).String(),
                           fixed = orvex::modular::ModuleID(fuzz::kStatic).String();
  while (in.GetBufferSize() != 0) {
    const size_t start = orvex::filesystem::PositionOf(in);
    bool asserts = false;
    try {
      const wire::ServerMessage m = wire::ReadServerMessage(in);
      switch (m.code) {
        case networking::MSG_DISCONNECT:
          return live;
        case networking::MSG_ENTITY_CREATE: {
          asserts = live.count(m.entity) != 0;
          const std::string name = m.module.String();
          if (!asserts && (name == ship || name == fixed)) live.insert(m.entity);
          break;
        }
        case networking::MSG_ENTITY_DESTROY:
          live.erase(m.entity);
          break;
        case networking::MSG_ENTITY_UPDATE:
        case networking::MSG_ENTITY_MOVE:
          asserts = live.count(m.entity) == 0;
          break;
        default:
          break;
      }
    } catch (const std::runtime_error&) {
      return live;  // a message cut short is sent as it is: the client's read fails before its
                    // check
    }
    if (asserts) {
      send = start;
      return live;
    }
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
