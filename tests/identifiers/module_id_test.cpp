// Identifiers: module ids to the two base-37 words and back.
#include "orvex/modular/ModuleID.h"

#include <gtest/gtest.h>

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
      if (row.prefix != kAny) {
        EXPECT_EQ(id.prefix, row.prefix);
      }
      if (row.word != kAny) {
        EXPECT_EQ(id.name, row.word);
      }
    }
  }
}

}  // namespace
