// fuzz_seeds OUTDIR: writes a seed corpus for every fuzz target (OUTDIR/corpus/<target>/),
// at least one seed per message kind, written with the server's own message writers, and
// the dictionary OUTDIR/orvex.dict. fuzz/corpus and fuzz/orvex.dict are its output
// (fuzz_seeds fuzz, from the source root).
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "Messages.h"
#include "game/Networking.h"

namespace {

using fuzz::Bytes;
using fuzz::kEntityA, fuzz::kEntityB, fuzz::kEntityC, fuzz::kEntityD, fuzz::kEntityS;
using fuzz::kShip, fuzz::kStatic, fuzz::kNone, fuzz::kProbe;
using game::entity::Id;
using wire::ByteWriter;
using wire::Join;
using wire::ModuleID;

using Seed = std::pair<const char*, Bytes>;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
// The reliable seeds' entities.
const Id kOne{0x0000000153484950ull, 0x1111ull};
const Id kTwo{0x0000000253484950ull, 0x2222ull};

Bytes WelcomeWith(void (*change)(wire::Welcome&)) {
  wire::Welcome welcome = testlib::DefaultWelcome();
  change(welcome);
  return testlib::Welcome(welcome);
}

Bytes Create(const Id& id, const char* module, const Id& parent = {}, uint8_t smooth = 1,
             uint8_t forceSnap = 0) {
  const Bytes data = ByteWriter().U32(1).U32(0).Text("label").Block(Bytes{1, 2, 3});
  return testlib::Create(wire::EntityCreate{
      id, ModuleID(module), "ship", parent, {1.0, 2.0, 3.0}, {}, smooth, forceSnap, data});
}
Bytes Update(const Id& id, uint8_t smooth, uint8_t forceSnap) {
  const Bytes data = ByteWriter().U32(1).U32(1);
  return testlib::Update(
      wire::EntityUpdate{id, {}, {4.0, 5.0, 6.0}, {0.0, 1.0, 0.0, 0.0}, smooth, forceSnap, data});
}
Bytes Move(const Id& id, uint8_t smooth) {
  return testlib::Move(wire::EntityMove{id, smooth, {7.0, 8.0, 9.0}, {}});
}
Bytes ModuleMessage(const char* module) {
  return testlib::ModuleMessage(module, ByteWriter().Text("echo").Block(Bytes(16, 0xAB)));
}

wire::TransformRecord T(const Id& id, double x) {
  wire::TransformRecord record;
  record.id = id;
  record.position = {x, 1.0, 2.0};
  return record;
}
Bytes Transforms(uint64_t sequence, const Id& parent,
                 const std::vector<wire::TransformRecord>& records, int32_t divisor = 1,
                 uint64_t environment = 0, bool endMarker = true) {
  return wire::TransformsDatagram({1.5, sequence, environment, 0, divisor}, parent, records,
                                  endMarker);
}
Bytes Physics(uint64_t sequence, const std::vector<wire::PhysicsRecord>& records,
              uint64_t environment = 0) {
  return wire::PhysicsDatagram({1.5, sequence, 0, environment, 1}, records);
}

const std::vector<std::pair<const char*, std::vector<Seed>>>& Corpora() {
  static const std::vector<std::pair<const char*, std::vector<Seed>>> corpora = {
      {"fuzz_welcome",
       {{"accepted", testlib::Welcome()},
        {"accepted_two_mods", WelcomeWith([](wire::Welcome& w) {
           w.mods = {"CORE_ship", "DEMO_sandbox"};
         })},
        {"accepted_no_config", WelcomeWith([](wire::Welcome& w) { w.config.clear(); })},
        {"version_mismatch", WelcomeWith([](wire::Welcome& w) { w.networkingVersion = 2; })},
        // Once a heap overflow: a configuration count without a zero byte in it.
        {"config_without_zero", WelcomeWith([](wire::Welcome& w) {
           w.config = {'g', 'o'};
         })},
        {"accepted_then_messages",
         Join({testlib::Welcome(), Create(kOne, kShip), testlib::World("arena")})},
        {"refused", testlib::Refusal("Server full")},
        {"refused_empty", testlib::Refusal("")}}},
      {"fuzz_reliable",
       {{"world", testlib::World("arena")},
        {"admin", testlib::Admin("moderator", 1)},
        {"ignored_codes", Bytes{0x03, 0x06, 0x43, 0x00, 0x44, 0xFF}},
        {"disconnect_then_more", Join({testlib::Disconnect(), Create(kOne, kShip)})},
        {"create_ship", Create(kOne, kShip)},
        {"create_static", Create(kOne, kStatic)},
        {"create_no_interface", Create(kOne, kNone)},
        {"create_unknown_module", Create(kOne, "NOPE_nothing")},
        {"create_child", Join({Create(kOne, kShip), Create(kTwo, kShip, kOne)})},
        {"update_driven",
         Join({Create(kOne, kShip), Update(kOne, 1, 0), Update(kOne, 1, 1), Update(kOne, 0, 0)})},
        {"update_static",
         Join({Create(kOne, kStatic), Update(kOne, 1, 0), Update(kOne, 2, 0), Update(kOne, 0, 1)})},
        {"move", Join({Create(kOne, kShip, {}, 1, 1), Move(kOne, 1), Move(kOne, 0)})},
        {"destroy_and_again", Join({Create(kOne, kShip), testlib::Destroy(kOne),
                                    Create(kOne, kStatic), testlib::Destroy(kTwo)})},
        {"module_message", ModuleMessage(kProbe)},
        {"module_message_unknown", ModuleMessage("NOPE_nothing")},
        {"everything", Join({testlib::World("arena"), testlib::Admin("admin", 1),
                             Create(kOne, kShip), Create(kTwo, kStatic, kOne), Update(kOne, 1, 0),
                             Move(kTwo, 1), ModuleMessage(kProbe), Bytes{0x03},
                             testlib::Destroy(kTwo), testlib::Destroy(kOne)})}}},
      {"fuzz_datagram",
       {{"transforms", Transforms(1, {}, {T(kEntityA, 1), T(kEntityD, 2)})},
        {"transforms_children", Transforms(2, kEntityA, {T(kEntityB, 1), T(kEntityC, 2)})},
        {"reparent",
         Join({Transforms(1, kEntityA, {T(kEntityB, 1)}), Transforms(2, kEntityD, {T(kEntityB, 2)}),
               Transforms(3, {}, {T(kEntityB, 3)})})},
        {"reparent_unknown_parent", Join({Transforms(1, kEntityA, {T(kEntityC, 1)}),
                                          Transforms(2, Id{5, 5}, {T(kEntityC, 2)})})},
        {"divisors",
         Join({Transforms(9, {}, {T(kEntityA, 1)}, 4), Transforms(0, {}, {T(kEntityA, 2)}, 0),
               Transforms(0, {}, {T(kEntityA, 3)}, -1)})},
        {"foreign", Transforms(1, {}, {T(kEntityA, 1), T(kEntityS, 2)}, 1, 9)},
        {"stale", Join({Transforms(5, {}, {T(kEntityA, 5)}), Transforms(5, {}, {T(kEntityA, 6)}),
                        Transforms(4, {}, {T(kEntityA, 4)}), Transforms(6, {}, {T(kEntityA, 7)})})},
        {"transform_nan", Transforms(1, {}, {T(kEntityA, 1), T(kEntityD, 2), T(kEntityB, kNan)})},
        {"transform_inf", Transforms(1, {}, {T(kEntityA, kInf)})},
        {"physics", Physics(1, {{kEntityA, {1, 2, 3}, {4, 5, 6}},
                                {kEntityB, {1, 1, 1}, {0, 0, 0}},
                                {kEntityS, {1, 1, 1}, {0, 0, 0}}})},
        {"physics_nan",
         Physics(1, {{kEntityA, {1, 2, 3}, {4, 5, 6}}, {kEntityD, {kNan, 0, 0}, {0, 0, 0}}})},
        {"physics_foreign", Physics(9, {{kEntityA, {1, 2, 3}, {4, 5, 6}}}, 3)},
        {"module", wire::ModuleDatagram(ModuleID(kProbe), ByteWriter().Text("x").Block({1, 2}))},
        {"unknown_code", ByteWriter().Chars("TOVRANE!").U8(0x03).U64(1)},
        {"short_and_foreign_magic",
         Join({ByteWriter().Chars("TOVRAN"), ByteWriter().Chars("NOTMAGIC").U8(0x44),
               Transforms(1, {}, {T(kEntityA, 1)})})},
        {"truncated", Transforms(1, {}, {T(kEntityA, 1)}, 1, 0, false)}}},
      // Operation bytes: 0 string, 1 limited string (next byte x 16), 2 embedded stream,
      // 3 u64, 4 f64 + f32, 5 Id + vec3, 6 block (next byte = length), 7 copy,
      // 8 in-memory stream and view, 9 skip the rest.
      {"fuzz_streams",
       {{"string", ByteWriter().U8(0).Text("hello").U8(0).Text("")},
        {"limited",
         ByteWriter().U8(1).U8(1).Text("sixteen bytes ok").U8(1).U8(1).Text("seventeen bytes!!")},
        {"nested", ByteWriter().U8(2).Block(
                       ByteWriter().U8(0).Text("abc").U8(2).Block(ByteWriter().U8(3).U64(9)))},
        {"values",
         ByteWriter().U8(3).U64(1).U8(4).F64(0.5).F32(2.0f).U8(5).Entity({1, 2}).Vec3({1, 2, 3})},
        {"block_past_end", ByteWriter().U8(6).U8(200).Chars("short")},
        {"copy_and_views",
         ByteWriter().U8(7).U8(0).Text("copied").U8(8).U8(2).Block({0, 0, 0, 0, 0})},
        {"huge_counts", ByteWriter().U8(0).U32(0xFFFFFFFF).Chars("x").U8(2).U32(0x80000000)},
        {"skip", ByteWriter().U8(9).Chars("rest")}}},
  };
  return corpora;
}

void Dictionary(const std::filesystem::path& path) {
  std::ofstream dict(path, std::ios::trunc);
  const auto entry = [&](const std::string& name, const Bytes& bytes) {
    dict << name << "=\"";
    for (uint8_t b : bytes) {
      char digits[5];
      std::snprintf(digits, sizeof digits, "\\x%02X", b);
      dict << digits;
    }
    dict << "\"\n";
  };
  dict << "# libFuzzer dictionary for the fuzz targets; written by fuzz_seeds.\n"
       << "# Magic and message codes.\n"
       << "magic=\"TOVRANE!\"\n";
  using namespace networking;
  const std::pair<const char*, uint8_t> codes[] = {
      {"code_disconnect", MSG_DISCONNECT}, {"code_keepalive", MSG_KEEPALIVE},
      {"code_world", MSG_WORLD},           {"code_admin", MSG_ADMIN_STATUS},
      {"code_create", MSG_ENTITY_CREATE},  {"code_destroy", MSG_ENTITY_DESTROY},
      {"code_update", MSG_ENTITY_UPDATE},  {"code_transforms", MSG_TRANSFORMS},
      {"code_physics", MSG_PHYSICS},       {"code_move", MSG_ENTITY_MOVE},
      {"code_module", MSG_FOR_MODULE}};
  for (const auto& [name, code] : codes) entry(name, Bytes{code});
  dict << "# Counts: around the 65535 text limit, the 16 MiB block cap, 2 GiB, the top.\n";
  for (uint32_t count :
       {0u, 1u, 65535u, 65536u, 16u << 20, (16u << 20) + 1, 0x80000000u, 0xFFFFFFFFu}) {
    entry("count_" + std::to_string(count), ByteWriter().U32(count));
  }
  dict << "# Numbers: divisors, NaN and infinities (f64 and f32), the identity quaternion.\n";
  for (int32_t divisor : {1, 4, 0, -1}) {
    entry((divisor < 0 ? "divisor_minus" : "divisor_") + std::to_string(std::abs(divisor)),
          ByteWriter().I32(divisor));
  }
  entry("f64_nan", ByteWriter().F64(kNan));
  entry("f64_inf", ByteWriter().F64(kInf));
  entry("f64_one", ByteWriter().F64(1.0));
  entry("f32_nan", ByteWriter().F32(std::numeric_limits<float>::quiet_NaN()));
  entry("f32_inf", ByteWriter().F32(std::numeric_limits<float>::infinity()));
  entry("f32_one", ByteWriter().F32(1.0f));
  dict << "# Module identifiers of the fuzz mods.\n";
  for (const char* module : {kShip, kStatic, kNone, kProbe}) {
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
  const std::filesystem::path out = argv[1];
  try {
    for (const auto& [target, seeds] : Corpora()) {
      const std::filesystem::path dir = out / "corpus" / target;
      std::filesystem::create_directories(dir);
      for (const auto& [name, bytes] : seeds) {
        std::ofstream file(dir / name, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        if (!file) throw std::runtime_error("cannot write " + (dir / name).string());
      }
    }
    Dictionary(out / "orvex.dict");
  } catch (const std::exception& e) {
    std::cerr << "fuzz_seeds: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
