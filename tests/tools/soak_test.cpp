// The soak: once the network faults end, the replica converges to the server's final state.
//
// game-server runs thousands of moving entities with a steady churn of creations, updates,
// moves and destructions; both tools have simulated faults on their UDP sockets. When the
// faults end the scene stands still, and by the time the server says goodbye the replica
// must be the server's final state. ORVEX_SOAK_SECONDS sets the duration and runs the soak
// in any build (tools/soak.sh sets it for the long run); without it the short soak runs in
// builds without sanitizers only, where the tools run at full speed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>

#include "ChildProcess.h"
#include "ReplicaDiff.h"
#include "Wait.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ORVEX_SOAK_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ORVEX_SOAK_SANITIZED 1
#endif
#endif

namespace {

constexpr const char* kFaults = "loss=10%,delay=40ms,jitter=20ms,reorder=20%,dup=5%";

TEST(Soak, ReplicaConvergesToTheServerOnceTheFaultsAreLifted) {
  const char* requested = std::getenv("ORVEX_SOAK_SECONDS");
#ifdef ORVEX_SOAK_SANITIZED
  if (requested == nullptr) GTEST_SKIP() << "the short soak runs in builds without sanitizers";
#endif
  const int seconds = requested != nullptr ? std::atoi(requested) : 25;
  ASSERT_GE(seconds, 20) << "ORVEX_SOAK_SECONDS: at least 20";
  // The last stretch runs without faults on a still scene: every state datagram then
  // carries the final transforms, and a few clean ones are all the replica needs.
  const int faulty = seconds - std::max(10, seconds / 10);
  const std::string faults = kFaults + (",for=" + std::to_string(faulty) + "s");
  testlib::ScratchDir dir;
  testlib::ChildProcess server(
      testlib::ToolPath("game-server"),
      {"--host", "127.0.0.1", "--port", "0", "--entities", "3000", "--events", "20", "--seconds",
       std::to_string(seconds), "--freeze", std::to_string(faulty), "--simulate",
       faults + ",seed=11", "--final-state", (dir / "server.json").string(), "--quiet"},
      dir, "server");
  ASSERT_TRUE(testlib::WaitUntil([&] { return server.Stdout().find('\n') != std::string::npos; }))
      << "game-server printed no port; stderr:\n"
      << server.Stderr();
  const std::string port = testlib::Lines(server.Stdout()).at(0);
  testlib::ChildProcess client(
      testlib::ToolPath("game-client"),
      {"--host", "127.0.0.1", "--port", port, "--seconds", std::to_string(seconds + 60),
       "--simulate", faults + ",seed=12", "--dump", (dir / "client.json").string()},
      dir, "client");

  // The server stops on time and says goodbye; the client quits on that and writes its dump.
  ASSERT_EQ(server.Wait((seconds + 60) * 1000), 0) << server.Stderr();
  ASSERT_EQ(client.Wait(60000), 0) << client.Stderr();
  const std::vector<std::string> differences = testlib::ReplicaDifferences(
      testlib::ReadFile(dir / "server.json"), testlib::ReadFile(dir / "client.json"));
  std::string shown;
  for (size_t i = 0; i < differences.size() && i < 10; ++i) shown += differences[i] + "\n";
  EXPECT_TRUE(differences.empty()) << differences.size() << " differences, the first:\n" << shown;
  // The client's own summary: what it accepted and why it dropped the rest.
  const std::string log = client.Stderr();
  std::cout << log.substr(std::min(log.size(), log.rfind("game-client: the run ended")));
}

}  // namespace
