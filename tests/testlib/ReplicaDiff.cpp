#include "ReplicaDiff.h"

#include <cmath>
#include <cstdio>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "game/entity/Id.h"

namespace testlib {
namespace {

using nlohmann::json;

// The dump writes non-finite numbers as text.
std::vector<double> Numbers(const json& array) {
  std::vector<double> values;
  for (const json& v : array) {
    const std::string text = v.is_string() ? v.get<std::string>() : "";
    values.push_back(v.is_number()    ? v.get<double>()
                     : text == "inf"  ? INFINITY
                     : text == "-inf" ? -INFINITY
                                      : NAN);
  }
  return values;
}

// The dump writes ids as two decimal words, the server's state as the id's text form.
std::string IdText(const json& words) {
  game::entity::Id id;
  id.word0 = std::stoull(words.at(0).get<std::string>());
  id.word1 = std::stoull(words.at(1).get<std::string>());
  return id.ToString();
}

std::string Text(const std::vector<double>& values) {
  std::string text;
  char number[32];
  for (double v : values) text += (std::snprintf(number, sizeof number, "%.17g ", v), number);
  return text;
}

}  // namespace

std::vector<std::string> ReplicaDifferences(const std::string& stateText,
                                            const std::string& dumpText) {
  const json state = json::parse(stateText), dump = json::parse(dumpText);
  std::map<std::string, json> expected;
  for (const json& e : state.at("entities")) {
    if (e.at("text") != "nointerface") expected[e.at("id").get<std::string>()] = e;
  }
  std::vector<std::string> differences;
  std::set<std::string> replicated;
  for (const json& e : dump.at("entities")) {
    const std::string id = IdText(e.at("id"));
    auto differ = [&](const std::string& what) { differences.push_back(id + ": " + what); };
    replicated.insert(id);
    const auto it = expected.find(id);
    if (it == expected.end()) {
      differ("in the replica, gone from the server");
      continue;
    }
    const json& want = it->second;
    for (const char* field : {"module", "text"}) {
      if (e.at(field) != want.at(field)) differ(field);
    }
    if (IdText(e.at("parent")) != want.at("parent").get<std::string>()) differ("parent");
    char sync[17];
    std::snprintf(sync, sizeof sync, "%08x%08x",
                  __builtin_bswap32(want.at("serial").get<uint32_t>()),
                  __builtin_bswap32(want.at("revision").get<uint32_t>()));
    if (e.at("sync").empty() || e.at("sync").back() != sync) differ("sync data");
    const std::vector<double> position = Numbers(want.at("position"));
    const std::vector<double> orientation = Numbers(want.at("orientation"));
    if (e.at("serverDriven").get<bool>()) {
      const std::vector<double> target = Numbers(e.at("targetPosition"));
      if (target != position) differ("target " + Text(target) + "!= " + Text(position));
      if (Numbers(e.at("targetOrientation")) != orientation) differ("target orientation");
      if (!e.at("hasTarget").get<bool>()) differ("no target");
    } else {
      const std::vector<double> got = Numbers(e.at("position"));
      if (got != position) differ("position " + Text(got) + "!= " + Text(position));
      const std::vector<double> turn = Numbers(e.at("orientation"));
      for (size_t i = 0; i < 4; ++i) {
        if (!(std::fabs(turn.at(i) - orientation.at(i)) <= 1e-7)) differ("orientation");
      }
    }
  }
  for (const auto& entry : expected) {
    if (replicated.count(entry.first) == 0) {
      differences.push_back(entry.first + ": on the server, not in the replica");
    }
  }
  return differences;
}

}  // namespace testlib
