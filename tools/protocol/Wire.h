// The wire codec for everything outside the module: the server, the replay server, the
// capture writer, the test support and the fuzzers. Each message's layout is written once,
// as a Serialize function over a stream: the same function reads (Reader) and writes
// (Writer), so the two directions cannot drift. docs/protocol.md is the same layout as a
// document.
//
// Encodings (the platform stream's, the same at both ends):
//   - integers and floats: the raw little-endian bytes of the fixed-width value;
//   - string:          u32 byte count, then the bytes;
//   - embedded stream: u32 byte count, then the bytes;
//   - Id, ModuleID:    16 bytes each, two little-endian u64 words in memory order;
//   - vec3:            three f64 x, y, z; Orientation: four f64 w, x, y, z.
// TCP messages carry no length prefix: a code byte, then the fields the code prescribes.
// Datagrams from the server start with the magic "TOVRANE!"; datagrams from the client
// start with a 13-byte header and carry no magic. The codes, the lead byte and the magic are
// the platform's (game/Networking.h); the sizes and caps are below.
//
// Trust boundary: the Reader takes client bytes. It never reads outside the bytes it holds,
// checks every count against what is present and against a cap before it allocates, and
// reports malformed input as a one-line std::runtime_error (Truncated when a bounded stream
// ends inside a message).
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

#include "client/Limits.h"
#include "filesystem/StreamValues.h"
#include "game/Networking.h"
#include "game/entity/Id.h"
#include "net/TcpConnection.h"
#include "orvex/filesystem/Stream.h"
#include "orvex/modular/ModuleID.h"

namespace orvex::net {
class TcpSocket;
}

namespace wire {

using Bytes = std::vector<uint8_t>;
using game::entity::Id;
using game::entity::Orientation;
using orvex::filesystem::Stream;
using orvex::modular::ModuleID;

// The sizes the module shares (client/Limits.h), under the codec's names.
inline constexpr size_t kMaxDatagram = client::limits::kDatagramCapacity;
// The hello up to its token: lead byte, 8 bytes magic, u32 version.
inline constexpr size_t kHelloHeaderSize = 1 + 8 + 4;
inline constexpr size_t kClientHeaderSize = client::limits::kDatagramHeaderSize;
// Magic, code, f64 time, u64 sequence, u64 parent environment, u64 relative environment,
// [Id parent,] i32 divisor.
inline constexpr size_t kTransformsHeaderSize = 8 + 1 + 8 + 8 + 8 + 8 + 16 + 4;
inline constexpr size_t kPhysicsHeaderSize = 8 + 1 + 8 + 8 + 8 + 8 + 4;
inline constexpr size_t kTransformRecordSize = client::limits::kTransformRecordSize;
inline constexpr size_t kPhysicsRecordSize = client::limits::kPhysicsRecordSize;
inline constexpr size_t kEndMarkerSize = 16;
// Caps on what a client may send: the hello's token and password, and any embedded payload.
inline constexpr uint32_t kMaxTokenSize = client::limits::kTokenLimit;
inline constexpr uint32_t kMaxPasswordSize = 1024;
inline constexpr uint32_t kMaxPayloadSize = orvex::filesystem::kMaxBlockSize;

// Thrown by the Reader when a bounded stream ends inside a message: the bytes seen so far
// are a prefix of a message, so a caller that buffers may wait for more.
struct Truncated : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// ---------------------------------------------------------------------------------------
// The two streams. Both offer the same operations on references; Serialize functions call
// them without knowing the direction, and test S::kReading only where the layout itself
// depends on what is read (lists that end on a marker, the optional password).

class Writer {
 public:
  static constexpr bool kReading = false;
  explicit Writer(Stream& out) : out_(out) {}

  template <typename T>
  void Value(T& value, const char* = "") {
    WriteValue(out_, value);
  }
  void Raw(void* data, size_t size, const char* = "") {
    out_.Write(static_cast<const unsigned char*>(data), size);
  }
  // u32 count, then the bytes.
  template <typename Container>
  void Block(Container& bytes, uint32_t = 0, const char* = "") {
    const auto count = static_cast<uint32_t>(bytes.size());
    WriteValue(out_, count);
    out_.Write(reinterpret_cast<const unsigned char*>(bytes.data()), count);
  }
  // Writes `byte` when `present`; returns `present`.
  bool Optional(bool present, uint8_t& byte) {
    if (present) Value(byte);
    return present;
  }
  bool AtEnd() const { return true; }

 private:
  Stream& out_;
};

// Reads from a ReadOnlyStream (bounded: a short message is Truncated, never zero-filled) or
// a socket (reads block until their bytes arrive; block counts are capped before memory
// follows them).
class Reader {
 public:
  static constexpr bool kReading = true;
  // `optionalWaitMs`: how long Optional waits on a socket for a byte not yet arrived.
  explicit Reader(Stream& in, int optionalWaitMs = 0);
  // A reader that reads as the module's own reader does: past the end of a bounded stream a
  // value is zeros and a block is what is present, never an error (a model of the client).
  static Reader ZeroFilling(orvex::filesystem::ReadOnlyStream& in);

  template <typename T>
  void Value(T& value, const char* what = "message") {
    Need(sizeof(T), what);
    value = ReadValue<T>(in_);
  }
  void Raw(void* data, size_t size, const char* what = "message") {
    Need(size, what);
    in_.Read(static_cast<unsigned char*>(data), size);
  }
  // u32 count, then the bytes; a count above `limit` throws before anything is allocated.
  template <typename Container>
  void Block(Container& bytes, uint32_t limit, const char* what) {
    const Bytes block = ReadBlock(limit, what);
    bytes.assign(block.begin(), block.end());
  }
  // Whether one more byte follows (a bounded stream holds one, a socket delivers one within
  // the wait); reads it into `byte`.
  bool Optional(bool, uint8_t& byte);
  // A bounded stream with nothing left; a socket never is.
  bool AtEnd() const { return bounded_ != nullptr && bounded_->GetBufferSize() == 0; }

 private:
  void Need(size_t n, const char* what) const;
  Bytes ReadBlock(uint32_t limit, const char* what);

  Stream& in_;
  orvex::filesystem::ReadOnlyStream* bounded_;
  int optionalWaitMs_;
  bool zeroFill_ = false;
};

// ---------------------------------------------------------------------------------------
// Fields that several messages share.

template <typename S>
void Serialize(S& s, Id& id) {
  s.Value(id.word0, "entity id");
  s.Value(id.word1, "entity id");
}
template <typename S>
void Serialize(S& s, ModuleID& module) {
  s.Value(module.prefix, "module id");
  s.Value(module.name, "module id");
}
template <typename S>
void Serialize(S& s, glm::dvec3& v) {
  s.Value(v.x);
  s.Value(v.y);
  s.Value(v.z);
}
template <typename S>
void Serialize(S& s, Orientation& q) {
  s.Value(q.w);
  s.Value(q.x);
  s.Value(q.y);
  s.Value(q.z);
}
// A string as the platform writes it; strings from the client are capped by the caller.
template <typename S>
void Text(S& s, std::string& text, uint32_t limit = kMaxPayloadSize, const char* what = "string") {
  s.Block(text, limit, what);
}

// The code byte that opens a message. A reader that finds another code throws.
void CheckCode(uint8_t expected, uint8_t found);
template <typename S>
void Code(S& s, uint8_t code) {
  uint8_t found = code;
  s.Value(found, "message code");
  CheckCode(code, found);
}
// The magic that opens every datagram from the server.
void CheckMagic(const char (&found)[sizeof networking::MAGIC]);
template <typename S>
void Magic(S& s) {
  char magic[sizeof networking::MAGIC];
  std::copy(std::begin(networking::MAGIC), std::end(networking::MAGIC), magic);
  s.Raw(magic, sizeof magic, "magic");
  CheckMagic(magic);
}

// ---------------------------------------------------------------------------------------
// Server to client, TCP.

// Welcome, accepted: u8 1, u16 networking version, u16 server tag, u64 player id,
// string user name, one string per mod, an empty string, i32 game mode,
// u32 N, N raw bytes of configuration text (N counts the text's terminating zero).
struct Welcome {
  uint16_t networkingVersion = networking::NETWORKING_VERSION;
  uint16_t serverTag = 0;
  uint64_t playerId = 0;
  std::string username;
  std::vector<std::string> mods;
  int32_t mode = 0;
  std::vector<char> config;
};
template <typename S>
void Serialize(S& s, Welcome& m) {
  Code(s, 1);
  s.Value(m.networkingVersion);
  s.Value(m.serverTag);
  s.Value(m.playerId);
  Text(s, m.username);
  if constexpr (S::kReading) {
    for (std::string mod; Text(s, mod), !mod.empty();) m.mods.push_back(mod);
  } else {
    for (std::string& mod : m.mods) Text(s, mod);
    std::string end;
    Text(s, end);
  }
  s.Value(m.mode);
  s.Block(m.config, kMaxPayloadSize, "configuration");
}
// The configuration bytes for `text`: the text and its terminating zero.
std::vector<char> ConfigText(const std::string& text);

// Welcome, refused: u8 0, string reason.
struct Refusal {
  std::string reason;
};
template <typename S>
void Serialize(S& s, Refusal& m) {
  Code(s, 0);
  Text(s, m.reason);
}

// What create and update share after their ids: vec3 position, Orientation, u8 smooth,
// u8 forceSnap, embedded stream data.
template <typename S, typename Message>
void SerializePlacement(S& s, Message& m) {
  Serialize(s, m.position);
  Serialize(s, m.orientation);
  s.Value(m.smooth);
  s.Value(m.forceSnap);
  s.Block(m.data, kMaxPayloadSize, "entity data");
}

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
template <typename S>
void Serialize(S& s, EntityCreate& m) {
  Code(s, networking::MSG_ENTITY_CREATE);
  Serialize(s, m.id);
  Serialize(s, m.module);
  Text(s, m.text);
  Serialize(s, m.parent);
  SerializePlacement(s, m);
}

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
template <typename S>
void Serialize(S& s, EntityUpdate& m) {
  Code(s, networking::MSG_ENTITY_UPDATE);
  Serialize(s, m.id);
  Serialize(s, m.ignored);
  SerializePlacement(s, m);
}

// 0x46: Id entity, u8 smooth, vec3 position, Orientation. The flag comes BEFORE the
// position, unlike create and update.
struct EntityMove {
  Id id;
  uint8_t smooth = 0;
  glm::dvec3 position{};
  Orientation orientation;
};
template <typename S>
void Serialize(S& s, EntityMove& m) {
  Code(s, networking::MSG_ENTITY_MOVE);
  Serialize(s, m.id);
  s.Value(m.smooth);
  Serialize(s, m.position);
  Serialize(s, m.orientation);
}

// 0x41: Id entity.
struct EntityDestroy {
  Id id;
};
template <typename S>
void Serialize(S& s, EntityDestroy& m) {
  Code(s, networking::MSG_ENTITY_DESTROY);
  Serialize(s, m.id);
}

// 0x04: string world name.
struct World {
  std::string name;
};
template <typename S>
void Serialize(S& s, World& m) {
  Code(s, networking::MSG_WORLD);
  Text(s, m.name);
}

// 0x05: string privilege text, u8 admin flag.
struct AdminStatus {
  std::string privilege;
  uint8_t admin = 0;
};
template <typename S>
void Serialize(S& s, AdminStatus& m) {
  Code(s, networking::MSG_ADMIN_STATUS);
  Text(s, m.privilege);
  s.Value(m.admin);
}

// 0x7F: ModuleID, embedded stream payload.
struct ModuleMessage {
  ModuleID module;
  Bytes payload;
};
template <typename S>
void Serialize(S& s, ModuleMessage& m) {
  Code(s, networking::MSG_FOR_MODULE);
  Serialize(s, m.module);
  s.Block(m.payload, kMaxPayloadSize, "module message payload");
}

// 0x02, no fields.
struct Disconnect {};
template <typename S>
void Serialize(S& s, Disconnect&) {
  Code(s, networking::MSG_DISCONNECT);
}

// One server-to-client TCP message after the welcome, read as the client reads it: the code,
// then the fields that code prescribes; any code the client does not know is the code
// alone. `entity` is the message's entity for a create, destroy, update or move (null
// otherwise), `module` the created entity's module. Throws as the Reader does.
struct ServerMessage {
  uint8_t code = 0;
  Id entity;
  ModuleID module;
};
ServerMessage ReadServerMessage(orvex::filesystem::ReadOnlyStream& in);

// ---------------------------------------------------------------------------------------
// Server to client, datagrams.

struct StateHeader {
  double serverTime = 0;
  uint64_t sequence = 0;
  uint64_t parentEnvironment = 0;
  uint64_t relativeEnvironment = 0;
  int32_t divisor = 1;
};
// f64 time, u64 sequence, u64 parent environment, u64 relative environment (the divisor
// comes later, after the transforms' parent).
template <typename S>
void Serialize(S& s, StateHeader& m) {
  s.Value(m.serverTime);
  s.Value(m.sequence);
  s.Value(m.parentEnvironment);
  s.Value(m.relativeEnvironment);
}

// 56 bytes: Id, three f64 position, four f32 orientation w, x, y, z.
struct TransformRecord {
  Id id;
  glm::dvec3 position{};
  float orientation[4] = {1, 0, 0, 0};  // w, x, y, z
};
template <typename S>
void SerializeBody(S& s, TransformRecord& m) {
  Serialize(s, m.position);
  for (float& f : m.orientation) s.Value(f);
}

// 64 bytes: Id, three f64 velocity, three f64 second vector.
struct PhysicsRecord {
  Id id;
  glm::dvec3 velocity{}, extra{};
};
template <typename S>
void SerializeBody(S& s, PhysicsRecord& m) {
  Serialize(s, m.velocity);
  Serialize(s, m.extra);
}

// Records, each opening with its entity id, then (endMarker) a zero Id. A reader stops, as
// the client does, at a null id (either word zero) or at the end of the datagram.
template <typename S, typename Record>
void Records(S& s, std::vector<Record>& records, bool& endMarker) {
  if constexpr (S::kReading) {
    endMarker = false;
    while (!s.AtEnd()) {
      Record r;
      Serialize(s, r.id);
      if (r.id.IsNull()) {
        endMarker = true;
        break;
      }
      SerializeBody(s, r);
      records.push_back(r);
    }
  } else {
    for (Record& r : records) {
      Serialize(s, r.id);
      SerializeBody(s, r);
    }
    Id zero;
    if (endMarker) Serialize(s, zero);
  }
}

// "TOVRANE!", 0x44, the state header, Id parent, i32 divisor, the records, then
// (endMarker) a zero Id.
struct Transforms {
  StateHeader header;
  Id parent;
  std::vector<TransformRecord> records;
  bool endMarker = true;
};
template <typename S>
void Serialize(S& s, Transforms& m) {
  Magic(s);
  Code(s, networking::MSG_TRANSFORMS);
  Serialize(s, m.header);
  Serialize(s, m.parent);
  s.Value(m.header.divisor);
  Records(s, m.records, m.endMarker);
}

// "TOVRANE!", 0x45, the state header, i32 divisor (no parent), the records, then
// (endMarker) a zero Id.
struct Physics {
  StateHeader header;
  std::vector<PhysicsRecord> records;
  bool endMarker = true;
};
template <typename S>
void Serialize(S& s, Physics& m) {
  Magic(s);
  Code(s, networking::MSG_PHYSICS);
  Serialize(s, m.header);
  s.Value(m.header.divisor);
  Records(s, m.records, m.endMarker);
}

// "TOVRANE!", 0x7F, ModuleID, embedded stream payload.
struct ModuleDatagramMessage {
  ModuleID module;
  Bytes payload;
};
template <typename S>
void Serialize(S& s, ModuleDatagramMessage& m) {
  Magic(s);
  Code(s, networking::MSG_FOR_MODULE);
  Serialize(s, m.module);
  s.Block(m.payload, kMaxPayloadSize, "module payload");
}

// How many records of a state datagram (code 0x44 or 0x45) fit, end marker included,
// into a datagram of `limit` bytes. Throws std::invalid_argument for another code.
size_t MaxRecordsPerDatagram(uint8_t code, size_t limit = kMaxDatagram);

// ---------------------------------------------------------------------------------------
// Client to server.

// Hello: u8 lead (7), 8 bytes magic, u32 version (1), string token (at most 64 bytes),
// then optionally u8 0x06 and string password, sent in the same flush as the token.
// A reader returns the fields as they came (judging them is the caller's); a token count
// above 64, a password above kMaxPasswordSize, or a byte other than 0x06 after the token
// throws.
struct Hello {
  uint8_t lead = LEAD_BYTE;
  std::string magic = std::string(networking::MAGIC, sizeof networking::MAGIC);
  uint32_t version = networking::HELLO_VERSION;
  std::string token;
  bool hasPassword = false;
  std::string password;
};
void CheckPasswordMarker(uint8_t marker);
template <typename S>
void Serialize(S& s, Hello& m) {
  s.Value(m.lead, "hello");
  m.magic.resize(sizeof networking::MAGIC);
  s.Raw(m.magic.data(), m.magic.size(), "hello");
  s.Value(m.version, "hello");
  Text(s, m.token, kMaxTokenSize, "hello token");
  uint8_t marker = networking::MSG_PSWD;
  m.hasPassword = s.Optional(m.hasPassword, marker);
  if (!m.hasPassword) return;
  CheckPasswordMarker(marker);
  Text(s, m.password, kMaxPasswordSize, "hello password");
}

// One client message: 0x03 keep-alive and 0x02 disconnect (no fields); 0x43 entity
// action (Id entity, embedded stream payload); 0x7F module message (ModuleID, embedded
// stream payload). `entity` and `module` are zero where the code has none. A reader throws
// std::runtime_error naming any other code.
struct ClientMessage {
  uint8_t code = 0;
  Id entity;
  ModuleID module;
  Bytes payload;
};
[[noreturn]] void UnknownClientCode(uint8_t code);
template <typename S>
void Serialize(S& s, ClientMessage& m) {
  s.Value(m.code, "message code");
  switch (m.code) {
    case networking::MSG_KEEPALIVE:
    case networking::MSG_DISCONNECT:
      break;
    case networking::MSG_ENTITY_ACTION:
      Serialize(s, m.entity);
      s.Block(m.payload, kMaxPayloadSize, "entity action payload");
      break;
    case networking::MSG_FOR_MODULE:
      Serialize(s, m.module);
      s.Block(m.payload, kMaxPayloadSize, "module message payload");
      break;
    default:
      UnknownClientCode(m.code);
  }
}

// A client datagram: the 13-byte header, then one or more messages, each a keep-alive
// (0x03) or a module record (0x7F, ModuleID, embedded stream), laid out as on TCP.
struct ClientDatagram {
  uint8_t lead = LEAD_BYTE;
  uint16_t networkingVersion = networking::NETWORKING_VERSION;
  uint16_t serverTag = 0;
  uint64_t playerId = 0;
  std::vector<ClientMessage> messages;
};
// A datagram record: a client message whose code is a keep-alive or a module message.
template <typename S>
void SerializeRecord(S& s, ClientMessage& m) {
  Serialize(s, m);
  if (m.code != networking::MSG_KEEPALIVE && m.code != networking::MSG_FOR_MODULE) {
    UnknownClientCode(m.code);
  }
}
template <typename S>
void Serialize(S& s, ClientDatagram& m) {
  s.Value(m.lead, "datagram header");
  s.Value(m.networkingVersion, "datagram header");
  s.Value(m.serverTag, "datagram header");
  s.Value(m.playerId, "datagram header");
  if constexpr (S::kReading) {
    while (!s.AtEnd()) SerializeRecord(s, m.messages.emplace_back());
  } else {
    for (ClientMessage& message : m.messages) SerializeRecord(s, message);
  }
}

// ---------------------------------------------------------------------------------------
// Reading and writing whole messages.

template <typename Message>
void Write(Stream& out, const Message& message) {
  Writer writer(out);
  Serialize(writer, const_cast<Message&>(message));  // the writer only reads the fields
}
template <typename Message>
Message Read(Stream& in) {
  Reader reader(in);
  Message message;
  Serialize(reader, message);
  return message;
}

template <typename Message>
Bytes ToBytes(const Message& message) {
  Stream stream;
  Write(stream, message);
  return BytesOf(stream);
}

// Shorthands for the server's writers.
inline void WriteWelcome(Stream& out, const Welcome& m) {
  Write(out, m);
}
inline void WriteRefusal(Stream& out, const std::string& reason) {
  Write(out, Refusal{reason});
}
inline void WriteEntityCreate(Stream& out, const EntityCreate& m) {
  Write(out, m);
}
inline void WriteEntityUpdate(Stream& out, const EntityUpdate& m) {
  Write(out, m);
}
inline void WriteEntityMove(Stream& out, const EntityMove& m) {
  Write(out, m);
}
inline void WriteEntityDestroy(Stream& out, const Id& id) {
  Write(out, EntityDestroy{id});
}
inline void WriteWorld(Stream& out, const std::string& name) {
  Write(out, World{name});
}
inline void WriteAdminStatus(Stream& out, const std::string& privilege, uint8_t admin) {
  Write(out, AdminStatus{privilege, admin});
}
inline void WriteModuleMessage(Stream& out, const ModuleID& module, const Bytes& payload) {
  Write(out, ModuleMessage{module, payload});
}
inline void WriteDisconnect(Stream& out) {
  Write(out, Disconnect{});
}
inline Bytes TransformsDatagram(const StateHeader& header, const Id& parent,
                                const std::vector<TransformRecord>& records,
                                bool endMarker = true) {
  return ToBytes(Transforms{header, parent, records, endMarker});
}
inline Bytes PhysicsDatagram(const StateHeader& header, const std::vector<PhysicsRecord>& records,
                             bool endMarker = true) {
  return ToBytes(Physics{header, records, endMarker});
}
inline Bytes ModuleDatagram(const ModuleID& module, const Bytes& payload) {
  return ToBytes(ModuleDatagramMessage{module, payload});
}

// Reads a hello from a connection. After the token, a password marker is looked for among
// the bytes already waiting or arriving within `passwordWaitMs`.
Hello ReadHello(orvex::net::TcpConnection& tcp, int passwordWaitMs);
// The same layout over bytes already received. Returns the hello and sets `consumed` when
// the bytes hold at least the token; std::nullopt when they end earlier (or inside the
// password). A hello without password whose bytes end after the token is complete: a
// caller expecting a password must wait and parse again. Bad counts throw as above.
std::optional<Hello> ParseHello(const uint8_t* data, size_t size, size_t& consumed);
// Reads one client message. On a ReadOnlyStream a message cut short throws Truncated; on a
// socket a payload count above kMaxPayloadSize throws before anything is allocated.
inline ClientMessage ReadClientMessage(Stream& in) {
  return Read<ClientMessage>(in);
}
// Structural parse: std::nullopt for a short header, no message, an unknown code or a
// record cut short. The lead byte and version are returned, not judged.
std::optional<ClientDatagram> ParseClientDatagram(const uint8_t* data, size_t size);

// ---------------------------------------------------------------------------------------
// Hand-made byte strings for tests and tools (malformed input above all): each call
// appends the encoding of a value.
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
