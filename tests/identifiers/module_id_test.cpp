// Module identifiers: text to the two base-37 words and back.
#include "identifiers/ModuleID.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

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
      {"trailing spaces are lost", {"A_b ", "A_b  "}, "A_b", 11, 12},
      {"trailing spaces of the prefix too", {"AB  _b"}, "AB_b"},
      {"a space may start a part", {"A_ b"}, "A_ b"},
      {"inner spaces stay", {"A_b c"}, "A_b c"},
      {"leading spaces stay", {" A_b"}, " A_b"},
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

TEST(ModuleId, EveryAlphabetCharacterRoundTripsAndEveryLetterStartsAPart) {
  const std::string upper = orvex::BASE36_UPPER_CHARS, lower = orvex::BASE36_LOWER_CHARS;
  for (size_t digit = 0; digit < 37; ++digit) {
    // Between two letters, so that a space is not lost as a trailing zero.
    const std::string prefix = "Q"s + upper[digit] + "Z", name = "q"s + lower[digit] + "z";
    const ModuleID id(prefix + "_" + name);
    EXPECT_EQ(id.prefix, 27u + digit * 37 + 36u * 37 * 37) << prefix;
    EXPECT_EQ(id.name, 27u + digit * 37 + 36u * 37 * 37) << name;
    EXPECT_EQ(id.String(), prefix + "_" + name);
    const std::string capital(1, upper[digit]), small(1, lower[digit]);
    if (digit > 10) {  // a letter starts a part in either case
      EXPECT_EQ(ModuleID(small + "_" + capital).String(), capital + "_" + small);
    }
  }
}

TEST(ModuleId, BinaryFormIsThePrefixWordThenTheNameWordLittleEndian) {
  const ModuleID id("core_Ship");
  unsigned char bytes[16];
  std::memcpy(bytes, &id, sizeof bytes);
  const unsigned char expected[16] = {0x59, 0x31, 0x0C, 0, 0, 0, 0, 0,
                                      0xC4, 0x80, 0x14, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, std::memcmp(bytes, expected, sizeof bytes));
}

TEST(ModuleId, WordsSetDirectlyPrintWhateverTheyHold) {
  ModuleID id;
  id.prefix = 11;
  EXPECT_EQ(id.String(), "");
  id.name = 37;  // digits 0 then 1: a leading space, then "0"
  EXPECT_EQ(id.String(), "A_ 0");
  id.name = UINT64_MAX;  // beyond twelve digits: prints thirteen, never fails
  EXPECT_EQ(id.String().size(), 2u + 13);
}

}  // namespace
