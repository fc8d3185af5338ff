// Datagrams (the input cut before every "TOVRANE!") into one client's intake, then the passes; the
// harness stops before a datagram that would close a parent cycle and checks every parent link.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "ClientTestPeer.h"
#include "FuzzSupport.h"
#include "Game.h"
#include "Messages.h"
#include "filesystem/StreamValues.h"
#include "game/Host.h"
#include "game/Networking.h"
#include "game/entity/ClientSideEntity.h"
#include "net/UdpEndpoint.h"

namespace {

using game::entity::ClientSideEntity;
using game::entity::Id;
using orvex::filesystem::ReadOnlyStream;

constexpr size_t kMaxDatagrams = 64;
constexpr size_t kMagicSize = sizeof(networking::MAGIC);

// The ship entities take transform and physics records, the static one never does.
constexpr Id kEntityA{0x0000000141544E45ull, 0xA1}, kStatic{0x0000000541544E45ull, 0xE5};
constexpr struct {
  Id id;
  const char* module;
  Id parent;
} kFixed[] = {
    {kEntityA, fuzz::kShip, {}},
    {{0x0000000241544E45ull, 0xB2}, fuzz::kShip, kEntityA},
    {{0x0000000341544E45ull, 0xC3}, fuzz::kShip, kEntityA},
    {{0x0000000441544E45ull, 0xD4}, fuzz::kShip, {}},
    {kStatic, fuzz::kStatic, {}},
};

client::Client* theClient = nullptr;
// Never received anything: as the delivering socket its sender matches no server address.
orvex::net::UdpSocket* stranger = nullptr;

// The parent links as the datagrams so far leave them: every record the pass applies (after the
// sequence, environment, end-of-list and NaN rules) leaves its entity under the header's parent.
struct Parents {
  std::unordered_map<Id, Id> links;
  uint64_t lastSequence = 0;

  // Takes in a datagram that starts with the magic; false (and no change) if it closes a cycle.
  bool Admit(const uint8_t* data, size_t size) {
    if (size <= kMagicSize || data[kMagicSize] != networking::MSG_TRANSFORMS) return true;
    // The client reads a cut datagram as zeros past its end; so does this reader.
    ReadOnlyStream in(data, size);
    wire::Reader reader = wire::Reader::ZeroFilling(in);
    wire::Transforms transforms;
    Serialize(reader, transforms);
    const wire::StateHeader& header = transforms.header;
    if (header.divisor == 1) {
      if (header.sequence < lastSequence) return true;
      lastSequence = header.sequence;
    }
    if (header.parentEnvironment != Game::parentEnvironmentId ||
        header.relativeEnvironment != Game::relativeEnvironmentId) {
      return true;
    }
    const Id parent = transforms.parent;
    std::unordered_map<Id, Id> next = links;
    for (const wire::TransformRecord& record : transforms.records) {
      const Id id = record.id;
      const double position[] = {record.position.x, record.position.y, record.position.z};
      const float* rotation = record.orientation;
      if (std::any_of(position, position + 3, [](double v) { return std::isnan(v); }) ||
          std::any_of(rotation, rotation + 4, [](float v) { return std::isnan(v); })) {
        break;
      }
      if (next.count(id) == 0 || id == kStatic) continue;
      // The links form a forest, so the walk up from the new parent ends (a dangling link ends a
      // chain); it meets the entity itself when the link would close a cycle.
      for (Id up = parent; !up.IsNull();) {
        if (up == id) return false;
        const auto link = next.find(up);
        up = link == next.end() ? Id{} : link->second;
      }
      next[id] = parent;
    }
    links = std::move(next);
    return true;
  }
};

bool StartsWithMagic(const uint8_t* data, size_t size) {
  return size >= kMagicSize && std::memcmp(data, networking::MAGIC, kMagicSize) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  theClient = &fuzz::ConnectedClient(testlib::Welcome());
  stranger = new orvex::net::UdpSocket("127.0.0.1", 9, wire::kMaxDatagram);
  for (const auto& fixed : kFixed) {
    ClientSideEntity::Interface::Create(fixed.id, fixed.module, "fixed", fixed.parent,
                                        glm::dvec3(0.0), game::entity::Orientation(),
                                        ReadOnlyStream());
  }
  return 0;
}

// The fixed entities are put back, not created again: creation costs far more than the datagrams.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Parents parents;
  for (const auto& fixed : kFixed) {
    const ClientSideEntity::Ptr e = ClientSideEntity::Get<ClientSideEntity>(fixed.id);
    if (!e) fuzz::Fail("a fixed entity left the registry");
    e->position = glm::dvec3(&fixed - kFixed + 1, 0.0, 0.0);
    e->orientation = e->targetOrientation = game::entity::Orientation();
    e->parentId = parents.links[fixed.id] = fixed.parent;
    e->targetPosition = e->velocity = e->physicsExtra = glm::dvec3(0.0);
    e->updateRate = 0.0f, e->smooth = e->forceSnap = 0;
    e->hasTarget = e->velocityReset = e->stale = false;
  }
  Game::timestamp = 0.0;
  client::ClientTestPeer::ResetSequences(*theClient);

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
  orvex::engine::RunSynchronized();
  for (const auto& fixed : kFixed) {
    if (ClientSideEntity::Get<ClientSideEntity>(fixed.id)->parentId.Load() !=
        parents.links.at(fixed.id)) {
      fuzz::Fail("an entity's parent is not the one its transform records named");
    }
  }
  return 0;
}
