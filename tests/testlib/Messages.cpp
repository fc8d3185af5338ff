#include "Messages.h"

namespace testlib {

using orvex::filesystem::Stream;
using wire::ByteWriter;
using wire::Encode;

wire::Welcome DefaultWelcome() {
  wire::Welcome welcome;
  welcome.networkingVersion = kNetworkingVersion;
  welcome.serverTag = kServerTag;
  welcome.playerId = kPlayerId;
  welcome.username = "pilot";
  welcome.mode = 3;
  welcome.config = wire::ConfigText("gravity=9.81");
  return welcome;
}

game::entity::Id EntityId(uint64_t n) {
  return game::entity::Id{n, 0xE0000000u + n};
}

Bytes Welcome(const wire::Welcome& welcome) {
  return Encode([&](Stream& s) { wire::WriteWelcome(s, welcome); });
}
Bytes Refusal(const std::string& reason) {
  return Encode([&](Stream& s) { wire::WriteRefusal(s, reason); });
}
Bytes Create(const wire::EntityCreate& message) {
  return Encode([&](Stream& s) { wire::WriteEntityCreate(s, message); });
}
Bytes Update(const wire::EntityUpdate& message) {
  return Encode([&](Stream& s) { wire::WriteEntityUpdate(s, message); });
}
Bytes Move(const wire::EntityMove& message) {
  return Encode([&](Stream& s) { wire::WriteEntityMove(s, message); });
}
Bytes Destroy(const game::entity::Id& id) {
  return Encode([&](Stream& s) { wire::WriteEntityDestroy(s, id); });
}
Bytes World(const std::string& name) {
  return Encode([&](Stream& s) { wire::WriteWorld(s, name); });
}
Bytes Admin(const std::string& privilege, uint8_t admin) {
  return Encode([&](Stream& s) { wire::WriteAdminStatus(s, privilege, admin); });
}
Bytes ModuleMessage(const std::string& module, const Bytes& payload) {
  return Encode([&](Stream& s) { wire::WriteModuleMessage(s, wire::ModuleID(module), payload); });
}
Bytes Disconnect() {
  return Encode([](Stream& s) { wire::WriteDisconnect(s); });
}

Bytes Hello(const std::string& token, const std::optional<std::string>& password) {
  ByteWriter w;
  w.U8(7).Chars("TOVRANE!").U32(1).Text(token);
  if (password) w.U8(6).Text(*password);
  return w;
}

Bytes ClientDatagramHeader(uint16_t version, uint16_t tag, uint64_t player) {
  return ByteWriter().U8(0x07).U16(version).U16(tag).U64(player);
}

Bytes KeepAliveDatagram() {
  return ByteWriter().Append(ClientDatagramHeader()).U8(0x03);
}

Bytes ModuleRecord(const std::string& module, const Bytes& payload) {
  return ByteWriter().U8(0x7F).Module(wire::ModuleID(module)).Block(payload);
}

Bytes ClientModuleDatagram(const std::string& module, const Bytes& payload) {
  return ByteWriter().Append(ClientDatagramHeader()).Append(ModuleRecord(module, payload));
}

Bytes ActionRecord(const game::entity::Id& id, const Bytes& payload) {
  return ByteWriter().U8(0x43).Entity(id).Block(payload);
}

}  // namespace testlib
