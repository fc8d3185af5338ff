// The server's side of every message on the wire, each written once and read once.
//
// Encodings (the platform stream's, the same at both ends):
//   - integers and floats: the raw little-endian bytes of the fixed-width value;
//   - string:          u32 byte count, then the bytes;
//   - embedded stream: u32 byte count, then the bytes;
//   - Id, ModuleID:    16 bytes each, two little-endian u64 words in memory order;
//   - vec3:            three f64 x, y, z; Orientation: four f64 w, x, y, z.
// TCP messages carry no length prefix: a code byte, then the fields the code prescribes.
// Datagrams from the server start with the magic "TOVRANE!"; datagrams from the client
// start with a 13-byte header and carry no magic.
//
// Trust boundary: the readers below take client bytes. They never read outside the bytes
// they hold, check every count against what is present and against a cap before they
// allocate, and report malformed input as a one-line std::runtime_error (stream readers)
// or std::nullopt (datagram parser).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <glm/vec3.hpp>

#include "filesystem/StreamValues.h"
#include "game/entity/Id.h"
#include "net/TcpConnection.h"
#include "orvex/filesystem/Stream.h"
#include "orvex/modular/ModuleID.h"

namespace orvex::net {
class TcpConnection;
}

namespace wire {

using Bytes = std::vector<uint8_t>;
using game::entity::Id;
using game::entity::Orientation;
using orvex::filesystem::Stream;
using orvex::modular::ModuleID;

// The largest datagram either side sends.
inline constexpr size_t kMaxDatagram = 1400;
// The client's datagram header: lead byte, u16 networking version, u16 server tag, u64 player id.
inline constexpr size_t kClientHeaderSize = 13;
// Magic, code, f64 time, u64 sequence, u64 parent environment, u64 relative environment,
// [Id parent,] i32 divisor.
inline constexpr size_t kTransformsHeaderSize = 8 + 1 + 8 + 8 + 8 + 8 + 16 + 4;
inline constexpr size_t kPhysicsHeaderSize = 8 + 1 + 8 + 8 + 8 + 8 + 4;
inline constexpr size_t kTransformRecordSize = 56;
inline constexpr size_t kPhysicsRecordSize = 64;
inline constexpr size_t kEndMarkerSize = 16;
// Caps on what a client may send: the hello's token and password, and any embedded payload.
inline constexpr uint32_t kMaxTokenSize = 64;
inline constexpr uint32_t kMaxPasswordSize = 1024;
inline constexpr uint32_t kMaxPayloadSize = orvex::filesystem::kMaxBlockSize;

// Thrown by the stream readers when a ReadOnlyStream ends inside a message: the bytes
// seen so far are a prefix of a message, so a caller that buffers may wait for more.
struct Truncated : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// ---------------------------------------------------------------------------------------
// Server to client, TCP.

// Welcome, accepted: u8 1, u16 networking version, u16 server tag, u64 player id,
// string user name, one string per mod, an empty string, i32 game mode,
// u32 N, N raw bytes of configuration text (N counts the text's terminating zero).
struct Welcome {
  uint16_t networkingVersion = 1;
  uint16_t serverTag = 0;
  uint64_t playerId = 0;
  std::string username;
  std::vector<std::string> mods;
  int32_t mode = 0;
  std::vector<char> config;
};
void WriteWelcome(Stream& out, const Welcome& welcome);
// Welcome, refused: u8 0, string reason.
void WriteRefusal(Stream& out, const std::string& reason);
// The configuration bytes for `text`: the text and its terminating zero.
std::vector<char> ConfigText(const std::string& text);

// 0x40: Id entity, ModuleID, string interface text, Id parent, vec3 position,
// Orientation, u8 smooth, u8 forceSnap, embedded stream data.
struct EntityCreate {
  Id id;
  ModuleID module;
  std::string text;
  Id parent;
  glm::dvec3 position{};
  Orientation orientation;
  uint8_t smooth = 0, forceSnap = 0;
  Bytes data;
};
void WriteEntityCreate(Stream& out, const EntityCreate& message);

// 0x42: Id entity, Id (ignored by the client), vec3 position, Orientation, u8 smooth,
// u8 forceSnap, embedded stream data.
struct EntityUpdate {
  Id id;
  Id ignored;
  glm::dvec3 position{};
  Orientation orientation;
  uint8_t smooth = 0, forceSnap = 0;
  Bytes data;
};
void WriteEntityUpdate(Stream& out, const EntityUpdate& message);

// 0x46: Id entity, u8 smooth, vec3 position, Orientation. The flag comes BEFORE the
// position, unlike create and update.
struct EntityMove {
  Id id;
  uint8_t smooth = 0;
  glm::dvec3 position{};
  Orientation orientation;
};
void WriteEntityMove(Stream& out, const EntityMove& message);

// 0x41: Id entity.
void WriteEntityDestroy(Stream& out, const Id& id);
// 0x04: string world name.
void WriteWorld(Stream& out, const std::string& world);
// 0x05: string privilege text, u8 admin flag.
void WriteAdminStatus(Stream& out, const std::string& privilege, uint8_t admin);
// 0x7F: ModuleID, embedded stream payload.
void WriteModuleMessage(Stream& out, const ModuleID& module, const Bytes& payload);
// 0x02, no fields.
void WriteDisconnect(Stream& out);

// ---------------------------------------------------------------------------------------
// Server to client, datagrams.

struct StateHeader {
  double serverTime = 0;
  uint64_t sequence = 0;
  uint64_t parentEnvironment = 0;
  uint64_t relativeEnvironment = 0;
  int32_t divisor = 1;
};

// 56 bytes: Id, three f64 position, four f32 orientation w, x, y, z.
struct TransformRecord {
  Id id;
  glm::dvec3 position{};
  float orientation[4] = {1, 0, 0, 0};  // w, x, y, z
};

// 64 bytes: Id, three f64 velocity, three f64 second vector.
struct PhysicsRecord {
  Id id;
  glm::dvec3 velocity{}, extra{};
};

// "TOVRANE!", 0x44, f64 time, u64 sequence, u64 parent environment, u64 relative
// environment, Id parent, i32 divisor, the records, then (endMarker) a zero Id.
Bytes TransformsDatagram(const StateHeader& header, const Id& parent,
                         const std::vector<TransformRecord>& records, bool endMarker = true);
// "TOVRANE!", 0x45, the same header without the parent Id, the records, then (endMarker)
// a zero Id.
Bytes PhysicsDatagram(const StateHeader& header, const std::vector<PhysicsRecord>& records,
                      bool endMarker = true);
// "TOVRANE!", 0x7F, ModuleID, embedded stream payload.
Bytes ModuleDatagram(const ModuleID& module, const Bytes& payload);

// How many records of a state datagram (code 0x44 or 0x45) fit, end marker included,
// into a datagram of `limit` bytes. Throws std::invalid_argument for another code.
size_t MaxRecordsPerDatagram(uint8_t code, size_t limit = kMaxDatagram);

// ---------------------------------------------------------------------------------------
// Client to server.

// Hello: u8 lead (7), 8 bytes magic, u32 version (1), string token (at most 64 bytes),
// then optionally u8 0x06 and string password, sent in the same flush as the token.
// The reader returns the fields as they came; judging them is the caller's.
struct Hello {
  uint8_t lead = 0;
  std::string magic;
  uint32_t version = 0;
  std::string token;
  bool hasPassword = false;
  std::string password;
};
// Reads a hello from a connection. After the token, a password marker is looked for among
// the bytes already waiting or arriving within `passwordWaitMs`. A token count above 64,
// a password above kMaxPasswordSize, or a byte other than 0x06 after the token throws.
Hello ReadHello(orvex::net::TcpConnection& tcp, int passwordWaitMs);
// The same layout over bytes already received. Returns the hello and sets `consumed` when
// the bytes hold at least the token; std::nullopt when they end earlier (or inside the
// password). A hello without password whose bytes end after the token is complete: a
// caller expecting a password must wait and parse again. Bad counts throw as above.
std::optional<Hello> ParseHello(const uint8_t* data, size_t size, size_t& consumed);

// One client TCP message: 0x03 keep-alive and 0x02 disconnect (no fields); 0x43 entity
// action (Id entity, embedded stream payload); 0x7F module message (ModuleID, embedded
// stream payload). `entity` and `module` are zero where the code has none.
struct ClientMessage {
  uint8_t code = 0;
  Id entity;
  ModuleID module;
  Bytes payload;
};
// Reads one message. Any other code throws std::runtime_error naming it. On a
// ReadOnlyStream a message cut short throws Truncated; on a socket a payload count above
// kMaxPayloadSize throws before anything is allocated.
ClientMessage ReadClientMessage(Stream& in);

// A client datagram: the 13-byte header, then one or more messages, each a keep-alive
// (0x03) or a module record (0x7F, ModuleID, embedded stream). `messages` holds them in
// order (keep-alives as ClientMessage{0x03}).
struct ClientDatagram {
  uint8_t lead = 0;
  uint16_t networkingVersion = 0;
  uint16_t serverTag = 0;
  uint64_t playerId = 0;
  std::vector<ClientMessage> messages;
};
// Structural parse: std::nullopt for a short header, no message, an unknown code or a
// record cut short. The lead byte and version are returned, not judged.
std::optional<ClientDatagram> ParseClientDatagram(const uint8_t* data, size_t size);

// Hand-made byte strings for tests and tools: each call appends the encoding of a value.
class ByteWriter {
 public:
  ByteWriter& U8(uint8_t v) { return Raw(&v, 1); }
  ByteWriter& U16(uint16_t v) { return Raw(&v, 2); }
  ByteWriter& U32(uint32_t v) { return Raw(&v, 4); }
  ByteWriter& I32(int32_t v) { return Raw(&v, 4); }
  ByteWriter& U64(uint64_t v) { return Raw(&v, 8); }
  ByteWriter& F32(float v) { return Raw(&v, 4); }
  ByteWriter& F64(double v) { return Raw(&v, 8); }
  ByteWriter& Entity(const Id& id) { return U64(id.word0).U64(id.word1); }
  ByteWriter& Module(const ModuleID& m) { return U64(m.prefix).U64(m.name); }
  ByteWriter& Vec3(const glm::dvec3& v) { return F64(v.x).F64(v.y).F64(v.z); }
  ByteWriter& Quat(const Orientation& q) { return F64(q.w).F64(q.x).F64(q.y).F64(q.z); }
  ByteWriter& Text(const std::string& s);   // u32 count, bytes
  ByteWriter& Block(const Bytes& b);        // u32 count, bytes
  ByteWriter& Chars(const std::string& s);  // the bytes alone
  ByteWriter& Append(const Bytes& b);
  ByteWriter& Raw(const void* data, size_t size);

  const Bytes& bytes() const { return bytes_; }
  operator Bytes() const { return bytes_; }

 private:
  Bytes bytes_;
};

// The bytes that `write` puts into a fresh stream, e.g. Encode([](Stream& s) { WriteWorld(s,
// "arena"); }).
Bytes Encode(const std::function<void(Stream&)>& write);

// The parts one after the other.
Bytes Join(std::initializer_list<Bytes> parts);

}  // namespace wire
