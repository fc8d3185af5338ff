#include "protocol/Wire.h"

#include <algorithm>
#include <cstdio>

#include "filesystem/StreamValues.h"
#include "net/TcpConnection.h"
#include "orvex/net/Socket.h"

namespace wire {
namespace {

using orvex::filesystem::ReadOnlyStream;

std::string CodeText(uint8_t code) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%02X", code);
  return text;
}

}  // namespace

Reader::Reader(Stream& in, int optionalWaitMs)
    : in_(in), bounded_(dynamic_cast<ReadOnlyStream*>(&in)), optionalWaitMs_(optionalWaitMs) {}

Reader Reader::ZeroFilling(ReadOnlyStream& in) {
  Reader reader(in);
  reader.zeroFill_ = true;
  return reader;
}

void Reader::Need(size_t n, const char* what) const {
  if (!zeroFill_ && bounded_ != nullptr && bounded_->GetBufferSize() < n) {
    throw Truncated(std::string("bytes end inside the ") + what);
  }
}

Bytes Reader::ReadBlock(uint32_t limit, const char* what) {
  uint32_t count = 0;
  Value(count, what);
  if (count > limit) {
    throw std::runtime_error(std::string(what) + " of " + std::to_string(count) +
                             " bytes is over the limit of " + std::to_string(limit) + " bytes");
  }
  Need(count, what);
  Bytes bytes;
  if (bounded_ != nullptr) {
    if (zeroFill_) count = std::min<uint32_t>(count, bounded_->GetBufferSize());
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

bool Reader::Optional(bool, uint8_t& byte) {
  if (bounded_ != nullptr) {
    if (bounded_->GetBufferSize() == 0) return false;
    byte = ReadValue<uint8_t>(in_);
    return true;
  }
  auto* tcp = dynamic_cast<orvex::net::TcpConnection*>(&in_);
  if (tcp == nullptr || tcp->Poll(optionalWaitMs_) != 1) return false;
  try {
    byte = ReadValue<uint8_t>(*tcp);
    return true;
  } catch (const std::runtime_error&) {
    return false;  // closed after what came before: that part is complete
  }
}

void CheckCode(uint8_t expected, uint8_t found) {
  if (found != expected) {
    throw std::runtime_error("message code " + CodeText(found) + " where " + CodeText(expected) +
                             " was expected");
  }
}

void CheckMagic(const char (&found)[sizeof networking::MAGIC]) {
  if (!std::equal(std::begin(found), std::end(found), std::begin(networking::MAGIC))) {
    throw std::runtime_error("a server datagram without the magic");
  }
}

void CheckPasswordMarker(uint8_t marker) {
  if (marker != networking::MSG_PSWD) {
    throw std::runtime_error("hello: byte " + CodeText(marker) +
                             " after the token, where only the password marker 0x06 may follow");
  }
}

void UnknownClientCode(uint8_t code) {
  throw std::runtime_error("unknown client message code " + CodeText(code));
}

std::vector<char> ConfigText(const std::string& text) {
  std::vector<char> bytes(text.begin(), text.end());
  bytes.push_back('\0');
  return bytes;
}

ServerMessage ReadServerMessage(ReadOnlyStream& in) {
  ServerMessage m;
  {
    // The code, peeked at: each message's own reader reads it again.
    ReadOnlyStream peek(in);
    Reader(peek).Value(m.code, "message code");
  }
  switch (m.code) {
    case networking::MSG_WORLD:
      Read<World>(in);
      break;
    case networking::MSG_ADMIN_STATUS:
      Read<AdminStatus>(in);
      break;
    case networking::MSG_ENTITY_CREATE: {
      const EntityCreate create = Read<EntityCreate>(in);
      m.entity = create.id;
      m.module = create.module;
      break;
    }
    case networking::MSG_ENTITY_DESTROY:
      m.entity = Read<EntityDestroy>(in).id;
      break;
    case networking::MSG_ENTITY_UPDATE:
      m.entity = Read<EntityUpdate>(in).id;
      break;
    case networking::MSG_ENTITY_MOVE:
      m.entity = Read<EntityMove>(in).id;
      break;
    case networking::MSG_FOR_MODULE:
      Read<ModuleMessage>(in);
      break;
    default:
      ReadValue<uint8_t>(in);
  }
  return m;
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
    throw std::invalid_argument("no state datagram has the code " + CodeText(code));
  }
  if (limit < header + kEndMarkerSize) return 0;
  return (limit - header - kEndMarkerSize) / record;
}

Hello ReadHello(orvex::net::TcpConnection& tcp, int passwordWaitMs) {
  Reader reader(tcp, passwordWaitMs);
  Hello hello;
  Serialize(reader, hello);
  return hello;
}

std::optional<Hello> ParseHello(const uint8_t* data, size_t size, size_t& consumed) {
  ReadOnlyStream in = ReadOnlyStream(data, size);
  try {
    Hello hello = Read<Hello>(in);
    consumed = orvex::filesystem::PositionOf(in);
    return hello;
  } catch (const Truncated&) {
    return std::nullopt;
  }
}

std::optional<ClientDatagram> ParseClientDatagram(const uint8_t* data, size_t size) {
  ReadOnlyStream in = ReadOnlyStream(data, size);
  try {
    ClientDatagram datagram = Read<ClientDatagram>(in);
    if (datagram.messages.empty()) return std::nullopt;
    return datagram;
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
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
