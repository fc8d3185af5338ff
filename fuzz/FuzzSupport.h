// Pieces shared by the fuzz targets: quiet diagnostics, the fuzz mods and a loopback server.
#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "server/TestServer.h"

namespace fuzz {

using wire::Bytes;

// FUZZ_ship and FUZZ_static give entities an interface, server-driven or not; FUZZ_none gives none;
// FUZZ_probe reads module messages. None of their readers throws on a bounded stream.
inline constexpr const char* kShip = "FUZZ_ship";
inline constexpr const char* kStatic = "FUZZ_static";

// Once per process: loads the fuzz mods and routes std::cerr into a filter that passes on only
// "ASSERTION FAILED" lines, which explain the abort after them (ORVEX_FUZZ_VERBOSE=1: all).
void Start();

// Ends the process with "fuzz harness: `what`": a fault that no sanitizer reports.
[[noreturn]] void Fail(const std::string& what);

// A test server whose thread answers each hello with the armed reply, then with `close` ends its
// side and requires the client to close too; without, keeps the connection open. Never destroyed.
class LoopbackServer {
 public:
  LoopbackServer();
  uint16_t Port() const { return server_.Port(); }
  void Arm(Bytes reply, bool close);
  void WaitServed();

 private:
  testserver::TestServer server_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<std::pair<Bytes, bool>> armed_;
  bool served_ = false;
  std::thread thread_;
};

}  // namespace fuzz
