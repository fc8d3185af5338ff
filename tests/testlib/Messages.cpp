#include "Messages.h"

namespace testlib {

using orvex::filesystem::Stream;
using wire::ByteWriter;
using wire::Encode;

wire::Welcome DefaultWelcome() {
  return {
      kNetworkingVersion, kServerTag, kPlayerId, "pilot", {}, 3, wire::ConfigText("gravity=9.81")};
}

game::entity::Id EntityId(uint64_t n) {
  return game::entity::Id{n, 0xE0000000u + n};
}

// Each server form runs the server's own writer on a fresh stream.
#define SERVER_FORM(name, params, ...)              \
  Bytes name params {                               \
    return Encode([&](Stream& s) { __VA_ARGS__; }); \
  }
SERVER_FORM(Welcome, (const wire::Welcome& welcome), wire::WriteWelcome(s, welcome))
SERVER_FORM(Refusal, (const std::string& reason), wire::WriteRefusal(s, reason))
SERVER_FORM(Create, (const wire::EntityCreate& message), wire::WriteEntityCreate(s, message))
SERVER_FORM(Update, (const wire::EntityUpdate& message), wire::WriteEntityUpdate(s, message))
SERVER_FORM(Move, (const wire::EntityMove& message), wire::WriteEntityMove(s, message))
SERVER_FORM(Destroy, (const game::entity::Id& id), wire::WriteEntityDestroy(s, id))
SERVER_FORM(World, (const std::string& name), wire::WriteWorld(s, name))
SERVER_FORM(Admin, (const std::string& privilege, uint8_t admin),
            wire::WriteAdminStatus(s, privilege, admin))
SERVER_FORM(ModuleMessage, (const std::string& module, const Bytes& payload),
            wire::WriteModuleMessage(s, wire::ModuleID(module), payload))
SERVER_FORM(Disconnect, (), wire::WriteDisconnect(s))
#undef SERVER_FORM

Bytes Hello(const std::string& token, const std::optional<std::string>& password) {
  ByteWriter w = ByteWriter().U8(7).Chars("TOVRANE!").U32(1).Text(token);
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
