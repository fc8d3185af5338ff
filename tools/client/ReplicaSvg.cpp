// replica-svg: draws the replica of a game-client dump as an SVG top view (x to the right,
// y up): one dot per entity, coloured by module (hollow for static entities), and a line
// from every entity that rides on another to its parent. Positions are placed in the
// environment along the parent chain, the way the game composes transforms; an entity
// whose parent is not in the replica is drawn at its own position and counted as an orphan.
//
//   replica-svg DUMP.json OUT.svg
//
// Exit status: 0 when the picture was written, 1 when the dump cannot be read or the
// picture cannot be written, 64 for bad arguments.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include <glm/glm.hpp>
#include <glm/gtc/matrix_transform.hpp>
#include <glm/gtc/quaternion.hpp>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

constexpr double kSize = 1000.0;
constexpr double kMargin = 40.0;
// Deeper parent chains than this are taken for a cycle.
constexpr int kMaxDepth = 64;

const char* const kPalette[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e",
                                "#9467bd", "#8c564b", "#e377c2", "#17becf"};

struct Entity {
  std::string id, parent;  // "word0:word1"; parent empty when null
  std::string module, text;
  bool serverDriven = false;
  glm::dmat4 local{1.0};
  std::optional<glm::dvec3> absolute;  // empty: not placed (yet), or not finite
  bool orphan = false;
};

// A number of the dump: a JSON number or one of the strings "inf", "-inf", "nan".
double Number(const json& value) {
  if (value.is_number()) return value.get<double>();
  if (value.is_string()) {
    const std::string text = value.get<std::string>();
    if (text == "inf") return INFINITY;
    if (text == "-inf") return -INFINITY;
    if (text == "nan") return NAN;
  }
  throw std::runtime_error("not a number: " + value.dump());
}

std::string IdText(const json& pair) {
  const std::string word0 = pair.at(0).get<std::string>();
  const std::string word1 = pair.at(1).get<std::string>();
  if (word0 == "0" || word1 == "0") return "";
  return word0 + ":" + word1;
}

Entity Parse(const json& e) {
  Entity entity;
  entity.id = IdText(e.at("id"));
  entity.parent = IdText(e.at("parent"));
  entity.module = e.at("module").get<std::string>();
  entity.text = e.at("text").get<std::string>();
  entity.serverDriven = e.at("serverDriven").get<bool>();
  const json& p = e.at("position");
  const json& q = e.at("orientation");
  const glm::dvec3 position(Number(p.at(0)), Number(p.at(1)), Number(p.at(2)));
  const glm::dquat orientation(Number(q.at(0)), Number(q.at(1)), Number(q.at(2)), Number(q.at(3)));
  entity.local = glm::translate(glm::dmat4(1.0), position) * glm::mat4_cast(orientation);
  return entity;
}

// The entity's transform in the environment; an orphan's chain stops at itself.
glm::dmat4 Absolute(std::vector<Entity>& entities,
                    const std::unordered_map<std::string, size_t>& index, size_t i, int depth) {
  Entity& e = entities[i];
  if (e.parent.empty()) return e.local;
  const auto parent = index.find(e.parent);
  if (parent == index.end() || depth > kMaxDepth) {
    e.orphan = true;
    return e.local;
  }
  return Absolute(entities, index, parent->second, depth + 1) * e.local;
}

std::string Format(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", value);
  return text;
}

std::string Escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        if (static_cast<unsigned char>(c) >= 0x20) out += c;
    }
  }
  return out;
}

int Draw(const std::string& dumpPath, const std::string& svgPath) {
  std::ifstream in(dumpPath, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open " + dumpPath);
  const json dump = json::parse(in);

  std::vector<Entity> entities;
  for (const json& e : dump.at("entities")) entities.push_back(Parse(e));
  std::unordered_map<std::string, size_t> index;
  for (size_t i = 0; i < entities.size(); ++i) index.emplace(entities[i].id, i);

  double minX = INFINITY, maxX = -INFINITY, minY = INFINITY, maxY = -INFINITY;
  size_t orphans = 0, unplaced = 0;
  for (size_t i = 0; i < entities.size(); ++i) {
    const glm::dvec3 p(Absolute(entities, index, i, 0)[3]);
    if (entities[i].orphan) ++orphans;
    if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) {
      ++unplaced;
      continue;
    }
    entities[i].absolute = p;
    minX = std::min(minX, p.x), maxX = std::max(maxX, p.x);
    minY = std::min(minY, p.y), maxY = std::max(maxY, p.y);
  }
  if (!(minX <= maxX)) minX = maxX = minY = maxY = 0.0;
  const double span = std::max({maxX - minX, maxY - minY, 1e-9});
  const double scale = (kSize - 2 * kMargin) / span;
  const double centreX = (minX + maxX) / 2, centreY = (minY + maxY) / 2;
  auto sx = [&](double x) { return Format(kSize / 2 + (x - centreX) * scale); };
  auto sy = [&](double y) { return Format(kSize / 2 - (y - centreY) * scale); };

  std::map<std::string, std::string> colours;
  for (const Entity& e : entities) {
    if (!colours.count(e.module)) {
      colours[e.module] = kPalette[colours.size() % (sizeof kPalette / sizeof kPalette[0])];
    }
  }

  std::ostringstream svg;
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kSize << "\" height=\""
      << kSize + 30 << "\" viewBox=\"0 0 " << kSize << " " << kSize + 30 << "\">\n";
  svg << "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";
  size_t links = 0;
  svg << "<g stroke=\"#999999\" stroke-width=\"0.6\">\n";
  for (const Entity& e : entities) {
    if (e.parent.empty() || e.orphan || !e.absolute) continue;
    const Entity& parent = entities[index.at(e.parent)];
    if (!parent.absolute) continue;
    svg << "<line x1=\"" << sx(e.absolute->x) << "\" y1=\"" << sy(e.absolute->y) << "\" x2=\""
        << sx(parent.absolute->x) << "\" y2=\"" << sy(parent.absolute->y) << "\"/>\n";
    ++links;
  }
  svg << "</g>\n<g stroke-width=\"1\">\n";
  for (const Entity& e : entities) {
    if (!e.absolute) continue;
    const std::string& colour = colours[e.module];
    svg << "<circle cx=\"" << sx(e.absolute->x) << "\" cy=\"" << sy(e.absolute->y)
        << "\" r=\"2.5\" stroke=\"" << colour << "\" fill=\"" << (e.serverDriven ? colour : "none")
        << "\"><title>" << Escape(e.module) << " " << Escape(e.text) << " " << e.id
        << "</title></circle>\n";
  }
  svg << "</g>\n";
  std::string caption =
      std::to_string(entities.size()) + " entities, " + std::to_string(links) + " parent links";
  if (dump.contains("world") && dump["world"].is_string()) {
    caption += ", world " + dump["world"].get<std::string>();
  }
  caption += "; filled: server-driven, hollow: static";
  svg << "<text x=\"" << kMargin << "\" y=\"" << kSize + 18
      << "\" font-family=\"sans-serif\" font-size=\"14\" fill=\"#333333\">" << Escape(caption)
      << "</text>\n</svg>\n";

  std::ofstream out(svgPath, std::ios::binary | std::ios::trunc);
  out << svg.str();
  out.flush();
  if (!out) throw std::runtime_error("cannot write " + svgPath);
  std::cout << "replica-svg: " << svgPath << ": " << entities.size() << " entities, " << links
            << " parent links";
  if (orphans) std::cout << ", " << orphans << " with a parent outside the replica";
  if (unplaced) std::cout << ", " << unplaced << " at non-finite positions (not drawn)";
  std::cout << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
    std::cout << "usage: replica-svg DUMP.json OUT.svg\n"
                 "Draws the replica of a game-client dump as an SVG top view."
              << std::endl;
    return 0;
  }
  if (argc == 2 && std::string(argv[1]) == "--version") {
    std::cout << "replica-svg " << ORVEX_VERSION << std::endl;
    return 0;
  }
  if (argc != 3) {
    std::cerr << "replica-svg: usage: replica-svg DUMP.json OUT.svg" << std::endl;
    return 64;
  }
  try {
    return Draw(argv[1], argv[2]);
  } catch (const std::exception& e) {
    std::cerr << "replica-svg: " << e.what() << std::endl;
    return 1;
  }
}
