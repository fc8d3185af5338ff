// Identifiers: module ids to the two base-37 words and back, unique ids to text.
#include "identifiers/ModuleID.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "game/UniqueId.h"
#include "game/entity/Id.h"

namespace {

using orvex::modular::ModuleID;
using namespace std::string_literals;

constexpr uint64_t kAny = ~0ull;
constexpr uint64_t kTwelveZ = 6582952005840035280ull;  // 37^12 - 1

TEST(ModuleId, WorkedExamples) {
  const struct {
    const char* name;
    std::vector<std::string> texts;
    std::string printed;
    uint64_t prefix = kAny, word = kAny;  // kAny: not checked
  } rows[] = {
      {"packs first character lowest", {"A_b"}, "A_b", 11, 12},
      {"prefix folds up, name down", {"core_Ship", "cOrE_sHiP"}, "CORE_ship", 799065, 1343684},
      {"digits after the first character", {"Mod_x2"}, "MOD_x2", 20114, 145},
      {"twelve characters fit",
       {"ZZZZZZZZZZZZ_zzzzzzzzzzzz"},
       "ZZZZZZZZZZZZ_zzzzzzzzzzzz",
       kTwelveZ,
       kTwelveZ},
      {"trailing spaces are lost, of the prefix too", {"A_b ", "A _b  "}, "A_b", 11, 12},
      {"leading and inner spaces stay", {" A_ b c"}, " A_ b c"},
      {"a part of spaces is zero", {"A_   "}, "", 11, 0},
      {"a second underscore is foreign", {"x_y_z"}, "", 34, 0},
      {"a foreign character zeroes its word", {"a-b_cd", "A.B_cd"}, "", 0, 531},
      {"NUL and non-ASCII are foreign", {"AB_c\0d"s, "AB_caf\xC3\xA9"}, "", 455, 0},
      {"malformed or too long: nothing is assigned",
       {"", "_", "noseparator", "_x", "A_", "__", "3d_model", "A_3d", "0_x", "A_9", ".A_b", "A_.b",
        "-A_b", "A_-b", "ABCDEFGHIJKLM_x", "A_abcdefghijklm"},
       "",
       0,
       0},
  };
  for (const auto& row : rows) {
    for (const std::string& text : row.texts) {
      SCOPED_TRACE(std::string(row.name) + ": \"" + text + "\"");
      const ModuleID id(text);
      EXPECT_EQ(id.String(), row.printed);
      EXPECT_TRUE(row.prefix == kAny || id.prefix == row.prefix) << id.prefix;
      EXPECT_TRUE(row.word == kAny || id.name == row.word) << id.name;
    }
  }
}

TEST(ModuleId, StoredAsThePrefixWordThenTheNameWordAndPrintsWhateverTheWordsHold) {
  ModuleID id("core_Ship");
  const unsigned char expected[16] = {0x59, 0x31, 0x0C, 0, 0, 0, 0, 0, 0xC4, 0x80, 0x14};
  EXPECT_EQ(0, std::memcmp(&id, expected, sizeof expected));
  id.prefix = 11, id.name = 37;  // digits 0 then 1: a leading space, then "0"
  EXPECT_EQ(id.String(), "A_ 0");
  id.name = UINT64_MAX;  // beyond twelve digits: prints thirteen, never fails
  EXPECT_EQ(id.String().size(), 2u + 13);
}

TEST(UniqueIdText, WorkedExamples) {
  const struct {
    const char* name;
    std::string bytes;  // the 16 bytes in memory order
    std::string text;
  } rows[] = {
      {"tag then every hex digit", "TAGS\x12\x34\x56\x78\x9A\xBC\xDE\xF0\x0F\xED\xCB\xA9"s,
       "TAGS123456789ABCDEF00FEDCBA9"},
      {"zero second word", "SHIP\xDE\xAD\xBE\xEF\0\0\0\0\0\0\0\0"s, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    game::UniqueId id;
    std::memcpy(&id, row.bytes.data(), 16);
    EXPECT_EQ(std::string(id), row.text);
    EXPECT_EQ((game::entity::Id{id.word0, id.word1}.ToString()), row.text);
  }
}

}  // namespace
