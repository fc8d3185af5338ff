// The datagram intake, with the transform and physics passes it hands to the game thread.
// One client is connected for the whole process, with a fixed set of entities (see
// kFixedEntities) put back to their placements before every input, and both sequence
// counters reset. An input is a run of datagrams: it is cut before every "TOVRANE!", so
// every piece but a leading one starts with the magic. Pieces with the magic go to the
// intake proper (after the magic, as the sender check would pass them on); a leading
// piece without it goes through the full callback body, which drops it as short, foreign
// in magic or from the wrong sender. Then Game::RunSynchronized() runs the passes, as the
// game thread does once per frame.
//
// Parent cycles. Parent links must form a tree: a transform record moves its entity under
// the datagram's parent. A server that links an entity under itself or its descendants
// breaks that contract (the client then cuts the chain at 1024 links, a case the entity
// tests cover), so the harness keeps to trees: it works out the parent links each datagram leaves (every record
// that the pass applies leaves its entity under the header's parent) and stops the input
// before a datagram that would close a cycle. It then checks that the replica's parent
// links are the ones it worked out.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <stdexcept>
#include <vector>

#include "ClientTestPeer.h"
#include "FuzzSupport.h"
#include "Game.h"
#include "client/Client.h"
#include "game/Networking.h"
#include "game/entity/ClientSideEntity.h"
#include "orvex/net/Socket.h"
#include "server/Wire.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using orvex::filesystem::ReadOnlyStream;

constexpr size_t kMaxDatagrams = 64;
constexpr size_t kMagicSize = sizeof(networking::MAGIC);

struct Process {
  fuzz::LoopbackServer* server = nullptr;
  client::Client* client = nullptr;
  // A socket that never received anything: as the delivering socket its sender address
  // is empty, which no server address equals.
  orvex::net::UdpSocket* stranger = nullptr;
};

Process& Setup() {
  static Process process = [] {
    Process p;
    fuzz::QuietDiagnostics();
    fuzz::InstallMods();
    wire::Welcome welcome;
    welcome.playerId = 7;
    welcome.username = "fuzzer";
    welcome.config = wire::ConfigText("fuzz=1");
    orvex::filesystem::Stream out;
    wire::WriteWelcome(out, welcome);
    // Server, client and socket live until the process ends; nothing waits for them.
    p.server = new fuzz::LoopbackServer();
    p.server->Arm(wire::BytesOf(out), false);
    p.client = new client::Client("127.0.0.1", p.server->Port(), "token", "");
    p.stranger = new orvex::net::UdpSocket("127.0.0.1", p.server->Port(), 1400);
    for (const fuzz::FixedEntity& fixed : fuzz::kFixedEntities) {
      ClientSideEntity::Interface::Create(fixed.id, fixed.module, "fixed", fixed.parent,
                                          glm::dvec3(0.0), game::entity::Orientation(),
                                          ReadOnlyStream());
    }
    return p;
  }();
  return process;
}

void PutBack(client::Client& client) {
  int index = 0;
  for (const fuzz::FixedEntity& fixed : fuzz::kFixedEntities) {
    const ClientSideEntity::Ptr e = ClientSideEntity::Get<ClientSideEntity>(fixed.id);
    if (!e) fuzz::Fail("a fixed entity left the registry");
    e->position = glm::dvec3(++index, 0.0, 0.0);
    e->orientation = game::entity::Orientation();
    e->parentId = fixed.parent;
    e->targetPosition = glm::dvec3(0.0);
    e->targetOrientation = game::entity::Orientation();
    e->updateRate = 0.0f;
    e->velocity = glm::dvec3(0.0);
    e->physicsExtra = glm::dvec3(0.0);
    e->smooth = 0;
    e->forceSnap = 0;
    e->hasTarget = false;
    e->velocityReset = false;
    e->stale = false;
  }
  client::ClientTestPeer::ResetSequences(client);
  Game::timestamp = 0.0;
}

// The parent links of the fixed entities, as the datagrams taken in so far leave them.
class Parents {
 public:
  Parents() {
    for (const fuzz::FixedEntity& fixed : fuzz::kFixedEntities)
      links_[Key(fixed.id)] = fixed.parent;
  }

  // Applies a datagram that starts with the magic; false (and no change) when it would
  // close a cycle.
  bool Admit(const uint8_t* data, size_t size) {
    ReadOnlyStream in(data + kMagicSize, size - kMagicSize);
    if (in.ReadValue<uint8_t>() != networking::MSG_TRANSFORMS) return true;
    in.ReadValue<double>();
    const uint64_t sequence = in.ReadValue<uint64_t>();
    const uint64_t parentEnvironment = in.ReadValue<uint64_t>();
    const uint64_t relativeEnvironment = in.ReadValue<uint64_t>();
    const Id parent = in.ReadValue<Id>();
    const int32_t divisor = in.ReadValue<int32_t>();
    if (divisor == 1) {
      if (sequence < lastSequence_) return true;
      lastSequence_ = sequence;
    }
    if (parentEnvironment != Game::parentEnvironmentId ||
        relativeEnvironment != Game::relativeEnvironmentId) {
      return true;
    }
    std::map<std::pair<uint64_t, uint64_t>, Id> before = links_;
    for (;;) {
      const Id id = in.ReadValue<Id>();
      if (id.IsNull()) break;
      double position[3];
      float rotation[4];
      in.Read(reinterpret_cast<unsigned char*>(position), sizeof position);
      in.Read(reinterpret_cast<unsigned char*>(rotation), sizeof rotation);
      bool nan = false;
      for (double v : position) nan = nan || std::isnan(v);
      for (float v : rotation) nan = nan || std::isnan(v);
      if (nan) break;
      auto link = links_.find(Key(id));
      if (link == links_.end() || !Driven(id)) continue;
      link->second = parent;
      if (HasCycle()) {
        links_ = std::move(before);
        return false;
      }
    }
    return true;
  }

  void Check() const {
    for (const fuzz::FixedEntity& fixed : fuzz::kFixedEntities) {
      const ClientSideEntity::Ptr e = ClientSideEntity::Get<ClientSideEntity>(fixed.id);
      if (!(e->parentId.Load() == links_.at(Key(fixed.id)))) {
        fuzz::Fail("an entity's parent is not the one its transform records named");
      }
    }
  }

 private:
  static std::pair<uint64_t, uint64_t> Key(const Id& id) { return {id.word0, id.word1}; }
  static bool Driven(const Id& id) {
    for (const fuzz::FixedEntity& fixed : fuzz::kFixedEntities) {
      if (fixed.id == id) return std::strcmp(fixed.module, fuzz::kShip) == 0;
    }
    return false;
  }
  bool HasCycle() const {
    for (const auto& [start, parent] : links_) {
      Id next = parent;
      for (size_t steps = 0; !next.IsNull(); ++steps) {
        auto link = links_.find(Key(next));
        if (link == links_.end()) break;  // a dangling link ends the chain
        if (steps > links_.size()) return true;
        next = link->second;
      }
    }
    return false;
  }

  std::map<std::pair<uint64_t, uint64_t>, Id> links_;
  uint64_t lastSequence_ = 0;
};

bool StartsWithMagic(const uint8_t* data, size_t size) {
  return size >= kMagicSize && std::memcmp(data, networking::MAGIC, kMagicSize) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Setup();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Process& process = Setup();
  PutBack(*process.client);
  Parents parents;

  // The pieces: [start, next magic) each.
  std::vector<size_t> starts{0};
  for (size_t at = 1; at + kMagicSize <= size && starts.size() < kMaxDatagrams; ++at) {
    if (StartsWithMagic(data + at, size - at)) starts.push_back(at);
  }
  starts.push_back(size);
  for (size_t i = 0; i + 1 < starts.size(); ++i) {
    const uint8_t* piece = data + starts[i];
    const size_t length = starts[i + 1] - starts[i];
    if (!StartsWithMagic(piece, length)) {
      client::ClientTestPeer::UdpMessage(*process.client, *process.stranger,
                                         ReadOnlyStream(piece, length));
      continue;
    }
    if (!parents.Admit(piece, length)) break;
    // As the callback hands it on: the whole datagram, positioned after the magic.
    ReadOnlyStream datagram(piece, length);
    unsigned char magic[kMagicSize];
    datagram.Read(magic, kMagicSize);
    client::ClientTestPeer::ReceiveDatagram(*process.client, std::move(datagram));
  }
  Game::RunSynchronized();
  parents.Check();
  fuzz::TakeLines();
  return 0;
}
