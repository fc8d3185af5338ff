#include "server/Wire.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "filesystem/StreamValues.h"
#include "game/Networking.h"
#include "net/TcpConnection.h"
#include "orvex/net/Socket.h"

namespace wire {
namespace {

using orvex::filesystem::ReadOnlyStream;

std::string Hex(uint8_t code) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%02X", code);
  return text;
}

void WriteId(Stream& out, const Id& id) {
  WriteValue(out, id.word0);
  WriteValue(out, id.word1);
}

void WriteModule(Stream& out, const ModuleID& module) {
  WriteValue(out, module.prefix);
  WriteValue(out, module.name);
}

void WriteVec3(Stream& out, const glm::dvec3& v) {
  WriteValue(out, v.x);
  WriteValue(out, v.y);
  WriteValue(out, v.z);
}

void WriteOrientation(Stream& out, const Orientation& q) {
  WriteValue(out, q.w);
  WriteValue(out, q.x);
  WriteValue(out, q.y);
  WriteValue(out, q.z);
}

void WriteBlock(Stream& out, const Bytes& block) {
  WriteValue(out, static_cast<uint32_t>(block.size()));
  out.Write(block.data(), block.size());
}

void WriteStateHeader(ByteWriter& w, uint8_t code, const StateHeader& header) {
  w.Raw(networking::MAGIC, sizeof networking::MAGIC).U8(code);
  w.F64(header.serverTime).U64(header.sequence);
  w.U64(header.parentEnvironment).U64(header.relativeEnvironment);
}

// Reads fields from a stream of client bytes. On a ReadOnlyStream every read is checked
// against the bytes left first (a short message is Truncated, never zero-filled); on a
// socket reads block until their bytes arrive, and block counts are capped before memory
// follows them.
class Reader {
 public:
  explicit Reader(Stream& in) : in_(in), bounded_(dynamic_cast<ReadOnlyStream*>(&in)) {}

  void Need(size_t n, const char* what) {
    if (bounded_ != nullptr && bounded_->GetBufferSize() < n) {
      throw Truncated(std::string("client bytes end inside the ") + what);
    }
  }
  template <typename T>
  T Value(const char* what) {
    Need(sizeof(T), what);
    return ReadValue<T>(in_);
  }
  Id ReadId(const char* what) {
    Need(16, what);
    Id id;
    id.word0 = ReadValue<uint64_t>(in_);
    id.word1 = ReadValue<uint64_t>(in_);
    return id;
  }
  ModuleID ReadModule(const char* what) {
    Need(16, what);
    ModuleID module;
    module.prefix = ReadValue<uint64_t>(in_);
    module.name = ReadValue<uint64_t>(in_);
    return module;
  }
  // u32 count, then the bytes; a count above `limit` throws before anything is allocated.
  Bytes Block(uint32_t limit, const char* what) {
    const uint32_t count = Value<uint32_t>(what);
    if (count > limit) {
      throw std::runtime_error(std::string(what) + " of " + std::to_string(count) +
                               " bytes is over the limit of " + std::to_string(limit) + " bytes");
    }
    Need(count, what);
    Bytes bytes;
    if (bounded_ != nullptr) {
      bytes.resize(count);
      if (count != 0) in_.Read(bytes.data(), count);
      return bytes;
    }
    // Grow with the bytes that really arrive, so a hostile count costs the sender as much.
    constexpr size_t kChunk = 64u << 10;
    while (bytes.size() < count) {
      const size_t have = bytes.size();
      const size_t want = std::min<size_t>(count, std::max(kChunk, have * 2));
      bytes.resize(want);
      in_.Read(bytes.data() + have, want - have);
    }
    return bytes;
  }
  std::string Text(uint32_t limit, const char* what) {
    Bytes bytes = Block(limit, what);
    return std::string(bytes.begin(), bytes.end());
  }

 private:
  Stream& in_;
  ReadOnlyStream* bounded_;
};

// Lead, magic, version and token; the password marker is the caller's.
Hello ReadHelloHead(Reader& r, Stream& in) {
  Hello hello;
  hello.lead = r.Value<uint8_t>("hello");
  r.Need(sizeof networking::MAGIC, "hello");
  hello.magic.resize(sizeof networking::MAGIC);
  in.Read(reinterpret_cast<unsigned char*>(hello.magic.data()), hello.magic.size());
  hello.version = r.Value<uint32_t>("hello");
  hello.token = r.Text(kMaxTokenSize, "hello token");
  return hello;
}

void CheckMarker(uint8_t marker) {
  if (marker != networking::MSG_PSWD) {
    throw std::runtime_error("hello: byte " + Hex(marker) +
                             " after the token, where only the password marker 0x06 may follow");
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------

void WriteWelcome(Stream& out, const Welcome& welcome) {
  WriteValue<uint8_t>(out, 1);
  WriteValue(out, welcome.networkingVersion);
  WriteValue(out, welcome.serverTag);
  WriteValue(out, welcome.playerId);
  out.Write(welcome.username);
  for (const std::string& mod : welcome.mods) out.Write(mod);
  out.Write(std::string());
  WriteValue(out, welcome.mode);
  WriteValue(out, static_cast<uint32_t>(welcome.config.size()));
  out.Write(reinterpret_cast<const unsigned char*>(welcome.config.data()), welcome.config.size());
}

void WriteRefusal(Stream& out, const std::string& reason) {
  WriteValue<uint8_t>(out, 0);
  out.Write(reason);
}

std::vector<char> ConfigText(const std::string& text) {
  std::vector<char> bytes(text.begin(), text.end());
  bytes.push_back('\0');
  return bytes;
}

void WriteEntityCreate(Stream& out, const EntityCreate& m) {
  WriteValue(out, networking::MSG_ENTITY_CREATE);
  WriteId(out, m.id);
  WriteModule(out, m.module);
  out.Write(m.text);
  WriteId(out, m.parent);
  WriteVec3(out, m.position);
  WriteOrientation(out, m.orientation);
  WriteValue(out, m.smooth);
  WriteValue(out, m.forceSnap);
  WriteBlock(out, m.data);
}

void WriteEntityUpdate(Stream& out, const EntityUpdate& m) {
  WriteValue(out, networking::MSG_ENTITY_UPDATE);
  WriteId(out, m.id);
  WriteId(out, m.ignored);
  WriteVec3(out, m.position);
  WriteOrientation(out, m.orientation);
  WriteValue(out, m.smooth);
  WriteValue(out, m.forceSnap);
  WriteBlock(out, m.data);
}

void WriteEntityMove(Stream& out, const EntityMove& m) {
  WriteValue(out, networking::MSG_ENTITY_MOVE);
  WriteId(out, m.id);
  WriteValue(out, m.smooth);
  WriteVec3(out, m.position);
  WriteOrientation(out, m.orientation);
}

void WriteEntityDestroy(Stream& out, const Id& id) {
  WriteValue(out, networking::MSG_ENTITY_DESTROY);
  WriteId(out, id);
}

void WriteWorld(Stream& out, const std::string& world) {
  WriteValue(out, networking::MSG_WORLD);
  out.Write(world);
}

void WriteAdminStatus(Stream& out, const std::string& privilege, uint8_t admin) {
  WriteValue(out, networking::MSG_ADMIN_STATUS);
  out.Write(privilege);
  WriteValue(out, admin);
}

void WriteModuleMessage(Stream& out, const ModuleID& module, const Bytes& payload) {
  WriteValue(out, networking::MSG_FOR_MODULE);
  WriteModule(out, module);
  WriteBlock(out, payload);
}

void WriteDisconnect(Stream& out) {
  WriteValue(out, networking::MSG_DISCONNECT);
}

// ---------------------------------------------------------------------------------------

Bytes TransformsDatagram(const StateHeader& header, const Id& parent,
                         const std::vector<TransformRecord>& records, bool endMarker) {
  ByteWriter w;
  WriteStateHeader(w, networking::MSG_TRANSFORMS, header);
  w.Entity(parent).I32(header.divisor);
  for (const TransformRecord& r : records) {
    w.Entity(r.id).Vec3(r.position);
    for (float f : r.orientation) w.F32(f);
  }
  if (endMarker) w.Entity(Id{});
  return w;
}

Bytes PhysicsDatagram(const StateHeader& header, const std::vector<PhysicsRecord>& records,
                      bool endMarker) {
  ByteWriter w;
  WriteStateHeader(w, networking::MSG_PHYSICS, header);
  w.I32(header.divisor);
  for (const PhysicsRecord& r : records) w.Entity(r.id).Vec3(r.velocity).Vec3(r.extra);
  if (endMarker) w.Entity(Id{});
  return w;
}

Bytes ModuleDatagram(const ModuleID& module, const Bytes& payload) {
  ByteWriter w;
  w.Raw(networking::MAGIC, sizeof networking::MAGIC).U8(networking::MSG_FOR_MODULE);
  return w.Module(module).Block(payload);
}

size_t MaxRecordsPerDatagram(uint8_t code, size_t limit) {
  size_t header = 0, record = 0;
  if (code == networking::MSG_TRANSFORMS) {
    header = kTransformsHeaderSize;
    record = kTransformRecordSize;
  } else if (code == networking::MSG_PHYSICS) {
    header = kPhysicsHeaderSize;
    record = kPhysicsRecordSize;
  } else {
    throw std::invalid_argument("no state datagram has the code " + Hex(code));
  }
  if (limit < header + kEndMarkerSize) return 0;
  return (limit - header - kEndMarkerSize) / record;
}

// ---------------------------------------------------------------------------------------

Hello ReadHello(orvex::net::TcpConnection& tcp, int passwordWaitMs) {
  Reader r(tcp);
  Hello hello = ReadHelloHead(r, tcp);
  if (tcp.Poll(passwordWaitMs) != 1) return hello;
  uint8_t marker = 0;
  try {
    marker = ReadValue<uint8_t>(tcp);
  } catch (const std::runtime_error&) {
    return hello;  // closed after the token: the hello itself is complete
  }
  CheckMarker(marker);
  hello.hasPassword = true;
  hello.password = r.Text(kMaxPasswordSize, "hello password");
  return hello;
}

std::optional<Hello> ParseHello(const uint8_t* data, size_t size, size_t& consumed) {
  ReadOnlyStream in = ReadOnlyStream(data, size);
  Reader r(in);
  try {
    Hello hello = ReadHelloHead(r, in);
    if (in.GetBufferSize() != 0) {
      CheckMarker(ReadValue<uint8_t>(in));
      hello.hasPassword = true;
      hello.password = r.Text(kMaxPasswordSize, "hello password");
    }
    consumed = orvex::filesystem::PositionOf(in);
    return hello;
  } catch (const Truncated&) {
    return std::nullopt;
  }
}

ClientMessage ReadClientMessage(Stream& in) {
  Reader r(in);
  ClientMessage message;
  message.code = r.Value<uint8_t>("message code");
  switch (message.code) {
    case networking::MSG_KEEPALIVE:
    case networking::MSG_DISCONNECT:
      break;
    case networking::MSG_ENTITY_ACTION:
      message.entity = r.ReadId("entity action");
      message.payload = r.Block(kMaxPayloadSize, "entity action payload");
      break;
    case networking::MSG_FOR_MODULE:
      message.module = r.ReadModule("module message");
      message.payload = r.Block(kMaxPayloadSize, "module message payload");
      break;
    default:
      throw std::runtime_error("unknown client message code " + Hex(message.code));
  }
  return message;
}

std::optional<ClientDatagram> ParseClientDatagram(const uint8_t* data, size_t size) {
  if (size < kClientHeaderSize) return std::nullopt;
  ReadOnlyStream in = ReadOnlyStream(data, size);
  Reader r(in);
  ClientDatagram datagram;
  datagram.lead = ReadValue<uint8_t>(in);
  datagram.networkingVersion = ReadValue<uint16_t>(in);
  datagram.serverTag = ReadValue<uint16_t>(in);
  datagram.playerId = ReadValue<uint64_t>(in);
  try {
    while (in.GetBufferSize() != 0) {
      ClientMessage message;
      message.code = ReadValue<uint8_t>(in);
      if (message.code == networking::MSG_FOR_MODULE) {
        message.module = r.ReadModule("module record");
        message.payload = r.Block(kMaxPayloadSize, "module record payload");
      } else if (message.code != networking::MSG_KEEPALIVE) {
        return std::nullopt;
      }
      datagram.messages.push_back(std::move(message));
    }
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
  if (datagram.messages.empty()) return std::nullopt;
  return datagram;
}

// ---------------------------------------------------------------------------------------

ByteWriter& ByteWriter::Text(const std::string& s) {
  U32(static_cast<uint32_t>(s.size()));
  return Chars(s);
}

ByteWriter& ByteWriter::Block(const Bytes& b) {
  U32(static_cast<uint32_t>(b.size()));
  return Append(b);
}

ByteWriter& ByteWriter::Chars(const std::string& s) {
  return Raw(s.data(), s.size());
}

ByteWriter& ByteWriter::Append(const Bytes& b) {
  return Raw(b.data(), b.size());
}

ByteWriter& ByteWriter::Raw(const void* data, size_t size) {
  const auto* p = static_cast<const uint8_t*>(data);
  bytes_.insert(bytes_.end(), p, p + size);
  return *this;
}

Bytes Encode(const std::function<void(Stream&)>& write) {
  Stream stream;
  write(stream);
  return BytesOf(stream);
}

Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

}  // namespace wire
