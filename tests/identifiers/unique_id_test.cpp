// Text form of unique identifiers and entity ids.
#include "game/UniqueId.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "game/entity/Id.h"

namespace {

using namespace std::string_literals;

TEST(UniqueIdText, WorkedExamples) {
  const struct {
    const char* name;
    std::string bytes;  // the 16 bytes in memory order
    std::string text;
  } rows[] = {
      {"tag then hex", "SHIP\xDE\xAD\xBE\xEF\x01\x02\x03\x04\x05\x06\x07\x8A"s,
       "SHIPDEADBEEF010203040506078A"},
      {"every digit in both nibbles", "TAGS\x12\x34\x56\x78\x9A\xBC\xDE\xF0\x0F\xED\xCB\xA9"s,
       "TAGS123456789ABCDEF00FEDCBA9"},
      {"zero tag bytes stay", "\0\0\0\0\x12\x34\x56\x78\x01\0\0\0\0\0\0\0"s,
       "\0\0\0\0"s + "123456780100000000000000"},
      {"any tag byte is copied", "A\0\xFF\n\0\0\0\0\0\0\0\0\0\0\0\x01"s,
       "A\0\xFF\n"s + "000000000000000000000001"},
      {"zero first word", "\0\0\0\0\0\0\0\0\x01\x02\x03\x04\x05\x06\x07\x08"s, ""},
      {"zero second word", "SHIP\xDE\xAD\xBE\xEF\0\0\0\0\0\0\0\0"s, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ASSERT_EQ(row.bytes.size(), 16u);
    game::UniqueId id;
    std::memcpy(&id, row.bytes.data(), 16);
    EXPECT_EQ(std::string(id), row.text);
    EXPECT_EQ((game::entity::Id{id.word0, id.word1}.ToString()), row.text);
  }
  EXPECT_EQ(std::string(game::UniqueId{}), "");
}

}  // namespace
