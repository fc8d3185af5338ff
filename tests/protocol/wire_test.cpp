// The wire codec: each layout against golden bytes written out here, readers against hostile, cut
// input.
#include "protocol/Wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Hex.h"
#include "Messages.h"

namespace {

using namespace testlib;
using wire::Bytes;
using wire::ByteWriter;

// "01 0a" -> {0x01, 0x0a}; "'ab'" -> the bytes of "ab".
Bytes Parse(const std::string& text) {
  Bytes bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\'') {
      const size_t end = text.find('\'', i + 1);
      bytes.insert(bytes.end(), text.begin() + long(i) + 1, text.begin() + long(end));
      i = end;
    } else if (text[i] != ' ') {
      bytes.push_back(uint8_t(std::stoul(text.substr(i++, 2), nullptr, 16)));
    }
  }
  return bytes;
}

// What a reader made of client bytes: "ok", "incomplete", "truncated" or "error: <what>".
std::string Read(char kind, const Bytes& bytes) {
  try {
    size_t consumed = 0;
    if (kind == 'H')
      return wire::ParseHello(bytes.data(), bytes.size(), consumed) ? "ok" : "incomplete";
    if (kind == 'D')
      return wire::ParseClientDatagram(bytes.data(), bytes.size()) ? "ok" : "incomplete";
    orvex::filesystem::ReadOnlyStream in(bytes);
    while (in.GetBufferSize() > 0) wire::ReadClientMessage(in);
    return "ok";
  } catch (const wire::Truncated&) {
    return "truncated";
  } catch (const std::runtime_error& e) {
    return std::string("error: ") + e.what();
  }
}

TEST(WireServerToClient, EveryLayoutIsExact) {
  const wire::Id id{1, 2}, parent{3, 4};
  const glm::dvec3 p{1.0, 2.0, -0.5};
  const wire::Orientation q{1.0, 0.0, 0.0, 0.0};
  const std::string kId = "0100000000000000 0200000000000000 ",
                    kParent = "0300000000000000 0400000000000000 ",
                    kVec = "000000000000F03F 0000000000000040 000000000000E0BF ",
                    kQuat = "000000000000F03F 0000000000000000 0000000000000000 0000000000000000 ",
                    kAb = "0B00000000000000 0C00000000000000 ",
                    kState =
                        "'TOVRANE!' 44 000000000000E03F 0700000000000000 0800000000000000 "
                        "0900000000000000 ";
  const wire::StateHeader header{0.5, 7, 8, 9, 4};
  const wire::Welcome welcome{
      1, 0x0A0B, 0x1122334455667788ull, "ab", {"X_y", "CORE_ship"}, -2, wire::ConfigText("a")};
  const struct {
    const char* name;
    Bytes actual;
    std::string expected;
  } rows[] = {
      {"welcome, refusal", wire::Join({Welcome(welcome), Refusal("no")}),
       "01 0100 0B0A 8877665544332211 02000000 'ab' 03000000 'X_y' 09000000 'CORE_ship' 00000000 "
       "FEFFFFFF 02000000 'a' 00 00 02000000 'no'"},
      {"create", Create({id, wire::ModuleID("A_b"), "ship", parent, p, q, 1, 0, {9, 8}}),
       "40 " + kId + kAb + "04000000 'ship' " + kParent + kVec + kQuat + "01 00 02000000 0908"},
      {"update", Update({id, parent, p, q, 2, 1, {}}),
       "42 " + kId + kParent + kVec + kQuat + "02 01 00000000"},
      {"move (the flag first), destroy", wire::Join({Move({id, 1, p, q}), Destroy(id)}),
       "46 " + kId + "01 " + kVec + kQuat + "41 " + kId},
      {"world, admin, module message, disconnect",
       wire::Join({World("moon"), Admin("op", 1), ModuleMessage("A_b", {7}), Disconnect()}),
       "04 04000000 'moon' 05 02000000 'op' 01 7F " + kAb + "01000000 07 02"},
      {"transforms",
       wire::TransformsDatagram(header, parent, {{{5, 6}, {2.0, 0.0, 0.0}, {1.0f, 0, 0, 0.5f}}}),
       kState + kParent +
           "04000000 0500000000000000 0600000000000000 0000000000000040 0000000000000000 "
           "0000000000000000 0000803F 00000000 00000000 0000003F "
           "00000000000000000000000000000000"},
      {"physics, module datagram",
       wire::Join({wire::PhysicsDatagram(header, {{{5, 6}, p, {1.0, 0.0, 0.0}}}, false),
                   wire::ModuleDatagram(wire::ModuleID("A_b"), {1, 2, 3})}),
       "'TOVRANE!' 45" + kState.substr(14) + "04000000 0500000000000000 0600000000000000 " + kVec +
           "000000000000F03F 0000000000000000 0000000000000000 'TOVRANE!' 7F " + kAb +
           "03000000 010203"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_HEX_EQ(row.actual, Parse(row.expected));
  }
  // A full state datagram never overflows the datagram size.
  const size_t full = wire::MaxRecordsPerDatagram(0x44);
  for (size_t n : {full, full + 1}) {
    EXPECT_EQ(wire::TransformsDatagram({}, {}, std::vector<wire::TransformRecord>(n)).size() <=
                  wire::kMaxDatagram,
              n == full);
  }
  EXPECT_THROW(wire::MaxRecordsPerDatagram(0x40), std::invalid_argument);
}

TEST(WireClientToServer, EveryLayoutIsExact) {
  const std::string kId = "0100000000000000 0200000000000000 ",
                    kAb = "0B00000000000000 0C00000000000000 ";
  const wire::ClientMessage action{0x43, {1, 2}, {}, {9}},
      module{0x7F, {}, wire::ModuleID("A_b"), {}};
  const struct {
    const char* name;
    Bytes actual;
    std::string expected;
  } rows[] = {
      {"hello with password", Hello("tk", "pw"),
       "07 'TOVRANE!' 01000000 02000000 'tk' 06 02000000 'pw'"},
      {"hello without", Hello(""), "07 'TOVRANE!' 01000000 00000000"},
      {"messages",
       wire::Join({wire::ToBytes(action), wire::ToBytes(module),
                   wire::ToBytes(wire::ClientMessage{0x03, {}, {}, {}}),
                   wire::ToBytes(wire::ClientMessage{0x02, {}, {}, {}})}),
       "43 " + kId + "01000000 09 7F " + kAb + "00000000 03 02"},
      {"datagram",
       wire::ToBytes(wire::ClientDatagram{7, 1, 0x0A0B, 5, {{0x03, {}, {}, {}}, module}}),
       "07 0100 0B0A 0500000000000000 03 7F " + kAb + "00000000"},
  };
  for (const auto& row : rows) EXPECT_HEX_EQ(row.actual, Parse(row.expected)) << row.name;
}

// What the readers make of records and codes beyond the layouts above.
TEST(WireRoundTrip, RecordListsEndOnANullIdAndReadersCheckTheCode) {
  const wire::StateHeader header{0.5, 7, 8, 9, 4};
  const wire::Id parent{3, 4};
  // A record list ends on a null id, one with either word zero, as the client reads it.
  orvex::filesystem::ReadOnlyStream halfNull(
      wire::ToBytes(wire::Transforms{header, parent, {{{0, 5}}}, false}));
  EXPECT_TRUE(wire::Read<wire::Transforms>(halfNull).records.empty());
  // A reader given another message's bytes says so.
  orvex::filesystem::ReadOnlyStream world(wire::ToBytes(wire::World{"moon"}));
  EXPECT_THROW(wire::Read<wire::EntityDestroy>(world), std::runtime_error);
}

TEST(WireClientToServer, ReadersRefuseHostileAndCutInput) {
  const wire::Id id{1, 2};
  const struct {
    const char* name;
    char kind;
    Bytes input;
    std::string expected;
  } rows[] = {
      {"token count 65, refused before its bytes", 'H', Prefix(Hello(std::string(65, 't')), 17),
       "error: hello token of 65 bytes is over the limit of 64 bytes"},
      {"a byte other than the marker", 'H', wire::Join({Hello("t"), {0x43}}),
       "error: hello: byte 0x43 after the token, where only the password marker 0x06 may follow"},
      {"payload count over the cap", 'M', ByteWriter().U8(0x43).Entity(id).U32(0xFFFFFFF0).U8(1),
       "error: entity action payload of 4294967280 bytes is over the limit of " +
           std::to_string(wire::kMaxPayloadSize) + " bytes"},
      {"unknown code", 'M', {0x44}, "error: unknown client message code 0x44"},
      {"an action in a datagram", 'D', wire::Join({ClientDatagramHeader(), ActionRecord(id, {1})}),
       "incomplete"},
  };
  for (const auto& row : rows) EXPECT_EQ(Read(row.kind, row.input), row.expected) << row.name;

  // Every cut but one is incomplete (hello, datagram) or truncated (message), never zero-filled.
  const Bytes module = ModuleRecord("CORE_ship", {});
  const struct {
    char kind;
    Bytes whole;
    size_t whole_at;  // the one cut that reads whole
  } cuts[] = {{'H', Hello("token", "secret"), 22},
              {'D', wire::Join({KeepAliveDatagram(), module}), 14},
              {'M', wire::Join({ActionRecord(id, {0xAA}), module}), 22}};
  for (const auto& c : cuts) {
    for (size_t cut = 1; cut < c.whole.size(); ++cut) {
      const std::string read = Read(c.kind, Prefix(c.whole, cut));
      EXPECT_EQ(read, cut == c.whole_at ? "ok"
                      : c.kind == 'M'   ? "truncated"
                                        : "incomplete")
          << c.kind << cut;
    }
  }
}

}  // namespace
