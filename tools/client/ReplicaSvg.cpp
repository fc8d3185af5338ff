// replica-svg: draws the replica of a game-client dump as an SVG top view (x to the right,
// y up): one dot per entity where it should be (the target the server last sent; its
// position when it has none), coloured by module (hollow for static entities), and a line
// from every entity that rides on another to its parent. Positions are placed in the
// environment along the parent chain, the way the game composes transforms; an entity
// whose parent is not in the replica is drawn at its own position and counted as an orphan.
// Given game-server's final state, its entities are drawn over the replica as grey rings,
// so that a dot off its ring is a replica that differs from the server. Axes with their
// units, a scale bar and a legend come with the picture.
//
//   replica-svg DUMP.json OUT.svg [SERVER-STATE.json]
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
  std::string id, parent;  // the ids' text form; parent empty when none
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

// An entity of the dump, at its target when it has one; or of the server's final state
// (no targets, every entity server-driven).
Entity Parse(const json& e) {
  Entity entity;
  entity.id = e.at("id").get<std::string>();
  entity.parent = e.at("parent").get<std::string>();
  entity.module = e.at("module").get<std::string>();
  entity.text = e.at("text").get<std::string>();
  entity.serverDriven = e.value("serverDriven", true);
  const bool target = e.value("hasTarget", false) && e.contains("targetPosition");
  const json& p = e.at(target ? "targetPosition" : "position");
  const json& q = e.at(target ? "targetOrientation" : "orientation");
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

json Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open " + path);
  return json::parse(in);
}

// The entities of a dump or final state, placed; widens the box [min, max] by each placed
// one. Counts the orphans and those at non-finite positions.
struct Scene {
  std::vector<Entity> entities;
  std::unordered_map<std::string, size_t> index;
  size_t orphans = 0, unplaced = 0;
};

Scene Place(const json& document, glm::dvec2& min, glm::dvec2& max) {
  Scene scene;
  for (const json& e : document.at("entities")) scene.entities.push_back(Parse(e));
  for (size_t i = 0; i < scene.entities.size(); ++i) scene.index.emplace(scene.entities[i].id, i);
  for (size_t i = 0; i < scene.entities.size(); ++i) {
    const glm::dvec3 p(Absolute(scene.entities, scene.index, i, 0)[3]);
    if (scene.entities[i].orphan) ++scene.orphans;
    if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) {
      ++scene.unplaced;
      continue;
    }
    scene.entities[i].absolute = p;
    min = glm::min(min, glm::dvec2(p)), max = glm::max(max, glm::dvec2(p));
  }
  return scene;
}

// The largest 1, 2 or 5 times a power of ten that is at most `limit`.
double RoundLength(double limit) {
  const double power = std::pow(10.0, std::floor(std::log10(limit)));
  for (double step : {5.0, 2.0, 1.0}) {
    if (step * power <= limit) return step * power;
  }
  return power;
}

int Draw(const std::string& dumpPath, const std::string& svgPath, const std::string& statePath) {
  const json dump = Read(dumpPath);
  glm::dvec2 min(INFINITY), max(-INFINITY);
  Scene replica = Place(dump, min, max);
  Scene server;
  if (!statePath.empty()) server = Place(Read(statePath), min, max);
  std::vector<Entity>& entities = replica.entities;
  const std::unordered_map<std::string, size_t>& index = replica.index;
  double minX = min.x, maxX = max.x, minY = min.y, maxY = max.y;
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
  svg << "<g font-family=\"sans-serif\" font-size=\"12\" fill=\"#555555\" stroke=\"#bbbbbb\">\n";
  // Axes through the environment's origin when it is in view, else along the edges.
  const double axisY = std::clamp(kSize / 2 + centreY * scale, kMargin / 2, kSize - kMargin / 2);
  const double axisX = std::clamp(kSize / 2 - centreX * scale, kMargin / 2, kSize - kMargin / 2);
  // Axes and the scale bar are paths, so that lines are parent links only.
  svg << "<path d=\"M" << kMargin / 2 << " " << Format(axisY) << " H" << kSize - kMargin / 2 << " M"
      << Format(axisX) << " " << kMargin / 2 << " V" << kSize - kMargin / 2 << "\"/>\n";
  svg << "<text stroke=\"none\" x=\"" << kSize - kMargin / 2 - 10 << "\" y=\"" << Format(axisY - 4)
      << "\">x</text>\n<text stroke=\"none\" x=\"" << Format(axisX + 4) << "\" y=\""
      << kMargin / 2 + 10 << "\">y</text>\n";
  const double bar = RoundLength(span / 5);
  svg << "<path stroke=\"#333333\" stroke-width=\"2\" d=\"M" << kMargin << " " << kSize - 12 << " H"
      << Format(kMargin + bar * scale) << "\"/>\n";
  svg << "<text stroke=\"none\" x=\"" << kMargin << "\" y=\"" << kSize - 18 << "\">" << bar
      << " units</text>\n";
  // The legend: a swatch per module, the fill rule, the server's rings.
  double legendY = kMargin;
  for (const auto& [module, colour] : colours) {
    svg << "<circle cx=\"" << kSize - 250 << "\" cy=\"" << legendY << "\" r=\"4\" fill=\"" << colour
        << "\" stroke=\"" << colour << "\"/><text stroke=\"none\" x=\"" << kSize - 240 << "\" y=\""
        << legendY + 4 << "\">" << Escape(module) << "</text>\n";
    legendY += 16;
  }
  svg << "<text stroke=\"none\" x=\"" << kSize - 255 << "\" y=\"" << legendY + 4
      << "\">filled: server-driven; hollow: static</text>\n";
  if (!statePath.empty()) {
    legendY += 16;
    svg << "<circle cx=\"" << kSize - 250 << "\" cy=\"" << legendY << "\" r=\"5\" fill=\"none\" "
        << "stroke=\"#888888\"/><text stroke=\"none\" x=\"" << kSize - 240 << "\" y=\""
        << legendY + 4 << "\">the server's final state</text>\n";
  }
  svg << "</g>\n";
  svg << "<g fill=\"none\" stroke=\"#888888\" stroke-width=\"1\">\n";
  for (const Entity& e : server.entities) {
    if (!e.absolute) continue;
    svg << "<circle cx=\"" << sx(e.absolute->x) << "\" cy=\"" << sy(e.absolute->y)
        << "\" r=\"5\"><title>server: " << Escape(e.module) << " " << Escape(e.text) << " " << e.id
        << "</title></circle>\n";
  }
  svg << "</g>\n";
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
  caption += "; dots at their targets";
  svg << "<text x=\"" << kMargin << "\" y=\"" << kSize + 18
      << "\" font-family=\"sans-serif\" font-size=\"14\" fill=\"#333333\">" << Escape(caption)
      << "</text>\n</svg>\n";

  std::ofstream out(svgPath, std::ios::binary | std::ios::trunc);
  out << svg.str();
  out.flush();
  if (!out) throw std::runtime_error("cannot write " + svgPath);
  std::cout << "replica-svg: " << svgPath << ": " << entities.size() << " entities, " << links
            << " parent links";
  if (replica.orphans) {
    std::cout << ", " << replica.orphans << " with a parent outside the replica";
  }
  if (replica.unplaced) {
    std::cout << ", " << replica.unplaced << " at non-finite positions (not drawn)";
  }
  if (!statePath.empty()) std::cout << "; the server's " << server.entities.size() << " over it";
  std::cout << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
    std::cout << "usage: replica-svg DUMP.json OUT.svg [SERVER-STATE.json]\n"
                 "Draws the replica of a game-client dump as an SVG top view, with game-server's "
                 "final state over it when given."
              << std::endl;
    return 0;
  }
  if (argc == 2 && std::string(argv[1]) == "--version") {
    std::cout << "replica-svg " << ORVEX_VERSION << std::endl;
    return 0;
  }
  if (argc != 3 && argc != 4) {
    std::cerr << "replica-svg: usage: replica-svg DUMP.json OUT.svg [SERVER-STATE.json]"
              << std::endl;
    return 64;
  }
  try {
    return Draw(argv[1], argv[2], argc == 4 ? argv[3] : "");
  } catch (const std::exception& e) {
    std::cerr << "replica-svg: " << e.what() << std::endl;
    return 1;
  }
}
