// Pieces shared by the fuzz targets: quiet diagnostics, the fuzz mods, a loopback server
// that answers the client's connections one at a time, and the reset between runs.
//
// Every target runs its input on libFuzzer's thread and leaves nothing behind that the
// next input could see, except what the target documents (the datagram target keeps one
// client for the whole process).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "game/entity/Id.h"

namespace orvex::net {
class TcpListener;
}

namespace fuzz {

using Bytes = std::vector<uint8_t>;

// Module texts of the fuzz mods.
//   FUZZ_ship:   entities with an interface, driven by the server;
//   FUZZ_static: entities with an interface, not driven;
//   FUZZ_none:   entities without an interface (the client removes them again at once);
//   FUZZ_probe:  a module message handler that reads its payload.
// Each interface has one renderable instance. Sync and the message handler read their
// data with the platform readers in ways that never throw on a bounded stream.
inline constexpr const char* kShip = "FUZZ_ship";
inline constexpr const char* kStatic = "FUZZ_static";
inline constexpr const char* kNone = "FUZZ_none";
inline constexpr const char* kProbe = "FUZZ_probe";

// Routes std::cerr into a line filter for the whole process. The client's diagnostics
// (one line per dropped datagram or ended thread) would drown libFuzzer's own report, so
// lines are kept in memory and only "ASSERTION FAILED" lines, which explain the abort
// that follows them, reach the real standard error; ORVEX_FUZZ_VERBOSE=1 passes every line.
void QuietDiagnostics();
// The lines written to std::cerr since the last call (at most the last 64).
std::vector<std::string> TakeLines();

// Loads the fuzz mods (once per process).
void InstallMods();
// Whether the entity constructor gives an entity of `moduleText` an interface, exactly as
// the fuzz mods' suppliers decide it.
bool SuppliesInterface(const std::string& moduleText);

// Empties the entity registry (entities die outside its lock), runs Game::Reset() and
// marks the game active again.
void ResetGame();

// Ends the process with `what` on standard error: the harness found a real fault that no
// sanitizer reports (a wrong result, a clean error that is not clean).
[[noreturn]] void Fail(const std::string& what);
// Requires an error text to be one line of text.
void RequireOneLine(const char* text);

// A listener on 127.0.0.1 and one thread that serves the connections the target makes,
// one at a time: it reads the client's hello, sends the reply that the target armed,
// optionally ends its sending side, and then reads until the client closes.
// Threads: Arm and WaitServed on the target's thread; the rest on the server thread.
class LoopbackServer {
 public:
  LoopbackServer();
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  uint16_t Port() const { return port_; }

  // Arms the reply for the next connection. With `endAfterReply` the server ends its
  // sending side after the reply, so a client read beyond it fails at once, and the client
  // must close within seconds. Without it the connection stays open until the client
  // closes it, and the server must not be destroyed before that.
  void Arm(Bytes reply, bool endAfterReply);
  // Waits until the armed connection was served and the client has closed it.
  void WaitServed();

 private:
  void Loop();

  std::unique_ptr<orvex::net::TcpListener> listener_;
  uint16_t port_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool armed_ = false;
  bool served_ = false;
  bool stopping_ = false;
  Bytes reply_;
  bool endAfterReply_ = false;
  std::thread thread_;
};

// The entities of the datagram target: created once per process, put back to these
// placements before every input. Driven ones take transform and physics records; the
// static one never does. Two ride on the first.
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
