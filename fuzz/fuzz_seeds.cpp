// fuzz_seeds OUTDIR: writes a seed corpus for every fuzz target (OUTDIR/corpus/<target>/),
// at least one seed per message kind, written with the server's own message writers, and
// the dictionary OUTDIR/orvex.dict. fuzz/corpus and fuzz/orvex.dict are its output
// (fuzz_seeds fuzz, from the source root).
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "game/Networking.h"
#include "server/Wire.h"

namespace {

using fuzz::Bytes;
using game::entity::Id;
using orvex::modular::ModuleID;
using wire::ByteWriter;

namespace fs = std::filesystem;

fs::path outDir;

void Save(const std::string& target, const std::string& name, const Bytes& bytes) {
  const fs::path dir = outDir / "corpus" / target;
  fs::create_directories(dir);
  std::ofstream file(dir / name, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  if (!file) throw std::runtime_error("cannot write " + (dir / name).string());
}

using wire::Encode;
using wire::Join;

wire::Welcome DefaultWelcome() {
  wire::Welcome welcome;
  welcome.serverTag = 0x0A0B;
  welcome.playerId = 0x1122334455667788ull;
  welcome.username = "pilot";
  welcome.mode = 3;
  welcome.config = wire::ConfigText("gravity=9.81");
  return welcome;
}

// Reliable messages, with the fuzz mods' modules.
const Id kOne{0x0000000153484950ull, 0x1111ull};
const Id kTwo{0x0000000253484950ull, 0x2222ull};

Bytes Create(const Id& id, const char* module, const Id& parent = {}, uint8_t smooth = 1,
             uint8_t forceSnap = 0) {
  wire::EntityCreate create;
  create.id = id;
  create.module = ModuleID(module);
  create.text = "ship";
  create.parent = parent;
  create.position = {1.0, 2.0, 3.0};
  create.smooth = smooth;
  create.forceSnap = forceSnap;
  create.data = ByteWriter().U32(1).U32(0).Text("label").Block(Bytes{1, 2, 3});
  return Encode([&](auto& out) { wire::WriteEntityCreate(out, create); });
}

Bytes Update(const Id& id, uint8_t smooth, uint8_t forceSnap) {
  wire::EntityUpdate update;
  update.id = id;
  update.position = {4.0, 5.0, 6.0};
  update.orientation = {0.0, 1.0, 0.0, 0.0};
  update.smooth = smooth;
  update.forceSnap = forceSnap;
  update.data = ByteWriter().U32(1).U32(1);
  return Encode([&](auto& out) { wire::WriteEntityUpdate(out, update); });
}

Bytes Move(const Id& id, uint8_t smooth) {
  return Encode([&](auto& out) {
    wire::WriteEntityMove(out, wire::EntityMove{id, smooth, {7.0, 8.0, 9.0}, {}});
  });
}

Bytes Destroy(const Id& id) {
  return Encode([&](auto& out) { wire::WriteEntityDestroy(out, id); });
}

Bytes ModuleMessage(const char* module) {
  const Bytes payload = ByteWriter().Text("echo").Block(Bytes(16, 0xAB));
  return Encode([&](auto& out) { wire::WriteModuleMessage(out, ModuleID(module), payload); });
}

void WelcomeSeeds() {
  const std::string t = "fuzz_welcome";
  auto welcome = [](const wire::Welcome& w) {
    return Encode([&](auto& out) { wire::WriteWelcome(out, w); });
  };
  wire::Welcome w = DefaultWelcome();
  Save(t, "accepted", welcome(w));
  w.mods = {"CORE_ship", "DEMO_sandbox"};
  Save(t, "accepted_two_mods", welcome(w));
  w = DefaultWelcome();
  w.config.clear();
  Save(t, "accepted_no_config", welcome(w));
  w = DefaultWelcome();
  w.networkingVersion = 2;
  Save(t, "version_mismatch", welcome(w));
  // Once a heap overflow: a configuration count without a zero byte in it.
  w = DefaultWelcome();
  w.config = {'g', 'o'};
  Save(t, "config_without_zero", welcome(w));
  Save(t, "accepted_then_messages",
       Join({welcome(DefaultWelcome()), Create(kOne, fuzz::kShip),
             Encode([](auto& out) { wire::WriteWorld(out, "arena"); })}));
  Save(t, "refused", Encode([](auto& out) { wire::WriteRefusal(out, "Server full"); }));
  Save(t, "refused_empty", Encode([](auto& out) { wire::WriteRefusal(out, ""); }));
}

void ReliableSeeds() {
  const std::string t = "fuzz_reliable";
  Save(t, "world", Encode([](auto& out) { wire::WriteWorld(out, "arena"); }));
  Save(t, "admin", Encode([](auto& out) { wire::WriteAdminStatus(out, "moderator", 1); }));
  Save(t, "ignored_codes", Bytes{0x03, 0x06, 0x43, 0x00, 0x44, 0xFF});
  Save(t, "disconnect_then_more",
       Join({Encode([](auto& out) { wire::WriteDisconnect(out); }), Create(kOne, fuzz::kShip)}));
  Save(t, "create_ship", Create(kOne, fuzz::kShip));
  Save(t, "create_static", Create(kOne, fuzz::kStatic));
  Save(t, "create_no_interface", Create(kOne, fuzz::kNone));
  Save(t, "create_unknown_module", Create(kOne, "NOPE_nothing"));
  Save(t, "create_child", Join({Create(kOne, fuzz::kShip), Create(kTwo, fuzz::kShip, kOne)}));
  Save(t, "update_driven",
       Join({Create(kOne, fuzz::kShip), Update(kOne, 1, 0), Update(kOne, 1, 1),
             Update(kOne, 0, 0)}));
  Save(t, "update_static",
       Join({Create(kOne, fuzz::kStatic), Update(kOne, 1, 0), Update(kOne, 2, 0),
             Update(kOne, 0, 1)}));
  Save(t, "move", Join({Create(kOne, fuzz::kShip, {}, 1, 1), Move(kOne, 1), Move(kOne, 0)}));
  Save(
      t, "destroy_and_again",
      Join({Create(kOne, fuzz::kShip), Destroy(kOne), Create(kOne, fuzz::kStatic), Destroy(kTwo)}));
  Save(t, "module_message", ModuleMessage(fuzz::kProbe));
  Save(t, "module_message_unknown", ModuleMessage("NOPE_nothing"));
  Save(t, "everything",
       Join({Encode([](auto& out) { wire::WriteWorld(out, "arena"); }),
             Encode([](auto& out) { wire::WriteAdminStatus(out, "admin", 1); }),
             Create(kOne, fuzz::kShip), Create(kTwo, fuzz::kStatic, kOne), Update(kOne, 1, 0),
             Move(kTwo, 1), ModuleMessage(fuzz::kProbe), Bytes{0x03}, Destroy(kTwo),
             Destroy(kOne)}));
}

wire::TransformRecord Transform(const Id& id, double x) {
  wire::TransformRecord record;
  record.id = id;
  record.position = {x, 1.0, 2.0};
  return record;
}

Bytes Transforms(uint64_t sequence, const Id& parent,
                 const std::vector<wire::TransformRecord>& records, int32_t divisor = 1,
                 uint64_t environment = 0, bool endMarker = true) {
  wire::StateHeader header;
  header.serverTime = 1.5;
  header.sequence = sequence;
  header.parentEnvironment = environment;
  header.divisor = divisor;
  return wire::TransformsDatagram(header, parent, records, endMarker);
}

Bytes Physics(uint64_t sequence, const std::vector<wire::PhysicsRecord>& records,
              uint64_t environment = 0) {
  wire::StateHeader header;
  header.serverTime = 1.5;
  header.sequence = sequence;
  header.relativeEnvironment = environment;
  return wire::PhysicsDatagram(header, records);
}

void DatagramSeeds() {
  const std::string t = "fuzz_datagram";
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  Save(t, "transforms",
       Transforms(1, {}, {Transform(fuzz::kEntityA, 1), Transform(fuzz::kEntityD, 2)}));
  Save(t, "transforms_children",
       Transforms(2, fuzz::kEntityA, {Transform(fuzz::kEntityB, 1), Transform(fuzz::kEntityC, 2)}));
  Save(t, "reparent",
       Join({Transforms(1, fuzz::kEntityA, {Transform(fuzz::kEntityB, 1)}),
             Transforms(2, fuzz::kEntityD, {Transform(fuzz::kEntityB, 2)}),
             Transforms(3, {}, {Transform(fuzz::kEntityB, 3)})}));
  Save(t, "reparent_unknown_parent",
       Join({Transforms(1, fuzz::kEntityA, {Transform(fuzz::kEntityC, 1)}),
             Transforms(2, Id{5, 5}, {Transform(fuzz::kEntityC, 2)})}));
  Save(t, "divisors",
       Join({Transforms(9, {}, {Transform(fuzz::kEntityA, 1)}, 4),
             Transforms(0, {}, {Transform(fuzz::kEntityA, 2)}, 0),
             Transforms(0, {}, {Transform(fuzz::kEntityA, 3)}, -1)}));
  Save(t, "foreign",
       Transforms(1, {}, {Transform(fuzz::kEntityA, 1), Transform(fuzz::kEntityS, 2)}, 1, 9));
  Save(t, "stale",
       Join({Transforms(5, {}, {Transform(fuzz::kEntityA, 5)}),
             Transforms(5, {}, {Transform(fuzz::kEntityA, 6)}),
             Transforms(4, {}, {Transform(fuzz::kEntityA, 4)}),
             Transforms(6, {}, {Transform(fuzz::kEntityA, 7)})}));
  Save(t, "transform_nan",
       Transforms(1, {},
                  {Transform(fuzz::kEntityA, 1), Transform(fuzz::kEntityD, 2),
                   Transform(fuzz::kEntityB, nan)}));
  Save(t, "transform_inf", Transforms(1, {}, {Transform(fuzz::kEntityA, inf)}));
  Save(t, "physics",
       Physics(1, {{fuzz::kEntityA, {1, 2, 3}, {4, 5, 6}},
                   {fuzz::kEntityB, {1, 1, 1}, {0, 0, 0}},
                   {fuzz::kEntityS, {1, 1, 1}, {0, 0, 0}}}));
  Save(t, "physics_nan",
       Physics(1,
               {{fuzz::kEntityA, {1, 2, 3}, {4, 5, 6}}, {fuzz::kEntityD, {nan, 0, 0}, {0, 0, 0}}}));
  Save(t, "physics_foreign", Physics(9, {{fuzz::kEntityA, {1, 2, 3}, {4, 5, 6}}}, 3));
  Save(t, "module",
       wire::ModuleDatagram(ModuleID(fuzz::kProbe), ByteWriter().Text("x").Block({1, 2})));
  Save(t, "unknown_code", ByteWriter().Chars("TOVRANE!").U8(0x03).U64(1));
  Save(t, "short_and_foreign_magic",
       Join({ByteWriter().Chars("TOVRAN"), ByteWriter().Chars("NOTMAGIC").U8(0x44),
             Transforms(1, {}, {Transform(fuzz::kEntityA, 1)})}));
  Save(t, "truncated", Transforms(1, {}, {Transform(fuzz::kEntityA, 1)}, 1, 0, false));
}

void StreamSeeds() {
  const std::string t = "fuzz_streams";
  // Operation bytes: 0 string, 1 limited string (next byte x 16), 2 embedded stream,
  // 3 u64, 4 f64 + f32, 5 Id + vec3, 6 block (next byte = length), 7 copy,
  // 8 in-memory stream and view, 9 skip the rest.
  Save(t, "string", ByteWriter().U8(0).Text("hello").U8(0).Text(""));
  Save(t, "limited",
       ByteWriter().U8(1).U8(1).Text("sixteen bytes ok").U8(1).U8(1).Text("seventeen bytes!!"));
  Save(t, "nested",
       ByteWriter().U8(2).Block(
           ByteWriter().U8(0).Text("abc").U8(2).Block(ByteWriter().U8(3).U64(9))));
  Save(t, "values",
       ByteWriter().U8(3).U64(1).U8(4).F64(0.5).F32(2.0f).U8(5).U64(1).U64(2).F64(1).F64(2).F64(3));
  Save(t, "block_past_end", ByteWriter().U8(6).U8(200).Chars("short"));
  Save(t, "copy_and_views",
       ByteWriter().U8(7).U8(0).Text("copied").U8(8).U8(2).Block({0, 0, 0, 0, 0}));
  Save(t, "huge_counts", ByteWriter().U8(0).U32(0xFFFFFFFF).Chars("x").U8(2).U32(0x80000000));
  Save(t, "skip", ByteWriter().U8(9).Chars("rest"));
}

void Dictionary() {
  std::ofstream dict(outDir / "orvex.dict", std::ios::trunc);
  auto hex = [](const Bytes& bytes) {
    std::string text;
    char digits[5];
    for (uint8_t b : bytes) {
      std::snprintf(digits, sizeof digits, "\\x%02X", b);
      text += digits;
    }
    return text;
  };
  auto entry = [&](const std::string& name, const Bytes& bytes) {
    dict << name << "=\"" << hex(bytes) << "\"\n";
  };
  dict << "# libFuzzer dictionary for the fuzz targets; written by fuzz_seeds.\n";
  dict << "# Magic and message codes.\n";
  dict << "magic=\"TOVRANE!\"\n";
  const std::pair<const char*, uint8_t> codes[] = {{"code_disconnect", networking::MSG_DISCONNECT},
                                                   {"code_keepalive", networking::MSG_KEEPALIVE},
                                                   {"code_world", networking::MSG_WORLD},
                                                   {"code_admin", networking::MSG_ADMIN_STATUS},
                                                   {"code_create", networking::MSG_ENTITY_CREATE},
                                                   {"code_destroy", networking::MSG_ENTITY_DESTROY},
                                                   {"code_update", networking::MSG_ENTITY_UPDATE},
                                                   {"code_transforms", networking::MSG_TRANSFORMS},
                                                   {"code_physics", networking::MSG_PHYSICS},
                                                   {"code_move", networking::MSG_ENTITY_MOVE},
                                                   {"code_module", networking::MSG_FOR_MODULE}};
  for (const auto& [name, code] : codes) entry(name, Bytes{code});
  dict << "# Counts: around the 65535 text limit, the 16 MiB block cap, 2 GiB, the top.\n";
  for (uint32_t count :
       {0u, 1u, 65535u, 65536u, 16u << 20, (16u << 20) + 1, 0x80000000u, 0xFFFFFFFFu}) {
    entry("count_" + std::to_string(count), ByteWriter().U32(count));
  }
  dict << "# Numbers: divisors, NaN and infinities (f64 and f32), the identity quaternion.\n";
  for (int32_t divisor : {1, 4, 0, -1})
    entry(divisor < 0 ? "divisor_minus" + std::to_string(-divisor)
                      : "divisor_" + std::to_string(divisor),
          ByteWriter().I32(divisor));
  entry("f64_nan", ByteWriter().F64(std::numeric_limits<double>::quiet_NaN()));
  entry("f64_inf", ByteWriter().F64(std::numeric_limits<double>::infinity()));
  entry("f64_one", ByteWriter().F64(1.0));
  entry("f32_nan", ByteWriter().F32(std::numeric_limits<float>::quiet_NaN()));
  entry("f32_inf", ByteWriter().F32(std::numeric_limits<float>::infinity()));
  entry("f32_one", ByteWriter().F32(1.0f));
  dict << "# Module identifiers of the fuzz mods.\n";
  for (const char* module : {fuzz::kShip, fuzz::kStatic, fuzz::kNone, fuzz::kProbe}) {
    entry(std::string("module_") + module, ByteWriter().Module(ModuleID(module)));
  }
  dict << "# Entity ids: the datagram target's fixed entities, the reliable seeds' ids, null.\n";
  int index = 0;
  for (const fuzz::FixedEntity& fixed : fuzz::kFixedEntities) {
    entry("entity_" + std::to_string(index++), ByteWriter().Entity(fixed.id));
  }
  entry("entity_one", ByteWriter().Entity(kOne));
  entry("entity_two", ByteWriter().Entity(kTwo));
  entry("entity_null", ByteWriter().Entity(Id{}));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: fuzz_seeds OUTDIR" << std::endl;
    return 64;
  }
  outDir = argv[1];
  try {
    WelcomeSeeds();
    ReliableSeeds();
    DatagramSeeds();
    StreamSeeds();
    Dictionary();
  } catch (const std::exception& e) {
    std::cerr << "fuzz_seeds: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
