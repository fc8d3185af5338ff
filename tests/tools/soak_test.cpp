// The soak: once the network faults end, the replica converges to the server's final state.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>

#include "ChildProcess.h"
#include "ReplicaDiff.h"
#include "Wait.h"

namespace {

using namespace testlib;

// ORVEX_SOAK_SECONDS sets the duration and runs it in any build; the short one skips sanitizers.
TEST(Soak, ReplicaConvergesToTheServerOnceTheFaultsAreLifted) {
  const char* requested = std::getenv("ORVEX_SOAK_SECONDS");
  if (ORVEX_SANITIZED && requested == nullptr) GTEST_SKIP() << "a sanitized build";
  const int seconds = requested != nullptr ? std::atoi(requested) : 25;
  ASSERT_GE(seconds, 20) << "ORVEX_SOAK_SECONDS: at least 20";
  // Entities churn under faults on both UDP sockets; a fault-free still end carries the state.
  const int faulty = seconds - std::max(10, seconds / 10);
  const std::string faults =
      "loss=10%,delay=40ms,jitter=20ms,reorder=20%,dup=5%,for=" + std::to_string(faulty) + "s";
  ScratchDir dir;
  ChildProcess server(
      ToolPath("game-server"),
      {"--host", "127.0.0.1", "--port", "0", "--entities", "3000", "--events", "20", "--seconds",
       std::to_string(seconds), "--freeze", std::to_string(faulty), "--simulate",
       faults + ",seed=11", "--final-state", (dir / "server.json").string(), "--quiet"},
      dir, "server");
  ASSERT_TRUE(WaitUntil([&] { return server.Stdout().find('\n') != std::string::npos; }))
      << server.Stderr();
  ChildProcess client(ToolPath("game-client"),
                      {"--host", "127.0.0.1", "--port", Lines(server.Stdout()).at(0), "--seconds",
                       std::to_string(seconds + 60), "--simulate", faults + ",seed=12", "--dump",
                       (dir / "client.json").string()},
                      dir, "client");
  // The server stops on time and says goodbye; the client quits on that and writes its dump.
  ASSERT_EQ(server.Wait((seconds + 60) * 1000), 0) << server.Stderr();
  ASSERT_EQ(client.Wait(60000), 0) << client.Stderr();
  const std::vector<std::string> differences =
      ReplicaDifferences(ReadFile(dir / "server.json"), ReadFile(dir / "client.json"));
  EXPECT_TRUE(differences.empty()) << differences.size() << ", the first: " << differences[0];
  const std::string log = client.Stderr();  // the summary: what was taken in and dropped
  std::cout << log.substr(std::min(log.size(), log.rfind("game-client: the run ended")));
}

}  // namespace
