// The server's wire codec: its writers against exact bytes, its readers of client bytes.
#include "server/Wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Hex.h"
#include "Messages.h"

namespace {

using testlib::ClientDatagramHeader;
using testlib::Hello;
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

Bytes Head(const Bytes& bytes, size_t n) {
  return Bytes(bytes.begin(), bytes.begin() + long(n));
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
      {"welcome, refusal", wire::Join({testlib::Welcome(welcome), testlib::Refusal("no")}),
       "01 0100 0B0A 8877665544332211 02000000 'ab' 03000000 'X_y' 09000000 'CORE_ship' 00000000 "
       "FEFFFFFF 02000000 'a' 00 00 02000000 'no'"},
      {"create", testlib::Create({id, wire::ModuleID("A_b"), "ship", parent, p, q, 1, 0, {9, 8}}),
       "40 " + kId + kAb + "04000000 'ship' " + kParent + kVec + kQuat + "01 00 02000000 0908"},
      {"update", testlib::Update({id, parent, p, q, 2, 1, {}}),
       "42 " + kId + kParent + kVec + kQuat + "02 01 00000000"},
      {"move (the flag first), destroy",
       wire::Join({testlib::Move({id, 1, p, q}), testlib::Destroy(id)}),
       "46 " + kId + "01 " + kVec + kQuat + "41 " + kId},
      {"world, admin, module message, disconnect",
       wire::Join({testlib::World("moon"), testlib::Admin("op", 1),
                   testlib::ModuleMessage("A_b", {7}), testlib::Disconnect()}),
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

// What a reader made of client bytes: the fields as one line, "incomplete", "truncated"
// or "error: <what>".
std::string Read(char kind, const Bytes& bytes) {
  std::string text;
  const auto describe = [&](const wire::ClientMessage& m) {
    text += testlib::Hex({m.code}).substr(0, 2) + " " + m.entity.ToString() + " " +
            m.module.String() + " " + testlib::Hex(m.payload) + ";";
  };
  try {
    if (kind == 'H') {
      size_t consumed = 0;
      const auto h = wire::ParseHello(bytes.data(), bytes.size(), consumed);
      if (!h) return "incomplete";
      return std::to_string(h->lead) + " " + h->magic + " " + std::to_string(h->version) + " " +
             h->token + " " + (h->hasPassword ? h->password : "-") + " " + std::to_string(consumed);
    }
    if (kind == 'D') {
      const auto d = wire::ParseClientDatagram(bytes.data(), bytes.size());
      if (!d) return "incomplete";
      text = std::to_string(d->networkingVersion) + " " + std::to_string(d->serverTag) + " " +
             std::to_string(d->playerId) + ":";
      for (const auto& m : d->messages) describe(m);
      return text;
    }
    orvex::filesystem::ReadOnlyStream in(bytes);
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
  const std::string token(64, 't'), null = wire::Id{}.ToString() + " ";
  const struct {
    const char* name;
    char kind;
    Bytes input;
    std::string expected;
  } rows[] = {
      {"hello, token of 64", 'H', Hello(token), "7 TOVRANE! 1 " + token + " - 81"},
      {"hello with password, more after it", 'H', wire::Join({Hello("", "pw"), {0x03}}),
       "7 TOVRANE! 1  pw 24"},
      {"token count 65, refused before its bytes", 'H', Head(Hello(std::string(65, 't')), 17),
       "error: hello token of 65 bytes is over the limit of 64 bytes"},
      {"a byte other than the marker", 'H', wire::Join({Hello("t"), {0x43}}),
       "error: hello: byte 0x43 after the token, where only the password marker 0x06 may follow"},
      {"messages in sequence", 'M', wire::Join({{0x03}, action, module, {0x02}}),
       "03 " + null + " ;43 " + id.ToString() + "  aa bb\n;7f " + null + "CORE_ship ;02 " + null +
           " ;"},
      {"payload short of its count", 'M', ByteWriter().U8(0x43).Entity(id).U32(1000).U8(1),
       "truncated"},
      {"payload count over the cap", 'M', ByteWriter().U8(0x43).Entity(id).U32(0xFFFFFFF0).U8(1),
       "error: entity action payload of 4294967280 bytes is over the limit of " +
           std::to_string(wire::kMaxPayloadSize) + " bytes"},
      {"datagram: keep-alive, module records", 'D',
       wire::Join({testlib::KeepAliveDatagram(), module, testlib::ModuleRecord("A_b", {3})}),
       "1 2571 1234605616436508552:03 " + null + " ;7f " + null + "CORE_ship ;7f " + null +
           "A_b 03\n;"},
      {"an action in a datagram", 'D', wire::Join({ClientDatagramHeader(), action}), "incomplete"},
  };
  for (const auto& row : rows) EXPECT_EQ(Read(row.kind, row.input), row.expected) << row.name;

  // Every cut is incomplete (a hello until the token ends and again inside the password, a
  // datagram until its first record ends) or truncated (a message), never zero-filled.
  const Bytes hello = Hello("token", "secret"),
              datagram = wire::Join({testlib::KeepAliveDatagram(), module});
  for (size_t cut = 0; cut < hello.size(); ++cut) {
    EXPECT_EQ(Read('H', Head(hello, cut)) != "incomplete", cut == 22) << cut;
  }
  for (size_t cut = 0; cut < datagram.size(); ++cut) {
    EXPECT_EQ(Read('D', Head(datagram, cut)) != "incomplete", cut == 14) << cut;
  }
  for (const Bytes& whole : {action, module}) {
    for (size_t cut = 1; cut < whole.size(); ++cut) {
      EXPECT_EQ(Read('M', Head(whole, cut)), "truncated") << cut;
    }
  }
}

}  // namespace
