// Pieces shared by the fuzz targets: quiet diagnostics, the fuzz mods, serving one
// connection of the in-process test server, and the datagram target's fixed entities.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "game/entity/Id.h"
#include "server/TestServer.h"

namespace fuzz {

using wire::Bytes;

// The fuzz mods. FUZZ_ship and FUZZ_static give their entities an interface with one
// renderable, server-driven or not; FUZZ_none gives none (the client removes such entities
// again at once); FUZZ_probe handles module messages. Their Sync and message handler read
// with the platform readers in ways that never throw on a bounded stream.
inline constexpr const char* kShip = "FUZZ_ship";
inline constexpr const char* kStatic = "FUZZ_static";
inline constexpr const char* kNone = "FUZZ_none";
inline constexpr const char* kProbe = "FUZZ_probe";

// Once per process: loads the fuzz mods and routes std::cerr into a line filter. The
// client's diagnostics would drown libFuzzer's report, so only "ASSERTION FAILED" lines,
// which explain the abort after them, reach standard error (ORVEX_FUZZ_VERBOSE=1: all).
void Start();
// Whether an entity of `moduleText` gets an interface, as the fuzz mods decide it.
bool SuppliesInterface(const std::string& moduleText);

// Ends the process with "fuzz harness: `what`": a fault that no sanitizer reports.
[[noreturn]] void Fail(const std::string& what);
// Requires an error text to be one line of text.
void RequireOneLine(const char* text);

// The in-process test server with one thread that serves its connections one at a time:
// it reads the hello and sends the reply armed for the connection. With `close` it then ends
// its side, and the client must close within seconds; without, the connection stays open
// for good. Lives until the process ends. Arm and WaitServed: the target's thread.
class LoopbackServer {
 public:
  uint16_t Port() const { return server_.Port(); }
  void Arm(Bytes reply, bool close);
  // Waits until the armed connection (one with `close`) was served and closed.
  void WaitServed();

 private:
  void ServeOne();

  testserver::TestServer server_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool armed_ = false, served_ = false, close_ = false;
  Bytes reply_;
  std::unique_ptr<testserver::TestConnection> open_;
  std::thread thread_{[this] {
    for (;;) ServeOne();
  }};
};

// The datagram target's entities, put back before every input. The driven ones
// take transform and physics records, the static one never does; two ride on the first.
struct FixedEntity {
  game::entity::Id id;
  const char* module;
  game::entity::Id parent;
};
inline constexpr game::entity::Id kEntityA{0x0000000141544E45ull, 0x00000000000000A1ull};
inline constexpr game::entity::Id kEntityB{0x0000000241544E45ull, 0x00000000000000B2ull};
inline constexpr game::entity::Id kEntityC{0x0000000341544E45ull, 0x00000000000000C3ull};
inline constexpr game::entity::Id kEntityD{0x0000000441544E45ull, 0x00000000000000D4ull};
inline constexpr game::entity::Id kEntityS{0x0000000541544E45ull, 0x00000000000000E5ull};
inline constexpr FixedEntity kFixedEntities[] = {
    {kEntityA, kShip, {}}, {kEntityB, kShip, kEntityA}, {kEntityC, kShip, kEntityA},
    {kEntityD, kShip, {}}, {kEntityS, kStatic, {}},
};

}  // namespace fuzz
