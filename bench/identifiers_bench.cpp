// Module identifier parsing and printing, unique identifier text, against plain C
// conversions of the same size measured in the same run.
//
// Names read Case/Implementation; the implementation marked "base:" is the baseline that
// bench/run.sh divides by.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "game/UniqueId.h"
#include "orvex/modular/ModuleID.h"

namespace {

using orvex::modular::ModuleID;

const std::string kModuleText = "core_Ship";
const std::string kLongModuleText = "ABCDEFGHIJKL_abcdefghijkl";

void ParseModuleId(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(text.data());
    ModuleID id(text);
    benchmark::DoNotOptimize(id);
  }
}

// The same amount of work in C: split at the underscore, read both parts as base-36
// numbers.
void ParseStrtoull(benchmark::State& state, const std::string& text) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(text.data());
    const size_t underscore = text.find('_');
    char prefix[16];
    std::memcpy(prefix, text.data(), underscore);
    prefix[underscore] = '\0';
    uint64_t words[2] = {std::strtoull(prefix, nullptr, 36),
                         std::strtoull(text.c_str() + underscore + 1, nullptr, 36)};
    benchmark::DoNotOptimize(words);
  }
}

void ModuleIdString(benchmark::State& state, const std::string& text) {
  const ModuleID id(text);
  for (auto _ : state) {
    benchmark::DoNotOptimize(&id);
    std::string printed = id.String();
    benchmark::DoNotOptimize(printed);
  }
}

game::UniqueId ShipId() {
  const unsigned char bytes[16] = {'S',  'H',  'I',  'P',  0xDE, 0xAD, 0xBE, 0xEF,
                                   0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x8A};
  game::UniqueId id;
  std::memcpy(&id, bytes, sizeof bytes);
  return id;
}

void UniqueIdText(benchmark::State& state) {
  const game::UniqueId id = ShipId();
  for (auto _ : state) {
    benchmark::DoNotOptimize(&id);
    std::string text = id;
    benchmark::DoNotOptimize(text);
  }
}

// Sixteen bytes as hexadecimal through snprintf, into a std::string.
void SnprintfHex16(benchmark::State& state) {
  const game::UniqueId id = ShipId();
  unsigned char bytes[16];
  std::memcpy(bytes, &id, sizeof bytes);
  for (auto _ : state) {
    benchmark::DoNotOptimize(bytes);
    char buffer[33];
    for (int i = 0; i < 16; ++i) std::snprintf(buffer + 2 * i, 3, "%02X", bytes[i]);
    std::string text(buffer, 32);
    benchmark::DoNotOptimize(text);
  }
}

BENCHMARK_CAPTURE(ParseModuleId, short, kModuleText)->Name("Parse/ModuleID/core_Ship");
BENCHMARK_CAPTURE(ParseStrtoull, short, kModuleText)->Name("Parse/base:strtoull36/core_Ship");
BENCHMARK_CAPTURE(ParseModuleId, long, kLongModuleText)->Name("Parse/ModuleID/12+12");
BENCHMARK_CAPTURE(ParseStrtoull, long, kLongModuleText)->Name("Parse/base:strtoull36/12+12");

BENCHMARK_CAPTURE(ModuleIdString, short, kModuleText)->Name("ToText/ModuleID::String/core_Ship");
BENCHMARK_CAPTURE(ModuleIdString, long, kLongModuleText)->Name("ToText/ModuleID::String/12+12");
BENCHMARK(UniqueIdText)->Name("ToText/UniqueId");
BENCHMARK(SnprintfHex16)->Name("ToText/base:snprintf_hex16");

}  // namespace
