#include "ReplicaDiff.h"

#include <cmath>
#include <cstdio>
#include <map>

#include <nlohmann/json.hpp>

namespace testlib {
namespace {

using nlohmann::json;

// The dump writes non-finite numbers as text.
std::vector<double> Numbers(const json& array) {
  std::vector<double> values;
  for (const json& v : array)
    values.push_back(v.is_number() ? v.get<double>() : std::stod(v.get<std::string>()));
  return values;
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
  for (const json& e : dump.at("entities")) {
    const std::string id = e.at("id").get<std::string>();
    const auto it = expected.find(id);
    if (it == expected.end()) differences.push_back(id + ": in the replica, gone from the server");
    if (it == expected.end()) continue;
    const json want = it->second;
    expected.erase(it);
    char sync[17];
    std::snprintf(sync, sizeof sync, "%08x%08x",
                  __builtin_bswap32(want.at("serial").get<uint32_t>()),
                  __builtin_bswap32(want.at("revision").get<uint32_t>()));
    const bool driven = e.at("serverDriven").get<bool>();
    std::vector<double> turn = Numbers(e.at(driven ? "targetOrientation" : "orientation"));
    const std::vector<double> orientation = Numbers(want.at("orientation"));
    for (size_t i = 0; i < 4 && !driven; ++i) {
      if (std::fabs(turn.at(i) - orientation.at(i)) <= 1e-7) turn[i] = orientation[i];
    }
    const std::pair<const char*, bool> checks[] = {
        {"module", e.at("module") == want.at("module")},
        {"text", e.at("text") == want.at("text")},
        {"parent", e.at("parent") == want.at("parent")},
        {"sync data", !e.at("sync").empty() && e.at("sync").back() == sync},
        {"position",
         Numbers(e.at(driven ? "targetPosition" : "position")) == Numbers(want.at("position"))},
        {"orientation", turn == orientation},
        {"no target", !driven || e.at("hasTarget").get<bool>()},
    };
    for (const auto& [what, same] : checks) {
      if (!same) differences.push_back(id + ": " + what + " " + e.dump());
    }
  }
  for (const auto& entry : expected) {
    differences.push_back(entry.first + ": on the server, not in the replica");
  }
  return differences;
}

}  // namespace testlib
