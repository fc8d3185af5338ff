// The server's message layouts against hand-written bytes, and its readers against
// hand-made client bytes, whole and cut at every length.
#include "server/Wire.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

using orvex::filesystem::ReadOnlyStream;
using orvex::filesystem::Stream;
using wire::Bytes;
using wire::ByteWriter;

// "01 0a ff" -> {0x01, 0x0a, 0xff}; "'ab'" -> the bytes of "ab".
Bytes Hex(const std::string& text) {
  Bytes bytes;
  for (size_t i = 0; i < text.size();) {
    if (text[i] == ' ' || text[i] == '\n') {
      ++i;
    } else if (text[i] == '\'') {
      const size_t end = text.find('\'', i + 1);
      bytes.insert(bytes.end(), text.begin() + static_cast<long>(i) + 1,
                   text.begin() + static_cast<long>(end));
      i = end + 1;
    } else {
      bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
      i += 2;
    }
  }
  return bytes;
}

template <typename Write>
Bytes Written(Write write) {
  Stream stream;
  write(stream);
  return wire::BytesOf(stream);
}

const std::string kMagic = "'TOVRANE!'";
const std::string kZeroId = "00000000 00000000 00000000 00000000";

// ---------------------------------------------------------------------------------------

TEST(WireHandshake, WelcomeCarriesEveryFieldInOrder) {
  wire::Welcome welcome;
  welcome.serverTag = 0x0A0B;
  welcome.playerId = 0x1122334455667788ull;
  welcome.username = "ab";
  welcome.mods = {"X_y", "CORE_ship"};
  welcome.mode = -2;
  welcome.config = wire::ConfigText("a");
  EXPECT_EQ(Written([&](Stream& s) { wire::WriteWelcome(s, welcome); }),
            Hex("01  0100  0B0A  8877665544332211"
                "02000000 'ab'"
                "03000000 'X_y'  09000000 'CORE_ship'  00000000"
                "FEFFFFFF"
                "02000000 'a' 00"));
}

TEST(WireHandshake, WelcomeWithoutModsOrConfigEndsTheListAtOnce) {
  wire::Welcome welcome;
  EXPECT_EQ(Written([&](Stream& s) { wire::WriteWelcome(s, welcome); }),
            Hex("01 0100 0000 0000000000000000 00000000 00000000 00000000 00000000"));
}

TEST(WireHandshake, RefusalIsStatusZeroAndTheReason) {
  EXPECT_EQ(Written([](Stream& s) { wire::WriteRefusal(s, "Wrong password"); }),
            Hex("00 0E000000 'Wrong password'"));
}

// ---------------------------------------------------------------------------------------

TEST(WireServerMessages, CreateUpdateAndMoveOrderTheirFieldsDifferently) {
  const wire::Id id{1, 2}, parent{3, 4};
  const glm::dvec3 position{1.0, 2.0, -0.5};
  const wire::Orientation q{1.0, 0.0, 0.0, 0.0};
  const std::string vec = "000000000000F03F 0000000000000040 000000000000E0BF";
  const std::string quat = "000000000000F03F 0000000000000000 0000000000000000 0000000000000000";
  const std::string ids = "0100000000000000 0200000000000000";
  const std::string parentIds = "0300000000000000 0400000000000000";

  wire::EntityCreate create{id, wire::ModuleID("A_b"), "ship", parent, position, q, 1, 0, {9, 8}};
  EXPECT_EQ(Written([&](Stream& s) { wire::WriteEntityCreate(s, create); }),
            Hex("40" + ids + "0B00000000000000 0C00000000000000" + "04000000 'ship'" + parentIds +
                vec + quat + "01 00" + "02000000 0908"));

  wire::EntityUpdate update{id, parent, position, q, 2, 1, {}};
  EXPECT_EQ(Written([&](Stream& s) { wire::WriteEntityUpdate(s, update); }),
            Hex("42" + ids + parentIds + vec + quat + "02 01" + "00000000"));

  // The move's flag comes before the position.
  wire::EntityMove move{id, 1, position, q};
  EXPECT_EQ(Written([&](Stream& s) { wire::WriteEntityMove(s, move); }),
            Hex("46" + ids + "01" + vec + quat));
}

TEST(WireServerMessages, ShortMessages) {
  EXPECT_EQ(Written([](Stream& s) {
              wire::WriteEntityDestroy(s, wire::Id{1, 2});
            }),
            Hex("41 0100000000000000 0200000000000000"));
  EXPECT_EQ(Written([](Stream& s) { wire::WriteWorld(s, "moon"); }), Hex("04 04000000 'moon'"));
  EXPECT_EQ(Written([](Stream& s) { wire::WriteAdminStatus(s, "op", 1); }),
            Hex("05 02000000 'op' 01"));
  EXPECT_EQ(Written([](Stream& s) { wire::WriteModuleMessage(s, wire::ModuleID("A_b"), {7}); }),
            Hex("7F 0B00000000000000 0C00000000000000 01000000 07"));
  EXPECT_EQ(Written([](Stream& s) { wire::WriteDisconnect(s); }), Hex("02"));
}

// ---------------------------------------------------------------------------------------

TEST(WireDatagrams, TransformsCarryTheParentAndSinglePrecisionOrientations) {
  wire::StateHeader header{0.5, 7, 8, 9, 4};
  wire::TransformRecord record;
  record.id = {5, 6};
  record.position = {2.0, 0.0, 0.0};
  record.orientation[0] = 1.0f;
  record.orientation[3] = 0.5f;
  EXPECT_EQ(wire::TransformsDatagram(header, wire::Id{3, 4}, {record}),
            Hex(kMagic +
                "44 000000000000E03F 0700000000000000 0800000000000000 0900000000000000"
                "0300000000000000 0400000000000000 04000000"
                "0500000000000000 0600000000000000"
                "0000000000000040 0000000000000000 0000000000000000"
                "0000803F 00000000 00000000 0000003F" +
                kZeroId));
  EXPECT_EQ(wire::TransformsDatagram(header, wire::Id{3, 4}, {}, false).size(),
            wire::kTransformsHeaderSize);
}

TEST(WireDatagrams, PhysicsHasNoParentIdAndTwoVectorsPerRecord) {
  wire::StateHeader header{0.0, 1, 0, 0, 1};
  wire::PhysicsRecord record{wire::Id{5, 6}, {1.0, 0.0, 0.0}, {0.0, 0.0, -0.5}};
  EXPECT_EQ(wire::PhysicsDatagram(header, {record}),
            Hex(kMagic +
                "45 0000000000000000 0100000000000000 0000000000000000 0000000000000000"
                "01000000"
                "0500000000000000 0600000000000000"
                "000000000000F03F 0000000000000000 0000000000000000"
                "0000000000000000 0000000000000000 000000000000E0BF" +
                kZeroId));
}

TEST(WireDatagrams, ModuleDatagramEmbedsThePayload) {
  EXPECT_EQ(wire::ModuleDatagram(wire::ModuleID("A_b"), {1, 2, 3}),
            Hex(kMagic + "7F 0B00000000000000 0C00000000000000 03000000 010203"));
}

TEST(WireDatagrams, MaxRecordsFillButNeverOverflowADatagram) {
  for (uint8_t code : {uint8_t{0x44}, uint8_t{0x45}}) {
    const size_t n = wire::MaxRecordsPerDatagram(code);
    auto size = [&](size_t records) {
      return code == 0x44
                 ? wire::TransformsDatagram({}, {}, std::vector<wire::TransformRecord>(records))
                       .size()
                 : wire::PhysicsDatagram({}, std::vector<wire::PhysicsRecord>(records)).size();
    };
    EXPECT_LE(size(n), wire::kMaxDatagram) << int(code);
    EXPECT_GT(size(n + 1), wire::kMaxDatagram) << int(code);
  }
  EXPECT_EQ(wire::MaxRecordsPerDatagram(0x44, 10), 0u);
  EXPECT_THROW(wire::MaxRecordsPerDatagram(0x40), std::invalid_argument);
}

// ---------------------------------------------------------------------------------------
// Client bytes.

Bytes HelloBytes(const std::string& token, const std::string* password = nullptr) {
  ByteWriter w;
  w.U8(7).Chars("TOVRANE!").U32(1).Text(token);
  if (password != nullptr) w.U8(6).Text(*password);
  return w;
}

TEST(WireHello, ParsesWithAndWithoutPassword) {
  size_t consumed = 0;
  const Bytes plain = HelloBytes("tok");
  auto hello = wire::ParseHello(plain.data(), plain.size(), consumed);
  ASSERT_TRUE(hello);
  EXPECT_EQ(hello->lead, 7);
  EXPECT_EQ(hello->magic, "TOVRANE!");
  EXPECT_EQ(hello->version, 1u);
  EXPECT_EQ(hello->token, "tok");
  EXPECT_FALSE(hello->hasPassword);
  EXPECT_EQ(consumed, plain.size());

  const std::string password = "pw";
  Bytes withPassword = HelloBytes("", &password);
  withPassword.push_back(0x03);  // whatever follows is not part of the hello
  hello = wire::ParseHello(withPassword.data(), withPassword.size(), consumed);
  ASSERT_TRUE(hello);
  EXPECT_TRUE(hello->hasPassword);
  EXPECT_EQ(hello->password, "pw");
  EXPECT_EQ(hello->token, "");
  EXPECT_EQ(consumed, withPassword.size() - 1);
}

TEST(WireHello, TokenCapIsSixtyFourBytes) {
  size_t consumed = 0;
  const Bytes ok = HelloBytes(std::string(64, 't'));
  EXPECT_TRUE(wire::ParseHello(ok.data(), ok.size(), consumed));
  // Refused as soon as the count is seen, before the token's bytes are there.
  const Bytes tooLong = HelloBytes(std::string(65, 't'));
  EXPECT_THROW(wire::ParseHello(tooLong.data(), 17, consumed), std::runtime_error);
  const Bytes huge = ByteWriter().U8(7).Chars("TOVRANE!").U32(1).U32(0xFFFFFFFF);
  EXPECT_THROW(wire::ParseHello(huge.data(), huge.size(), consumed), std::runtime_error);
}

TEST(WireHello, AnythingButThePasswordMarkerAfterTheTokenIsRefused) {
  size_t consumed = 0;
  Bytes bytes = HelloBytes("t");
  bytes.push_back(0x43);
  try {
    wire::ParseHello(bytes.data(), bytes.size(), consumed);
    FAIL() << "accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("0x43"), std::string::npos) << e.what();
  }
}

TEST(WireHello, EveryCutIsIncompleteUntilTheTokenEnds) {
  const std::string password = "secret";
  const Bytes bytes = HelloBytes("token", &password);
  const size_t tokenEnd = 1 + 8 + 4 + 4 + 5;
  for (size_t cut = 0; cut < bytes.size(); ++cut) {
    size_t consumed = 0;
    auto hello = wire::ParseHello(bytes.data(), cut, consumed);
    if (cut < tokenEnd) {
      EXPECT_FALSE(hello) << cut;
    } else if (cut == tokenEnd) {
      ASSERT_TRUE(hello) << cut;  // complete as far as it goes: the caller may wait for more
      EXPECT_FALSE(hello->hasPassword);
    } else {
      EXPECT_FALSE(hello) << cut;  // inside the password
    }
  }
}

// ---------------------------------------------------------------------------------------

const Bytes kMessages = ByteWriter()
                            .U8(0x03)
                            .U8(0x43)
                            .Entity(wire::Id{1, 2})
                            .Block({0xAA, 0xBB})
                            .U8(0x7F)
                            .Module(wire::ModuleID("CORE_ship"))
                            .Block({})
                            .U8(0x02);

TEST(WireClientMessages, ReadsEachKindInSequence) {
  ReadOnlyStream in(kMessages);
  EXPECT_EQ(wire::ReadClientMessage(in).code, 0x03);
  const wire::ClientMessage action = wire::ReadClientMessage(in);
  EXPECT_EQ(action.code, 0x43);
  EXPECT_EQ(action.entity, (wire::Id{1, 2}));
  EXPECT_EQ(action.payload, (Bytes{0xAA, 0xBB}));
  const wire::ClientMessage module = wire::ReadClientMessage(in);
  EXPECT_EQ(module.code, 0x7F);
  EXPECT_EQ(module.module.String(), "CORE_ship");
  EXPECT_TRUE(module.payload.empty());
  EXPECT_EQ(wire::ReadClientMessage(in).code, 0x02);
  EXPECT_EQ(in.GetBufferSize(), 0u);
}

TEST(WireClientMessages, ModuleMessageReadsBackWhatTheServerWrites) {
  const Bytes payload(300, 0x5A);
  ReadOnlyStream in(
      Written([&](Stream& s) { wire::WriteModuleMessage(s, wire::ModuleID("A_b"), payload); }));
  const wire::ClientMessage message = wire::ReadClientMessage(in);
  EXPECT_EQ(message.module, wire::ModuleID("A_b"));
  EXPECT_EQ(message.payload, payload);
}

TEST(WireClientMessages, UnknownCodeIsNamed) {
  for (uint8_t code : {uint8_t{0x00}, uint8_t{0x06}, uint8_t{0x40}, uint8_t{0xFF}}) {
    ReadOnlyStream in(Bytes{code});
    try {
      wire::ReadClientMessage(in);
      FAIL() << int(code);
    } catch (const std::runtime_error& e) {
      char name[8];
      std::snprintf(name, sizeof name, "0x%02X", code);
      EXPECT_NE(std::string(e.what()).find(name), std::string::npos) << e.what();
    }
  }
}

TEST(WireClientMessages, EveryCutIsTruncatedNeverZeroFilled) {
  // The action and the module message, each cut at every length.
  const Bytes action(kMessages.begin() + 1, kMessages.begin() + 1 + 1 + 16 + 4 + 2);
  const Bytes module(kMessages.begin() + 1 + action.size(), kMessages.end() - 1);
  for (const Bytes& whole : {action, module}) {
    for (size_t cut = 1; cut < whole.size(); ++cut) {
      ReadOnlyStream in(Bytes(whole.begin(), whole.begin() + static_cast<long>(cut)));
      EXPECT_THROW(wire::ReadClientMessage(in), wire::Truncated) << cut;
    }
    ReadOnlyStream in(whole);
    EXPECT_NO_THROW(wire::ReadClientMessage(in));
  }
  // A payload count beyond the bytes present is truncation; beyond the cap it is refused
  // outright, as no message can be that long.
  ReadOnlyStream shortPayload(ByteWriter().U8(0x43).Entity(wire::Id{1, 2}).U32(1000).U8(1));
  EXPECT_THROW(wire::ReadClientMessage(shortPayload), wire::Truncated);
  ReadOnlyStream hostile(ByteWriter().U8(0x43).Entity(wire::Id{1, 2}).U32(0xFFFFFFF0).U8(1));
  try {
    wire::ReadClientMessage(hostile);
    FAIL() << "accepted";
  } catch (const wire::Truncated&) {
    FAIL() << "a count over the cap is not a message to wait for";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("limit"), std::string::npos) << e.what();
  }
}

// ---------------------------------------------------------------------------------------

ByteWriter DatagramHeader(uint8_t lead = 7) {
  ByteWriter w;
  w.U8(lead).U16(1).U16(0x0A0B).U64(0x1122334455667788ull);
  return w;
}

TEST(WireClientDatagrams, KeepAliveAndModuleRecords) {
  const Bytes keepAlive = DatagramHeader().U8(0x03);
  ASSERT_EQ(keepAlive, Hex("07 0100 0B0A 8877665544332211 03"));
  auto parsed = wire::ParseClientDatagram(keepAlive.data(), keepAlive.size());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->lead, 7);
  EXPECT_EQ(parsed->networkingVersion, 1);
  EXPECT_EQ(parsed->serverTag, 0x0A0B);
  EXPECT_EQ(parsed->playerId, 0x1122334455667788ull);
  ASSERT_EQ(parsed->messages.size(), 1u);
  EXPECT_EQ(parsed->messages[0].code, 0x03);

  const Bytes modules = DatagramHeader()
                            .U8(0x7F)
                            .Module(wire::ModuleID("A_b"))
                            .Block({1, 2})
                            .U8(0x7F)
                            .Module(wire::ModuleID("C_d"))
                            .Block({3});
  parsed = wire::ParseClientDatagram(modules.data(), modules.size());
  ASSERT_TRUE(parsed);
  ASSERT_EQ(parsed->messages.size(), 2u);
  EXPECT_EQ(parsed->messages[0].module.String(), "A_b");
  EXPECT_EQ(parsed->messages[0].payload, (Bytes{1, 2}));
  EXPECT_EQ(parsed->messages[1].module.String(), "C_d");
  EXPECT_EQ(parsed->messages[1].payload, (Bytes{3}));
}

TEST(WireClientDatagrams, LeadAndVersionAreReportedNotJudged) {
  const Bytes bytes = DatagramHeader(0x09).U8(0x03);
  auto parsed = wire::ParseClientDatagram(bytes.data(), bytes.size());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->lead, 0x09);
}

TEST(WireClientDatagrams, MalformedDatagramsAreRejected) {
  const Bytes headerOnly = DatagramHeader();
  EXPECT_FALSE(wire::ParseClientDatagram(headerOnly.data(), headerOnly.size()));
  const Bytes unknown = DatagramHeader().U8(0x03).U8(0x43);
  EXPECT_FALSE(wire::ParseClientDatagram(unknown.data(), unknown.size()));
  const Bytes overlong = DatagramHeader().U8(0x7F).Module(wire::ModuleID("A_b")).U32(100).U8(1);
  EXPECT_FALSE(wire::ParseClientDatagram(overlong.data(), overlong.size()));

  const Bytes whole =
      DatagramHeader().U8(0x03).U8(0x7F).Module(wire::ModuleID("A_b")).Block({1, 2, 3});
  for (size_t cut = 0; cut < whole.size(); ++cut) {
    // Cutting right after the keep-alive leaves a complete datagram.
    EXPECT_EQ(wire::ParseClientDatagram(whole.data(), cut).has_value(), cut == 14) << cut;
  }
  EXPECT_TRUE(wire::ParseClientDatagram(whole.data(), whole.size()));
}

}  // namespace
