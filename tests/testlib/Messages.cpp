#include "Messages.h"

namespace testlib {

using wire::ToBytes;

wire::Welcome DefaultWelcome() {
  return {
      kNetworkingVersion, kServerTag, kPlayerId, "pilot", {}, 3, wire::ConfigText("gravity=9.81")};
}

game::entity::Id EntityId(uint64_t n) {
  return game::entity::Id{n, 0xE0000000u + n};
}

Bytes Welcome(const wire::Welcome& welcome) {
  return ToBytes(welcome);
}
Bytes Refusal(const std::string& reason) {
  return ToBytes(wire::Refusal{reason});
}
Bytes Create(const wire::EntityCreate& message) {
  return ToBytes(message);
}
Bytes Update(const wire::EntityUpdate& message) {
  return ToBytes(message);
}
Bytes Move(const wire::EntityMove& message) {
  return ToBytes(message);
}
Bytes Destroy(const game::entity::Id& id) {
  return ToBytes(wire::EntityDestroy{id});
}
Bytes World(const std::string& name) {
  return ToBytes(wire::World{name});
}
Bytes Admin(const std::string& privilege, uint8_t admin) {
  return ToBytes(wire::AdminStatus{privilege, admin});
}
Bytes ModuleMessage(const std::string& module, const Bytes& payload) {
  return ToBytes(wire::ModuleMessage{wire::ModuleID(module), payload});
}
Bytes Disconnect() {
  return ToBytes(wire::Disconnect{});
}

Bytes Hello(const std::string& token, const std::optional<std::string>& password) {
  wire::Hello hello;
  hello.token = token;
  hello.hasPassword = password.has_value();
  hello.password = password.value_or("");
  return ToBytes(hello);
}

Bytes ClientDatagramHeader(uint16_t version, uint16_t tag, uint64_t player) {
  return ToBytes(wire::ClientDatagram{LEAD_BYTE, version, tag, player, {}});
}

Bytes KeepAliveDatagram() {
  return ToBytes(wire::ClientDatagram{LEAD_BYTE,
                                      kNetworkingVersion,
                                      kServerTag,
                                      kPlayerId,
                                      {{networking::MSG_KEEPALIVE, {}, {}, {}}}});
}

Bytes ModuleRecord(const std::string& module, const Bytes& payload) {
  return ToBytes(
      wire::ClientMessage{networking::MSG_FOR_MODULE, {}, wire::ModuleID(module), payload});
}

Bytes ClientModuleDatagram(const std::string& module, const Bytes& payload) {
  return wire::Join({ClientDatagramHeader(), ModuleRecord(module, payload)});
}

Bytes ActionRecord(const game::entity::Id& id, const Bytes& payload) {
  return ToBytes(wire::ClientMessage{networking::MSG_ENTITY_ACTION, id, {}, payload});
}

}  // namespace testlib
