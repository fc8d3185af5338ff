// One builder per message and datagram, both directions, each the codec's (protocol/Wire.h)
// bytes for a message the test describes in a line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "game/entity/Id.h"
#include "protocol/Wire.h"

namespace testlib {

using wire::Bytes;

// The first `length` bytes of `whole`.
inline Bytes Prefix(const Bytes& whole, size_t length) {
  return Bytes(whole.begin(), whole.begin() + static_cast<long>(length));
}

// What DefaultWelcome() gives the client for its datagram header.
inline constexpr uint16_t kNetworkingVersion = 1;
inline constexpr uint16_t kServerTag = 0x0A0B;
inline constexpr uint64_t kPlayerId = 0x1122334455667788ull;

// A welcome with player "pilot", no mods, mode 3 and the configuration "gravity=9.81".
wire::Welcome DefaultWelcome();
// An id whose two words are both non-zero.
game::entity::Id EntityId(uint64_t n);

// Server to client, TCP.
Bytes Welcome(const wire::Welcome& welcome = DefaultWelcome());
Bytes Refusal(const std::string& reason);
Bytes Create(const wire::EntityCreate& message);
Bytes Update(const wire::EntityUpdate& message);
Bytes Move(const wire::EntityMove& message);
Bytes Destroy(const game::entity::Id& id);
Bytes World(const std::string& name);
Bytes Admin(const std::string& privilege, uint8_t admin);
Bytes ModuleMessage(const std::string& module, const Bytes& payload);
Bytes Disconnect();

// Client to server; the hello carries a password marker and password when one is given.
Bytes Hello(const std::string& token, const std::optional<std::string>& password = {});
Bytes ClientDatagramHeader(uint16_t version = kNetworkingVersion, uint16_t tag = kServerTag,
                           uint64_t player = kPlayerId);
Bytes KeepAliveDatagram();
Bytes ModuleRecord(const std::string& module, const Bytes& payload);
Bytes ClientModuleDatagram(const std::string& module, const Bytes& payload);
Bytes ActionRecord(const game::entity::Id& id, const Bytes& payload);

}  // namespace testlib
