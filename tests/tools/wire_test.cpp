// The server's wire codec: its writers against exact bytes, its readers of client bytes.
#include "server/Wire.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Hex.h"
#include "Messages.h"

namespace {

using orvex::filesystem::ReadOnlyStream;
using testlib::ClientDatagramHeader;
using testlib::Hello;
using wire::Bytes;
using wire::ByteWriter;

// "01 0a ff" -> {0x01, 0x0a, 0xff}; "'ab'" -> the bytes of "ab".
Bytes Parse(const std::string& text) {
  Bytes bytes;
  for (size_t i = 0; i < text.size();) {
    if (text[i] == ' ') {
      ++i;
    } else if (text[i] == '\'') {
      const size_t end = text.find('\'', i + 1);
      bytes.insert(bytes.end(), text.begin() + long(i) + 1, text.begin() + long(end));
      i = end + 1;
    } else {
      bytes.push_back(uint8_t(std::stoul(text.substr(i, 2), nullptr, 16)));
      i += 2;
    }
  }
  return bytes;
}

const std::string kId = "0100000000000000 0200000000000000 ",
                  kParent = "0300000000000000 0400000000000000 ";
const std::string kVec = "000000000000F03F 0000000000000040 000000000000E0BF ";
const std::string kQuat = "000000000000F03F 0000000000000000 0000000000000000 0000000000000000 ";
const std::string kAb = "0B00000000000000 0C00000000000000 ",
                  kEnd = "00000000000000000000000000000000";
const std::string kState = "000000000000E03F 0700000000000000 0800000000000000 0900000000000000 ";

TEST(WireServerToClient, EveryLayoutIsExact) {
  const wire::Id id{1, 2}, parent{3, 4};
  const glm::dvec3 p{1.0, 2.0, -0.5};
  const wire::Orientation q{1.0, 0.0, 0.0, 0.0};
  wire::Welcome welcome{
      1, 0x0A0B, 0x1122334455667788ull, "ab", {"X_y", "CORE_ship"}, -2, wire::ConfigText("a")};
  wire::TransformRecord record{{5, 6}, {2.0, 0.0, 0.0}, {1.0f, 0.0f, 0.0f, 0.5f}};
  const wire::StateHeader header{0.5, 7, 8, 9, 4};
  const struct {
    const char* name;
    Bytes actual;
    std::string expected;
  } rows[] = {
      {"welcome", testlib::Welcome(welcome),
       "01 0100 0B0A 8877665544332211 02000000 'ab' 03000000 'X_y' 09000000 'CORE_ship' 00000000 "
       "FEFFFFFF 02000000 'a' 00"},
      {"refusal", testlib::Refusal("Wrong password"), "00 0E000000 'Wrong password'"},
      {"create", testlib::Create({id, wire::ModuleID("A_b"), "ship", parent, p, q, 1, 0, {9, 8}}),
       "40 " + kId + kAb + "04000000 'ship' " + kParent + kVec + kQuat + "01 00 02000000 0908"},
      {"update", testlib::Update({id, parent, p, q, 2, 1, {}}),
       "42 " + kId + kParent + kVec + kQuat + "02 01 00000000"},
      {"move: the flag before the position", testlib::Move({id, 1, p, q}),
       "46 " + kId + "01 " + kVec + kQuat},
      {"destroy", testlib::Destroy(id), "41 " + kId},
      {"world", testlib::World("moon"), "04 04000000 'moon'"},
      {"admin", testlib::Admin("op", 1), "05 02000000 'op' 01"},
      {"module message", testlib::ModuleMessage("A_b", {7}), "7F " + kAb + "01000000 07"},
      {"disconnect", testlib::Disconnect(), "02"},
      {"transforms", wire::TransformsDatagram(header, parent, {record}),
       "'TOVRANE!' 44 " + kState + kParent +
           "04000000 0500000000000000 0600000000000000 0000000000000040 0000000000000000 "
           "0000000000000000 0000803F 00000000 00000000 0000003F " +
           kEnd},
      {"physics",
       wire::PhysicsDatagram(header, {{{5, 6}, {1.0, 2.0, -0.5}, {1.0, 0.0, 0.0}}}, false),
       "'TOVRANE!' 45 " + kState + "04000000 0500000000000000 0600000000000000 " + kVec +
           "000000000000F03F 0000000000000000 "
           "0000000000000000"},
      {"module datagram", wire::ModuleDatagram(wire::ModuleID("A_b"), {1, 2, 3}),
       "'TOVRANE!' 7F " + kAb + "03000000 010203"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_HEX_EQ(row.actual, Parse(row.expected));
  }
  // A full state datagram never overflows the datagram size.
  for (size_t n : {wire::MaxRecordsPerDatagram(0x44), wire::MaxRecordsPerDatagram(0x44) + 1}) {
    EXPECT_EQ(wire::TransformsDatagram({}, {}, std::vector<wire::TransformRecord>(n)).size() <=
                  wire::kMaxDatagram,
              n == wire::MaxRecordsPerDatagram(0x44));
  }
  EXPECT_THROW(wire::MaxRecordsPerDatagram(0x40), std::invalid_argument);
}

Bytes Head(const Bytes& bytes, size_t n) {
  return Bytes(bytes.begin(), bytes.begin() + long(n));
}

// What a reader made of client bytes: the fields as one line, "incomplete", "truncated"
// or "error: <what>".
std::string Read(char kind, const Bytes& bytes) {
  char line[512];
  try {
    if (kind == 'H') {
      size_t consumed = 0;
      const auto h = wire::ParseHello(bytes.data(), bytes.size(), consumed);
      if (!h) return "incomplete";
      std::snprintf(line, sizeof line, "%d %s %u %s %s %zu", h->lead, h->magic.c_str(), h->version,
                    h->token.c_str(), h->hasPassword ? h->password.c_str() : "-", consumed);
      return line;
    }
    std::string text;
    const auto describe = [&](const wire::ClientMessage& m) {
      std::snprintf(line, sizeof line, "%02x ", m.code);
      text += line + m.entity.ToString() + " " + m.module.String() + " ";
      for (uint8_t b : m.payload)
        text += "0123456789abcdef"[b >> 4], text += "0123456789abcdef"[b & 15];
      text += ";";
    };
    if (kind == 'D') {
      const auto d = wire::ParseClientDatagram(bytes.data(), bytes.size());
      if (!d) return "incomplete";
      std::snprintf(line, sizeof line, "%d %d %x %llx:", d->lead, d->networkingVersion,
                    d->serverTag, static_cast<unsigned long long>(d->playerId));
      text = line;
      for (const auto& m : d->messages) describe(m);
      return text;
    }
    ReadOnlyStream in(bytes);
    while (in.GetBufferSize() > 0) describe(wire::ReadClientMessage(in));
    return text;
  } catch (const wire::Truncated&) {
    return "truncated";
  } catch (const std::runtime_error& e) {
    return std::string("error: ") + e.what();
  }
}

TEST(WireClientToServer, ReadersTakeWholeInputAndRefuseHostileInput) {
  const wire::Id id{1, 2};
  const Bytes action = testlib::ActionRecord(id, {0xAA, 0xBB}),
              module = testlib::ModuleRecord("CORE_ship", {});
  const std::string null = wire::Id{}.ToString(), idText = id.ToString();
  const struct {
    const char* name;
    char kind;
    Bytes input;
    std::string expected;
  } rows[] = {
      {"hello", 'H', Hello("tok"), "7 TOVRANE! 1 tok - 20"},
      {"hello with password, more after it", 'H', wire::Join({Hello("", "pw"), {0x03}}),
       "7 TOVRANE! 1  pw 24"},
      {"token count 65, refused before its bytes", 'H', Head(Hello(std::string(65, 't')), 17),
       "error: hello token of 65 bytes is over the limit of 64 bytes"},
      {"a byte other than the marker", 'H', wire::Join({Hello("t"), {0x43}}),
       "error: hello: byte 0x43 after the token, where only the password marker 0x06 may follow"},
      {"messages in sequence", 'M', wire::Join({{0x03}, action, module, {0x02}}),
       "03 " + null + "  ;43 " + idText + "  aabb;7f " + null + " CORE_ship ;02 " + null + "  ;"},
      {"unknown code", 'M', {0x40}, "error: unknown client message code 0x40"},
      {"payload short of its count", 'M', ByteWriter().U8(0x43).Entity(id).U32(1000).U8(1),
       "truncated"},
      {"payload count over the cap", 'M', ByteWriter().U8(0x43).Entity(id).U32(0xFFFFFFF0).U8(1),
       "error: entity action payload of 4294967280 bytes is over the limit of " +
           std::to_string(wire::kMaxPayloadSize) + " bytes"},
      {"keep-alive datagram", 'D', testlib::KeepAliveDatagram(),
       "7 1 a0b 1122334455667788:03 " + null + "  ;"},
      {"module records", 'D',
       wire::Join({ClientDatagramHeader(), module, testlib::ModuleRecord("A_b", {3})}),
       "7 1 a0b 1122334455667788:7f " + null + " CORE_ship ;7f " + null + " A_b 03;"},
      {"header alone", 'D', ClientDatagramHeader(), "incomplete"},
      {"an action in a datagram", 'D', wire::Join({ClientDatagramHeader(), action}), "incomplete"},
  };
  for (const auto& row : rows) EXPECT_EQ(Read(row.kind, row.input), row.expected) << row.name;

  // Every cut of a hello is incomplete until the token ends, and again inside the password.
  const Bytes hello = Hello("token", "secret");
  for (size_t cut = 0; cut < hello.size(); ++cut) {
    EXPECT_EQ(Read('H', Head(hello, cut)) != "incomplete", cut == 22) << cut;
  }
  // Every cut of a message is truncated, never zero-filled; a datagram cut is incomplete.
  for (const Bytes& whole : {action, module}) {
    for (size_t cut = 1; cut < whole.size(); ++cut) {
      EXPECT_EQ(Read('M', Head(whole, cut)), "truncated") << cut;
    }
  }
  const Bytes datagram = wire::Join({testlib::KeepAliveDatagram(), module});
  for (size_t cut = 0; cut < datagram.size(); ++cut) {
    EXPECT_EQ(Read('D', Head(datagram, cut)) != "incomplete", cut == 14) << cut;
  }
}

}  // namespace
