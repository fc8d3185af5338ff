// The reliable message stream: the bytes that follow a valid welcome on the TCP
// connection. Each input gets a client of its own, connected to a loopback server that
// sends the fixed welcome, the input and then ends the stream; ReceivingThread() runs on
// libFuzzer's thread and carries out messages until the read at the end of the input
// fails (or a disconnect message stops it).
//
// Assertions by design. Three messages end the process with the module's assertion line:
// a creation for an id that is already live, an update or a move for an id that is not.
// The harness keeps those apart from faults without hiding any: before it sends the
// input it reads the message stream itself, with the framing rules of the protocol and
// the set of live ids, and cuts the input right before the first message that would
// assert. Everything before the cut reaches the client; an assertion that fires anyway is
// reported like any crash, and so is a replica that ends up with other ids than the
// messages leave.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <unordered_set>

#include "FuzzSupport.h"
#include "Game.h"
#include "client/Client.h"
#include "game/Networking.h"
#include "game/entity/ClientSideEntity.h"
#include "identifiers/ModuleID.h"
#include "server/Wire.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using IdSet = std::unordered_set<Id>;

// The welcome every input follows: valid, one mod, a short configuration text.
fuzz::Bytes Welcome() {
  wire::Welcome welcome;
  welcome.serverTag = 0x0A0B;
  welcome.playerId = 42;
  welcome.username = "fuzzer";
  welcome.mods = {fuzz::kShip};
  welcome.mode = 1;
  welcome.config = wire::ConfigText("fuzz=1");
  orvex::filesystem::Stream out;
  wire::WriteWelcome(out, welcome);
  return wire::BytesOf(out);
}

// Steps over the fields of one message. A false result means the receiving thread's read
// ends there: the input ends inside the field, or a count exceeds what a socket accepts.
class Cursor {
 public:
  Cursor(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  size_t Position() const { return pos_; }
  bool Skip(size_t n) {
    if (size_ - pos_ < n) return false;
    pos_ += n;
    return true;
  }
  template <typename T>
  bool Value(T& value) {
    if (size_ - pos_ < sizeof(T)) return false;
    std::memcpy(&value, data_ + pos_, sizeof(T));
    pos_ += sizeof(T);
    return true;
  }
  // A string or a sub-stream: u32 count, then the bytes.
  bool Block() {
    uint32_t count;
    if (!Value(count)) return false;
    if (count > orvex::filesystem::Stream::kMaxBlockSize) return false;
    return Skip(count);
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

struct Plan {
  size_t send;  // bytes of the input to send: all, or up to an asserting message
  IdSet live;   // ids registered once the receiving thread has ended
};

// What the receiving thread does with `data`, message by message.
Plan Foresee(const uint8_t* data, size_t size) {
  Plan plan{size, {}};
  Cursor in(data, size);
  for (;;) {
    const size_t start = in.Position();
    uint8_t code;
    if (!in.Value(code)) return plan;
    Id id;
    switch (code) {
      case networking::MSG_DISCONNECT:
        return plan;
      case networking::MSG_WORLD:
        if (!in.Block()) return plan;
        break;
      case networking::MSG_ADMIN_STATUS:
        if (!in.Block() || !in.Skip(1)) return plan;
        break;
      case networking::MSG_ENTITY_CREATE: {
        orvex::modular::ModuleID module;
        // id, module, text, parent, position, orientation, smooth, forceSnap, data
        if (!in.Value(id) || !in.Value(module) || !in.Block() || !in.Skip(16 + 24 + 32 + 2) ||
            !in.Block()) {
          return plan;
        }
        if (plan.live.count(id) != 0) {
          plan.send = start;
          return plan;
        }
        if (fuzz::SuppliesInterface(module.String())) plan.live.insert(id);
        break;
      }
      case networking::MSG_ENTITY_DESTROY:
        if (!in.Value(id)) return plan;
        plan.live.erase(id);
        break;
      case networking::MSG_ENTITY_UPDATE:
        // id, ignored id, position, orientation, smooth, forceSnap, data
        if (!in.Value(id) || !in.Skip(16 + 24 + 32 + 2) || !in.Block()) return plan;
        if (plan.live.count(id) == 0) {
          plan.send = start;
          return plan;
        }
        break;
      case networking::MSG_ENTITY_MOVE:
        // id, smooth, position, orientation
        if (!in.Value(id) || !in.Skip(1 + 24 + 32)) return plan;
        if (plan.live.count(id) == 0) {
          plan.send = start;
          return plan;
        }
        break;
      case networking::MSG_FOR_MODULE:
        if (!in.Skip(16) || !in.Block()) return plan;
        break;
      default:
        break;
    }
  }
}

void CheckReplica(const IdSet& expected) {
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
  fuzz::QuietDiagnostics();
  fuzz::InstallMods();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::LoopbackServer& server = *new fuzz::LoopbackServer();
  static const fuzz::Bytes welcome = Welcome();

  const Plan plan = Foresee(data, size);
  fuzz::Bytes reply = welcome;
  reply.insert(reply.end(), data, data + plan.send);
  server.Arm(std::move(reply), true);
  try {
    client::Client client("127.0.0.1", server.Port(), "token", "");
    Game::isActive = true;
    client.ReceivingThread();
    CheckReplica(plan.live);
  } catch (const std::runtime_error& failure) {
    fuzz::Fail(std::string("the fixed welcome failed: ") + failure.what());
  }
  server.WaitServed();
  fuzz::TakeLines();
  fuzz::ResetGame();
  return 0;
}
