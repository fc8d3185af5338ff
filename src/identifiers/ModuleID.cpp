#include "orvex/modular/ModuleID.h"

#include <cctype>
#include <string_view>

namespace orvex::modular {
namespace {

constexpr std::string_view kUpper(BASE36_UPPER_CHARS, 37);
constexpr std::string_view kLower(BASE36_LOWER_CHARS, 37);
// A part starts with a space or a letter of its case, never with a digit.
constexpr std::string_view kUpperFirst = " ABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr std::string_view kLowerFirst = " abcdefghijklmnopqrstuvwxyz";
constexpr double kTwoTo64 = 18446744073709551616.0;

// Base 37, first character least significant. A character outside the alphabet makes the
// whole word zero. The overflow guard cannot trigger for 12 characters; it stays a guard.
uint64_t Pack(const std::string& part, std::string_view alphabet) {
  uint64_t value = 0;
  for (auto it = part.rbegin(); it != part.rend(); ++it) {
    const size_t digit = alphabet.find(*it);
    if (digit == std::string_view::npos) return 0;
    const double scaled = static_cast<double>(value) * 37.0;
    if (scaled > kTwoTo64 || scaled + static_cast<double>(digit) > kTwoTo64) return 0;
    value = value * 37 + digit;
  }
  return value;
}

std::string Unpack(uint64_t word, std::string_view alphabet) {
  std::string text;
  for (;;) {
    text += alphabet[word % 37];
    if (word < 37) break;
    word /= 37;
  }
  return text;
}

}  // namespace

ModuleID::ModuleID(const std::string& text) {
  if (text.empty()) return;
  const size_t underscore = text.find('_');
  if (underscore == std::string::npos) return;
  std::string prefixText = text.substr(0, underscore);
  std::string nameText = text.substr(underscore + 1);
  for (char& c : prefixText) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (char& c : nameText) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (prefixText.empty() || prefixText.size() > 12) return;
  if (nameText.empty() || nameText.size() > 12) return;
  if (kUpperFirst.find(prefixText[0]) == std::string_view::npos) return;
  if (kLowerFirst.find(nameText[0]) == std::string_view::npos) return;
  prefix = Pack(prefixText, kUpper);
  name = Pack(nameText, kLower);
}

std::string ModuleID::String() const {
  if (prefix == 0 || name == 0) return {};
  return Unpack(prefix, kUpper) + "_" + Unpack(name, kLower);
}

}  // namespace orvex::modular
