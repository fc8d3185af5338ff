// The datagram intake and the transform and physics passes, on one client for the whole
// process, with the fixed entities and both sequences put back before every input. The
// input is cut before every "TOVRANE!": pieces with the magic go to the intake proper, a
// leading piece without it through the whole callback body (which drops it); then
// Game::RunSynchronized() runs the passes, as the game thread does once per frame.
// Linking an entity under itself or a descendant breaks the protocol (the entity tests
// cover the client's cut at 1024 links), so the harness stops the input before a datagram
// that would close a cycle and checks that every parent link is the one it worked out.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "ClientTestPeer.h"
#include "FuzzSupport.h"
#include "Game.h"
#include "Messages.h"
#include "game/Networking.h"
#include "game/entity/ClientSideEntity.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using orvex::filesystem::ReadOnlyStream;

constexpr size_t kMaxDatagrams = 64;
constexpr size_t kMagicSize = sizeof(networking::MAGIC);

fuzz::LoopbackServer* server = nullptr;
client::Client* theClient = nullptr;
// A socket that never received anything: as the delivering socket its sender address is
// empty, which no server address equals.
orvex::net::UdpSocket* stranger = nullptr;

bool Driven(const Id& id) {
  return std::any_of(
      std::begin(fuzz::kFixedEntities), std::end(fuzz::kFixedEntities),
      [&](const fuzz::FixedEntity& f) { return f.id == id && f.module == fuzz::kShip; });
}

// The parent links of the fixed entities, as the datagrams taken in so far leave them:
// every record the pass applies (after the client's sequence, environment, end-of-list
// and NaN rules) leaves its entity under the header's parent.
class Parents {
 public:
  Parents() {
    for (const fuzz::FixedEntity& fixed : fuzz::kFixedEntities) links_[fixed.id] = fixed.parent;
  }

  // Takes in a datagram that starts with the magic; false (and no change) when it would
  // close a cycle.
  bool Admit(const uint8_t* data, size_t size) {
    ReadOnlyStream in(data + kMagicSize, size - kMagicSize);
    if (in.ReadValue<uint8_t>() != networking::MSG_TRANSFORMS) return true;
    in.ReadValue<double>();
    const auto sequence = in.ReadValue<uint64_t>();
    const auto parentEnvironment = in.ReadValue<uint64_t>();
    const auto relativeEnvironment = in.ReadValue<uint64_t>();
    const Id parent = in.ReadValue<Id>();
    if (in.ReadValue<int32_t>() == 1) {
      if (sequence < lastSequence_) return true;
      lastSequence_ = sequence;
    }
    if (parentEnvironment != Game::parentEnvironmentId ||
        relativeEnvironment != Game::relativeEnvironmentId) {
      return true;
    }
    std::unordered_map<Id, Id> next = links_;
    for (Id id; !(id = in.ReadValue<Id>()).IsNull();) {
      double position[3];
      float rotation[4];
      in.Read(reinterpret_cast<unsigned char*>(position), sizeof position);
      in.Read(reinterpret_cast<unsigned char*>(rotation), sizeof rotation);
      if (std::any_of(position, position + 3, [](double v) { return std::isnan(v); }) ||
          std::any_of(rotation, rotation + 4, [](float v) { return std::isnan(v); })) {
        break;
      }
      if (!Driven(id)) continue;
      // The links form a forest, so the walk up from the new parent ends (a dangling link
      // ends a chain); it meets the entity itself when the link would close a cycle.
      for (Id up = parent; !up.IsNull();) {
        if (up == id) return false;
        const auto link = next.find(up);
        up = link == next.end() ? Id{} : link->second;
      }
      next[id] = parent;
    }
    links_ = std::move(next);
    return true;
  }

  void Check() const {
    for (const fuzz::FixedEntity& fixed : fuzz::kFixedEntities) {
      const ClientSideEntity::Ptr e = ClientSideEntity::Get<ClientSideEntity>(fixed.id);
      if (e->parentId.Load() != links_.at(fixed.id)) {
        fuzz::Fail("an entity's parent is not the one its transform records named");
      }
    }
  }

 private:
  std::unordered_map<Id, Id> links_;
  uint64_t lastSequence_ = 0;
};

bool StartsWithMagic(const uint8_t* data, size_t size) {
  return size >= kMagicSize && std::memcmp(data, networking::MAGIC, kMagicSize) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::Start();
  // Server, client and socket live until the process ends; nothing waits for them.
  server = new fuzz::LoopbackServer();
  server->Arm(testlib::Welcome(), false);
  theClient = new client::Client("127.0.0.1", server->Port(), "token", "");
  stranger = new orvex::net::UdpSocket("127.0.0.1", server->Port(), 1400);
  for (const fuzz::FixedEntity& fixed : fuzz::kFixedEntities) {
    ClientSideEntity::Interface::Create(fixed.id, fixed.module, "fixed", fixed.parent,
                                        glm::dvec3(0.0), game::entity::Orientation(),
                                        ReadOnlyStream());
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int index = 0;
  for (const fuzz::FixedEntity& fixed : fuzz::kFixedEntities) {
    const ClientSideEntity::Ptr e = ClientSideEntity::Get<ClientSideEntity>(fixed.id);
    if (!e) fuzz::Fail("a fixed entity left the registry");
    e->position = glm::dvec3(++index, 0.0, 0.0);
    e->orientation = e->targetOrientation = game::entity::Orientation();
    e->parentId = fixed.parent;
    e->targetPosition = e->velocity = e->physicsExtra = glm::dvec3(0.0);
    e->updateRate = 0.0f;
    e->smooth = e->forceSnap = 0;
    e->hasTarget = e->velocityReset = e->stale = false;
  }
  Game::timestamp = 0.0;
  client::ClientTestPeer::ResetSequences(*theClient);
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
      client::ClientTestPeer::UdpMessage(*theClient, *stranger, ReadOnlyStream(piece, length));
      continue;
    }
    if (!parents.Admit(piece, length)) break;
    // As the callback hands it on: the whole datagram, positioned after the magic.
    ReadOnlyStream datagram(piece, length);
    unsigned char magic[kMagicSize];
    datagram.Read(magic, kMagicSize);
    client::ClientTestPeer::ReceiveDatagram(*theClient, std::move(datagram));
  }
  Game::RunSynchronized();
  parents.Check();
  return 0;
}
