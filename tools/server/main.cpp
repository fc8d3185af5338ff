// game-server: the reference game server on the command line. See docs/game-server.md.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "common/Log.h"
#include "common/OutputFile.h"
#include "server/GameServer.h"
#include "server/Replay.h"
#include "server/Stats.h"

namespace {

constexpr int kUsageError = 64;
constexpr int kFailed = 1;
constexpr int kReplayDiffers = 3;
constexpr int kBadRecording = 65;

std::vector<std::string> SplitList(const std::string& text) {
  std::vector<std::string> items;
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) items.push_back(item);
  if (!text.empty() && text.back() == ',') items.emplace_back();
  return items;
}

int Usage(const std::string& reason) {
  std::cerr << "game-server: " << reason << std::endl;
  return kUsageError;
}

// Waits for SIGINT or SIGTERM (blocked in every thread) until `done`; true when one came.
template <typename Done>
bool WaitForSignal(const sigset_t& signals, Done done) {
  while (!done()) {
    timespec wait{0, 50 * 1000 * 1000};
    if (sigtimedwait(&signals, nullptr, &wait) > 0) return true;
  }
  return false;
}

// game-server --replay: plays a recording to one client. See docs/replay.md.
int Replay(const std::string& path, const gameserver::ReplayOptions& options, bool quiet,
           const sigset_t& signals) {
  recording::Recording recording;
  try {
    recording = recording::LoadRecording(path);
  } catch (const std::exception& e) {
    std::cerr << "game-server: cannot replay " << e.what() << std::endl;
    return kBadRecording;
  }
  if (!recording.complete && !quiet) {
    std::cerr << "game-server: " << path << " ends before the session did ("
              << (recording.ending.empty() ? "not closed" : recording.ending)
              << "); the client's traffic is compared up to its end" << std::endl;
  }
  if (!recording.ordered && !quiet) {
    std::cerr << "game-server: " << path
              << " holds no thread order (it was recorded before orders were): the thread "
                 "order is unknown, so a client replays it unordered and its replica may "
                 "differ by thread timing"
              << std::endl;
  }
  gameserver::Replayer replayer(std::move(recording), options);
  try {
    replayer.Start();
  } catch (const std::exception& e) {
    std::cerr << "game-server: " << e.what() << std::endl;
    return kFailed;
  }
  std::cout << replayer.Port() << std::endl;
  std::atomic<bool> done{false};
  gameserver::ReplayResult result;
  std::string failure;
  std::thread player([&] {
    try {
      result = replayer.Run();
    } catch (const std::exception& e) {
      failure = e.what();
    }
    done.store(true);
  });
  if (WaitForSignal(signals, [&] { return done.load(); })) replayer.Stop();
  player.join();
  if (!failure.empty()) {
    std::cerr << "game-server: replay of " << path << ": " << failure << std::endl;
    return kFailed;
  }
  const std::string sent = "sent " + std::to_string(result.tcpBytes) + " TCP bytes and " +
                           std::to_string(result.datagrams) + " datagrams";
  if (!result.difference.empty()) {
    std::cerr << "game-server: replay of " << path << ": " << sent
              << "; the client differs from the recording at " << result.difference << std::endl;
    return kReplayDiffers;
  }
  if (!quiet) {
    std::cerr << "game-server: replay of " << path << ": " << sent
              << "; the client's messages match the recording" << std::endl;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  gameserver::Options options;
  int port = 7777;
  int64_t entities = static_cast<int64_t>(options.entities);
  std::string mods = "DEMO_sandbox";
  double seconds = 0;
  double timeoutSeconds = options.clientTimeoutMs / 1000.0;
  bool quiet = false;
  std::string finalState;
  std::string stats;

  CLI::App app{
      "The reference game server: handshake, a moving scene of entities streamed to every "
      "client, module messages echoed back, entity actions logged."};
  app.set_version_flag("--version", std::string("game-server ") + ORVEX_VERSION);
  app.add_option("--port", port, "TCP and UDP port; 0 picks a free one (default 7777)");
  app.add_option("--host", options.host, "address to listen on; :: for every address")
      ->capture_default_str();
  app.add_option("--entities", entities, "entities in the scene")->capture_default_str();
  app.add_option("--rate", options.rate, "state datagrams per second")->capture_default_str();
  app.add_option("--password", options.password, "password that clients must present");
  app.add_option("--mods", mods, "comma-separated mod names (PREFIX_name)")->capture_default_str();
  app.add_option("--world", options.world, "world name sent to every client")
      ->capture_default_str();
  app.add_option("--mode", options.mode, "game mode sent in the welcome")->capture_default_str();
  app.add_option("--config", options.config, "configuration text sent in the welcome")
      ->capture_default_str();
  app.add_option("--admin-token", options.adminToken, "clients with this token are admins");
  app.add_option("--seconds", seconds, "stop after this many seconds (0: run until a signal)");
  app.add_option("--timeout", timeoutSeconds, "drop clients silent for this many seconds")
      ->capture_default_str();
  app.add_option("--events", options.eventsPerSecond,
                 "scene updates, moves and destroys per second")
      ->capture_default_str();
  app.add_option("--seed", options.seed, "seed of the scene's events")->capture_default_str();
  app.add_option("--freeze", options.freezeAfter,
                 "after this many seconds the scene stands still (0: never)");
  app.add_option("--simulate", options.simulate,
                 "network conditions on the UDP socket, e.g. loss=10%,delay=40ms,seed=7");
  app.add_option("--final-state", finalState,
                 "write the final state as JSON to this file at the end (-: standard output)");
  app.add_option("--stats", stats,
                 "write what was sent to each client as one JSON line a second to this file "
                 "(-: standard output, after the port line)");
  app.add_flag("--quiet", quiet, "no log lines on standard error");
  std::string replay;
  gameserver::ReplayOptions replayOptions;
  CLI::Option* replayOption =
      app.add_option("--replay", replay,
                     "play this recording (game-client --record) to one client, then exit; "
                     "--seconds bounds the wait for the client");
  app.add_flag("--fast", replayOptions.fast, "with --replay: gaps of at most 1 ms, not as recorded")
      ->needs(replayOption);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    return Usage(e.what());
  }
  if (port < 0 || port > 65535) return Usage("--port must be between 0 and 65535");
  if (entities < 0) return Usage("--entities must not be negative");
  if (!(seconds >= 0) || !std::isfinite(seconds)) return Usage("--seconds must not be negative");
  if (!(timeoutSeconds > 0) || timeoutSeconds > 86400) {
    return Usage("--timeout must be above 0 and at most 86400 seconds");
  }
  for (const std::string& path : {finalState, stats}) {
    if (path.empty()) continue;
    try {
      tools::CheckWritable(path);
    } catch (const std::runtime_error& e) {
      return Usage(e.what());
    }
  }
  options.port = static_cast<uint16_t>(port);
  options.entities = static_cast<size_t>(entities);
  options.mods = SplitList(mods);
  options.clientTimeoutMs = static_cast<int>(timeoutSeconds * 1000);
  options.quiet = quiet;

  // Signals are taken by sigtimedwait below; every thread inherits the blocked mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  if (!replay.empty()) {
    replayOptions.host = options.host;
    replayOptions.port = options.port;
    // --seconds bounds the wait for the client; the replay itself runs to its end.
    if (seconds > 0) replayOptions.acceptTimeoutMs = static_cast<int>(seconds * 1000);
    return Replay(replay, replayOptions, quiet, stopSignals);
  }

  try {
    gameserver::GameServer server(options);
    server.Start();
    std::cout << server.Port() << std::endl;
    std::ofstream statsFile;
    if (!stats.empty() && stats != "-") statsFile.open(stats);
    std::unique_ptr<gameserver::StatsWriter> writer;
    if (!stats.empty()) {
      writer = std::make_unique<gameserver::StatsWriter>(stats == "-" ? std::cout : statsFile);
    }
    auto nextLine = std::chrono::steady_clock::now() + std::chrono::seconds(1);

    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration<double>(seconds > 0 ? seconds : 1e9);
    while (std::chrono::steady_clock::now() < deadline) {
      timespec wait{0, 200 * 1000 * 1000};
      if (sigtimedwait(&stopSignals, nullptr, &wait) > 0) break;
      if (writer && std::chrono::steady_clock::now() >= nextLine) {
        nextLine += std::chrono::seconds(1);
        writer->Write(server);
      }
    }
    server.Stop();
    if (writer) writer->Write(server);
    if (!finalState.empty()) server.WriteState(finalState);
    if (!quiet) {
      const gameserver::Counters n = server.GetCounters();
      std::cerr << tools::LogHead("game-server", tools::Level::kInfo) << n.clientsAccepted
                << " clients, " << n.ticks << " ticks, " << n.datagramsOut << " datagrams out, "
                << n.entityActions << " entity actions, " << n.moduleMessages + n.moduleDatagrams
                << " module messages" << std::endl;
    }
  } catch (const std::invalid_argument& e) {
    return Usage(e.what());
  } catch (const std::exception& e) {
    std::cerr << tools::LogHead("game-server", tools::Level::kError) << e.what() << std::endl;
    return 1;
  }
  return 0;
}
