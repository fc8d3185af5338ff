#include "identifiers/ModuleID.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>

namespace {

using orvex::modular::ModuleID;

constexpr uint64_t kTwelveZ = 6582952005840035280ull;  // 37^12 - 1

struct Example {
  std::string text;
  uint64_t prefix;
  uint64_t name;
  std::string printed;
};

void PrintTo(const Example& e, std::ostream* os) {
  *os << '"' << e.text << '"';
}

class ModuleIdExamples : public testing::TestWithParam<Example> {};

TEST_P(ModuleIdExamples, PacksAndPrints) {
  const Example& e = GetParam();
  const ModuleID id(e.text);
  EXPECT_EQ(id.prefix, e.prefix);
  EXPECT_EQ(id.name, e.name);
  EXPECT_EQ(id.String(), e.printed);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ModuleIdExamples,
    testing::Values(Example{"A_b", 11, 12, "A_b"},
                    Example{"core_Ship", 799065, 1343684, "CORE_ship"},
                    Example{"Mod_x2", 20114, 145, "MOD_x2"},
                    // A second underscore belongs to the name, outside its alphabet.
                    Example{"x_y_z", 34, 0, ""}, Example{"a-b_cd", 0, 531, ""},
                    Example{"ZZZZZZZZZZZZ_zzzzzzzzzzzz", kTwelveZ, kTwelveZ,
                            "ZZZZZZZZZZZZ_zzzzzzzzzzzz"},
                    // A part that starts with a digit assigns nothing.
                    Example{"3d_model", 0, 0, ""}, Example{"abcdefghijklm_x", 0, 0, ""}));

TEST(ModuleIdCase, FoldsPrefixUpAndNameDown) {
  const ModuleID lower("core_Ship");
  const ModuleID upper("CORE_ship");
  const ModuleID mixed("cOrE_sHiP");
  EXPECT_EQ(lower, upper);
  EXPECT_EQ(mixed, upper);
  EXPECT_EQ(mixed.String(), "CORE_ship");
}

TEST(ModuleIdSpaces, TrailingSpacesAreLostLeadingAndInnerOnesSurvive) {
  EXPECT_EQ(ModuleID("A_b ").String(), "A_b");
  EXPECT_EQ(ModuleID("A_b ").name, ModuleID("A_b").name);
  EXPECT_EQ(ModuleID("AB  _b").String(), "AB_b");
  EXPECT_EQ(ModuleID("A_ b").String(), "A_ b");
  EXPECT_EQ(ModuleID("A_b c").String(), "A_b c");
  EXPECT_EQ(ModuleID(" A_b").String(), " A_b");
  // A part made only of spaces is a zero word: nothing prints.
  const ModuleID blank("A_   ");
  EXPECT_EQ(blank.prefix, 11u);
  EXPECT_EQ(blank.name, 0u);
  EXPECT_EQ(blank.String(), "");
}

TEST(ModuleIdLength, TwelveCharactersFitThirteenAssignNothing) {
  EXPECT_EQ(ModuleID("ABCDEFGHIJKL_x").String(), "ABCDEFGHIJKL_x");
  EXPECT_EQ(ModuleID("A_abcdefghijkl").String(), "A_abcdefghijkl");
  EXPECT_EQ(ModuleID("ABCDEFGHIJ12_abcdefghij12").String(), "ABCDEFGHIJ12_abcdefghij12");

  for (const char* text : {"ABCDEFGHIJKLM_x", "A_abcdefghijklm", "ABCDEFGHIJKLM_abcdefghijklm"}) {
    const ModuleID id(text);
    EXPECT_EQ(id.prefix, 0u) << text;
    EXPECT_EQ(id.name, 0u) << text;
  }
}

TEST(ModuleIdFirstCharacter, MustBeALetterOrASpace) {
  // Digits may follow the first character but never start a part.
  EXPECT_EQ(ModuleID("A1_b2").String(), "A1_b2");
  for (const char* text : {"3d_model", "A_3d", "0_x", "A_9", ".A_b", "A_.b", "-A_b", "A_-b"}) {
    const ModuleID id(text);
    EXPECT_EQ(id.prefix, 0u) << text;
    EXPECT_EQ(id.name, 0u) << text;
  }
  // Each letter starts a part, in either case, on either side.
  for (char c = 'a'; c <= 'z'; ++c) {
    const std::string lower(1, c);
    const std::string upper(1, static_cast<char>(c - 'a' + 'A'));
    EXPECT_EQ(ModuleID(lower + "_" + lower).String(), upper + "_" + lower);
    EXPECT_EQ(ModuleID(upper + "_" + upper).String(), upper + "_" + lower);
  }
}

TEST(ModuleIdInvalid, MalformedTextLeavesTheNullIdentifier) {
  for (const char* text : {"", "_", "noseparator", "_x", "A_", "__"}) {
    const ModuleID id(text);
    EXPECT_EQ(id, ModuleID()) << '"' << text << '"';
    EXPECT_EQ(id.String(), "") << '"' << text << '"';
  }
}

TEST(ModuleIdInvalid, ForeignCharactersZeroOnlyTheirOwnWord) {
  // Bytes outside the alphabet, an embedded NUL and a non-ASCII letter included.
  const std::string nul("AB_c\0d", 6);
  const ModuleID withNul(nul);
  EXPECT_NE(withNul.prefix, 0u);
  EXPECT_EQ(withNul.name, 0u);
  EXPECT_EQ(withNul.String(), "");

  const ModuleID accented("A_caf\xC3\xA9");
  EXPECT_EQ(accented.prefix, 11u);
  EXPECT_EQ(accented.name, 0u);

  const ModuleID dotted("A.B_cd");
  EXPECT_EQ(dotted.prefix, 0u);
  EXPECT_EQ(dotted.name, 531u);
  EXPECT_EQ(dotted.String(), "");
}

TEST(ModuleIdDigits, EveryAlphabetCharacterRoundTripsInEveryPosition) {
  // Each part starts with a letter so that any character may follow; the character under
  // test sits before a closing letter so that a space is not lost as a trailing zero.
  const std::string upper = orvex::BASE36_UPPER_CHARS;
  const std::string lower = orvex::BASE36_LOWER_CHARS;
  ASSERT_EQ(upper.size(), 37u);
  ASSERT_EQ(lower.size(), 37u);
  for (size_t digit = 0; digit < 37; ++digit) {
    const std::string prefix = std::string("Q") + upper[digit] + "Z";
    const std::string name = std::string("q") + lower[digit] + "z";
    const ModuleID id(prefix + "_" + name);
    EXPECT_EQ(id.prefix, 27u + digit * 37 + 36u * 37 * 37) << prefix;
    EXPECT_EQ(id.name, 27u + digit * 37 + 36u * 37 * 37) << name;
    EXPECT_EQ(id.String(), prefix + "_" + name);
  }
}

TEST(ModuleIdBinaryForm, IsThePrefixWordThenTheNameWordLittleEndian) {
  const ModuleID id("core_Ship");
  unsigned char bytes[16];
  std::memcpy(bytes, &id, sizeof bytes);
  // 799065 = 0x0C3159, 1343684 = 0x1480C4
  const unsigned char expected[16] = {0x59, 0x31, 0x0C, 0, 0, 0, 0, 0,
                                      0xC4, 0x80, 0x14, 0, 0, 0, 0, 0};
  EXPECT_EQ(0, std::memcmp(bytes, expected, sizeof bytes));
}

TEST(ModuleIdString, PrintsWordsSetDirectly) {
  ModuleID id;
  EXPECT_EQ(id.String(), "");
  id.prefix = 11;
  EXPECT_EQ(id.String(), "");
  id.name = 37;  // digits 0 then 1: a leading space, then "0"
  EXPECT_EQ(id.String(), "A_ 0");
  id.name = UINT64_MAX;  // beyond twelve digits: prints thirteen, never fails
  EXPECT_EQ(id.String().size(), std::string("A_").size() + 13);
}

}  // namespace
