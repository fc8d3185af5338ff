#include "game/UniqueId.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "game/entity/Id.h"

namespace {

game::UniqueId FromBytes(const unsigned char (&bytes)[16]) {
  game::UniqueId id;
  std::memcpy(&id, bytes, sizeof bytes);
  return id;
}

TEST(UniqueIdText, TagThenHexOfTheBytesInMemoryOrder) {
  const unsigned char bytes[16] = {'S',  'H',  'I',  'P',  0xDE, 0xAD, 0xBE, 0xEF,
                                   0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x8A};
  const game::UniqueId id = FromBytes(bytes);
  ASSERT_EQ(id.word0, 0xEFBEADDE50494853ull);
  ASSERT_EQ(id.word1, 0x8A07060504030201ull);
  EXPECT_EQ(std::string(id), "SHIPDEADBEEF010203040506078A");
  // Entity ids share the bytes and the text.
  EXPECT_EQ((game::entity::Id{id.word0, id.word1}.ToString()), "SHIPDEADBEEF010203040506078A");
}

TEST(UniqueIdText, AZeroWordIsTheNullIdentifierAndPrintsNothing) {
  EXPECT_EQ(std::string(game::UniqueId{}), "");
  EXPECT_EQ(std::string(game::UniqueId{0, 0x8A07060504030201ull}), "");
  EXPECT_EQ(std::string(game::UniqueId{0xEFBEADDE50494853ull, 0}), "");
  EXPECT_EQ((game::entity::Id{0, 1}.ToString()), "");
  EXPECT_EQ((game::entity::Id{1, 0}.ToString()), "");
}

TEST(UniqueIdText, ZeroTagBytesStayFourCharactersOfTheText) {
  const unsigned char bytes[16] = {0, 0, 0, 0, 0x12, 0x34, 0x56, 0x78, 1, 0, 0, 0, 0, 0, 0, 0};
  const std::string text = game::UniqueId(FromBytes(bytes));
  ASSERT_EQ(text.size(), 28u);
  EXPECT_EQ(text, std::string("\0\0\0\0", 4) + "12345678" + "0100000000000000");

  // A tag is copied whatever its bytes are, zero in the middle included.
  const unsigned char odd[16] = {'A', 0, 0xFF, '\n', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  EXPECT_EQ(std::string(FromBytes(odd)),
            std::string("A\0\xFF\n", 4) + "00000000" + "0000000000000001");
}

TEST(UniqueIdText, EveryByteValuePrintsAsTwoCapitalDigits) {
  for (int position = 4; position < 16; ++position) {
    for (int value = 0; value < 256; ++value) {
      unsigned char bytes[16] = {'T', 'A', 'G', 'S', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
      // Keep word 1 non-zero whichever byte is under test (the tag keeps word 0 so).
      bytes[position == 15 ? 8 : 15] = 0x80;
      bytes[position] = static_cast<unsigned char>(value);
      char hex[3];
      std::snprintf(hex, sizeof hex, "%02X", value);
      const std::string text = game::UniqueId(FromBytes(bytes));
      ASSERT_EQ(text.size(), 28u);
      ASSERT_EQ(text.substr(4 + 2 * (position - 4), 2), hex)
          << "byte " << position << " value " << value;
    }
  }
  // 0x0A to 0x0F in capitals, with their leading zero.
  const unsigned char bytes[16] = {'X',  'Y',  'Z',  'W',  0x0A, 0x0B, 0x0C, 0x0D,
                                   0x0E, 0x0F, 0xAB, 0xCD, 0xEF, 0xFA, 0x00, 0x09};
  EXPECT_EQ(std::string(FromBytes(bytes)), "XYZW0A0B0C0D0E0FABCDEFFA0009");
}

}  // namespace
