// game-client: a headless game that loads the network client module and drives it as a game
// does, with a sandbox mod for each mod the server names. See docs/game-client.md.
//
// Exit status: 0 when the run ended by time, by signal or by the server's goodbye; 1 for a
// lost connection (the receiving thread's error, a failed flush, the module's silence
// check) or another failure; 2 when the client's constructor threw (the reason is the last
// line on stderr); 64 for bad arguments; 128 + the signal for a second signal, or a signal
// during the connection attempt. See docs/game-client.md, "Endings".
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>

#include "Game.h"
#include "client/Client.h"
#include "client/Digest.h"
#include "client/Dump.h"
#include "client/Sandbox.h"
#include "client/Stats.h"
#include "client/Status.h"
#include "common/Log.h"
#include "common/OutputFile.h"
#include "common/Recording.h"
#include "common/ThreadOrder.h"
#include "game/Host.h"
#include "game/Networking.h"
#include "net/SocketObserver.h"
#include "net/TcpConnection.h"
#include "net/UdpEndpoint.h"
#include "orvex/net/Socket.h"

namespace {

constexpr int kUsageError = 64;
constexpr int kFailed = 1;
constexpr int kConstructorFailed = 2;
// How long a replay waits for the event its recorded order expects before it gives the
// order up: a recording's frames are never this far apart.
constexpr auto kOrderStall = std::chrono::seconds(5);

// Written by the signal handler, which may run on any of the process's threads; lock-free,
// so touching them is async-signal-safe.
std::atomic<bool> stopSignal{false};
std::atomic<int> signalsSeen{0};
// True until the constructor returns: there is nothing to end cleanly before that.
std::atomic<bool> connecting{true};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

// The first signal ends the run at the next frame; a second one, or one that arrives while
// the constructor still connects, ends the process at once.
extern "C" void OnStopSignal(int signal) {
  if (signalsSeen.fetch_add(1) > 0 || connecting.load()) _exit(128 + signal);
  stopSignal.store(true);
}

// How a run ended: the summary's words, the dump's "ending" and the exit status.
struct Ending {
  std::string text;
  int status = 0;
};

struct Options {
  std::string host = "127.0.0.1";
  int port = 7777;
  std::string token;
  std::string password;
  double seconds = 0;  // 0: no time limit
  int fps = 60;
  std::string environment = "0,0";
  uint64_t parentEnvironment = 0, relativeEnvironment = 0;
  std::string dump;
  std::string stats;  // per-second figures as JSON Lines
  bool quiet = false;
  std::string simulate;  // network conditions on the client's UDP socket
  std::string record;    // the recording's path; empty: none
  double recordLimitMb = 256;
  std::string replayOrder;  // a recording whose thread order this run follows
  std::string digest;       // the replica's digest once a frame, as JSON Lines
  double dumpKeepMib = 64;  // what the dump keeps of module payloads and syncs together
};

int Usage(std::string reason) {
  for (char& c : reason) {
    if (c == '\n') c = ' ';
  }
  std::cerr << "game-client: " << reason << std::endl;
  return kUsageError;
}

bool ParseUnsigned(const std::string& text, uint64_t& value) {
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value, 10);
  return !text.empty() && result.ec == std::errc() && result.ptr == end;
}

bool ParseEnvironment(const std::string& text, uint64_t& parent, uint64_t& relative) {
  const size_t comma = text.find(',');
  if (comma == std::string::npos) return false;
  return ParseUnsigned(text.substr(0, comma), parent) &&
         ParseUnsigned(text.substr(comma + 1), relative);
}

void InstallSignalHandlers() {
  struct sigaction action = {};
  action.sa_handler = &OnStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

// Why the game stopped being active: the module quits the game for the server's goodbye,
// for a failed flush (it sets Client::error) and for a silent server (it sets nothing).
Ending QuitEnding(const client::Client& client) {
  if (client.GetCounters().reliableByCode[networking::MSG_DISCONNECT].load() > 0) {
    return {"the server disconnected", 0};
  }
  if (!client::Client::error.empty()) return {"lost connection: a flush failed", kFailed};
  return {"lost connection: the server fell silent", kFailed};
}

// The game's main loop, from the receiving thread's start to its join. Returns how the run
// ended. `receiverDone` is set when ReceivingThread() has returned.
Ending Run(client::Client& client, const Options& options, gameclient::NetworkStats& stats,
           gameclient::Monitor& monitor, const std::atomic<bool>& receiverDone,
           order::ThreadOrder* threadOrder, gameclient::ReplicaDigest* digest) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  const bool limited = options.seconds > 0;
  const auto deadline = start + std::chrono::duration_cast<Clock::duration>(
                                    std::chrono::duration<double>(limited ? options.seconds : 0.0));
  const auto frame =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / options.fps));

  auto next = start;
  while (Game::isActive.load()) {
    if (stopSignal.load()) return {"signal", 0};
    if (limited && Clock::now() >= deadline) return {"time", 0};
    // The thread only returns by itself after a read failed: the connection is gone.
    if (receiverDone.load() && Game::isActive.load()) {
      return {"lost connection: the receiving thread ended", kFailed};
    }
    const auto begun = Clock::now();
    const auto waited = [&stats](Clock::duration wait) { stats.Waited(wait); };
    // State passes get half a frame; what is left waits for the next frame, so a burst
    // of state delays state, never the frame. A replay that follows its recorded order
    // runs each frame's recorded work instead, and runs frames as fast as that work comes.
    bool ordered = false;
    if (threadOrder != nullptr) {
      ordered = threadOrder->Enforcing();
      const auto result = threadOrder->RunFrame(frame / 2, frame, waited, [digest, threadOrder] {
        if (digest != nullptr) digest->Frame(threadOrder->Events());
      });
      // Only a replay's order closes by itself: it was used up.
      if (result == order::ThreadOrder::Frame::kClosed) return {"the recorded order ended", 0};
    } else {
      orvex::engine::RunSynchronized(frame / 2, waited);
    }
    client.Send();
    monitor.Frame(client, begun);
    if (ordered) {
      next = Clock::now();
      continue;
    }
    next += frame;
    const auto now = Clock::now();
    // A late frame does not make the following ones rush to catch up.
    if (next < now) next = now;
    std::this_thread::sleep_until(next);
  }
  return QuitEnding(client);
}

// Whether `done` holds within `bound` (looked at every few milliseconds).
bool Within(const std::atomic<bool>& done, std::chrono::milliseconds bound) {
  const auto until = std::chrono::steady_clock::now() + bound;
  while (!done.load()) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// The session's parameters for the recording's comment: never the token or the password.
std::string SessionParameters(const Options& o) {
  std::ostringstream text;
  text << "game-client " << ORVEX_VERSION << " session: host " << o.host << ", port " << o.port
       << ", fps " << o.fps << ", environment " << o.environment << ", seconds " << o.seconds
       << ", simulate " << (o.simulate.empty() ? "off" : o.simulate);
  return text.str();
}

std::string WelcomeNote() {
  std::string mods;
  for (const std::string& name : Game::_mods) mods += (mods.empty() ? "" : ",") + name;
  return "welcome: player " + std::to_string(client::Client::GetPlayerID()) + ", user " +
         client::Client::GetUsername() + ", mods " + (mods.empty() ? "none" : mods);
}

// Ends the recorder's observation and closes the recording, if there is one; false when it
// failed.
bool FinishRecording(std::unique_ptr<recording::Recorder>& recorder,
                     std::optional<orvex::net::SocketObservation>& observation,
                     const std::string& ending) {
  if (!recorder) return true;
  observation.reset();
  try {
    recorder->Close(ending);
  } catch (const std::exception& e) {
    std::cerr << "game-client: recording: " << e.what() << std::endl;
    return false;
  }
  recorder.reset();
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{
      "A headless game: joins a game server with the network client module, replicates its "
      "entities with one sandbox mod per mod the server names, shows a status line and can "
      "dump the replica as JSON."};
  app.set_version_flag("--version", std::string("game-client ") + ORVEX_VERSION);
  // The defaults are game-server's: a server and a client started without arguments meet.
  app.add_option("--host", options.host, "server host name or address")->capture_default_str();
  app.add_option("--port", options.port, "server port (TCP and UDP)")
      ->capture_default_str()
      ->check(CLI::Range(1, 65535));
  app.add_option("--token", options.token, "access token (at most 64 bytes)");
  app.add_option("--password", options.password, "server password (none when empty)");
  app.add_option("--seconds", options.seconds, "stop after this many seconds (0: no limit)");
  app.add_option("--fps", options.fps, "frames per second")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  app.add_option("--environment", options.environment,
                 "PARENT,RELATIVE: the player's environment ids")
      ->capture_default_str();
  app.add_option("--dump", options.dump,
                 "write the replica as JSON to this file at the end (-: standard output)");
  app.add_option("--dump-keep", options.dumpKeepMib,
                 "MiB that the dump keeps of module message payloads and entity Sync records "
                 "together (the newest; the others are counted)")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1e6));
  app.add_option("--stats", options.stats,
                 "write the network's figures as one JSON line a second to this file (-: "
                 "standard output)");
  app.add_flag("--quiet", options.quiet, "no status line or summary on standard error");
  app.add_option("--simulate", options.simulate,
                 "network conditions on the client's UDP socket, e.g. loss=10%,delay=40ms,seed=7");
  app.add_option("--record", options.record,
                 "record the session (what the server sent, what the client sent, with their "
                 "times) as a pcapng capture to this file; never the token or the password");
  app.add_option("--replay-order", options.replayOrder,
                 "follow the thread order recorded in this recording (made with --record), "
                 "for a replay of it by game-server --replay: the replica comes out as "
                 "recorded");
  app.add_option("--digest", options.digest,
                 "write a digest of the replica at every frame's end to this file, as JSON "
                 "Lines, for replica-diff to compare two runs over one recording");
  app.add_option("--record-limit", options.recordLimitMb,
                 "stop recording when the file reaches this many MB (the session goes on)")
      ->capture_default_str()
      ->check(CLI::Range(1.0, 1e6));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    return Usage(e.what());
  }
  if (!std::isfinite(options.seconds) || options.seconds < 0) {
    return Usage("--seconds must be a number of seconds, at least 0");
  }
  if (!ParseEnvironment(options.environment, options.parentEnvironment,
                        options.relativeEnvironment)) {
    return Usage("--environment takes PARENT,RELATIVE: two unsigned decimal numbers");
  }
  for (const std::string& path : {options.dump, options.stats, options.digest}) {
    if (path.empty()) continue;
    try {
      tools::CheckWritable(path);
    } catch (const std::runtime_error& e) {
      return Usage(e.what());
    }
  }
  // The client module owns its UDP socket; the engine hands the settings to it at creation.
  try {
    orvex::net::UdpEndpoint::SimulateNewClientSockets(options.simulate);
  } catch (const std::invalid_argument& e) {
    return Usage(e.what());
  }

  // Large blocks (module payloads, sync records, stream buffers) always come from mmap and
  // go back to the system when freed, so resident memory follows what is kept: glibc would
  // otherwise raise its threshold after the first free and keep freed payloads in the heap.
  mallopt(M_MMAP_THRESHOLD, 1 << 20);
  sandbox::SetKeptBytesCap(static_cast<uint64_t>(options.dumpKeepMib * double(1 << 20)));
  auto stats = std::make_shared<gameclient::NetworkStats>();
  // Declared after what they observe, so that on every way out of main an observation ends
  // before its observer goes.
  orvex::net::SocketObservation statsObservation(*stats);
  std::ofstream statsFile;
  if (!options.stats.empty() && options.stats != "-") statsFile.open(options.stats);
  std::ostream* jsonLines = options.stats.empty()  ? nullptr
                            : options.stats == "-" ? &std::cout
                                                   : &statsFile;
  std::unique_ptr<recording::Recorder> recorder;
  std::optional<orvex::net::SocketObservation> recorderObservation;
  if (!options.record.empty()) {
    const double limitMb = options.recordLimitMb;
    try {
      recorder = std::make_unique<recording::Recorder>(
          options.record, static_cast<uint64_t>(limitMb * 1e6), SessionParameters(options),
          [limitMb] {
            std::cerr << "game-client: recording stopped at its limit of " << limitMb
                      << " MB (--record-limit); the session goes on unrecorded" << std::endl;
          });
    } catch (const std::runtime_error& e) {
      return Usage(e.what());
    }
    recorderObservation.emplace(*recorder);
  }

  // The thread order: recorded with the session, or imposed from a recording.
  std::unique_ptr<order::ThreadOrder> threadOrder;
  if (!options.replayOrder.empty()) {
    recording::Recording recorded;
    try {
      recorded = recording::LoadRecording(options.replayOrder);
    } catch (const std::runtime_error& e) {
      return Usage(e.what());
    }
    if (!recorded.ordered) {
      std::cerr << "game-client: " << options.replayOrder
                << " holds no thread order (it was recorded before orders were): the order "
                   "is unknown, so this run follows none"
                << std::endl;
    } else {
      threadOrder = std::make_unique<order::ThreadOrder>(
          std::move(recorded.order), kOrderStall,
          [](const std::string& line) { std::cerr << "game-client: " << line << std::endl; });
    }
  } else if (recorder || !options.digest.empty()) {
    // A digest, too, needs the frame's end alone with the replica.
    threadOrder = std::make_unique<order::ThreadOrder>([&recorder](order::Event event) {
      if (recorder) recorder->Heard(event);
    });
  }
  std::ofstream digestFile;
  std::unique_ptr<gameclient::ReplicaDigest> digest;
  if (!options.digest.empty()) {
    digestFile.open(options.digest, std::ios::trunc);
    digest = std::make_unique<gameclient::ReplicaDigest>(digestFile);
  }
  if (threadOrder) {
    // An event that queues work waits for none: the game thread may be waiting for it.
    orvex::engine::SetSynchronizeBound(orvex::engine::kDefaultSynchronizeCap,
                                       std::chrono::milliseconds(0));
    threadOrder->Install();
  }

  InstallSignalHandlers();
  Game::parentEnvironmentId = options.parentEnvironment;
  Game::relativeEnvironmentId = options.relativeEnvironment;

  std::unique_ptr<client::Client> client;
  try {
    client = std::make_unique<client::Client>(options.host, static_cast<uint16_t>(options.port),
                                              options.token, options.password);
  } catch (const std::exception& e) {
    if (!options.quiet) {
      std::cerr << tools::LogHead("game-client", tools::Level::kError) << "could not join "
                << options.host << " port " << options.port << ":" << std::endl;
    }
    FinishRecording(recorder, recorderObservation,
                    std::string("the connection failed: ") + e.what());
    std::cerr << e.what() << std::endl;
    return kConstructorFailed;
  }
  if (recorder) recorder->Note(WelcomeNote());
  connecting.store(false);

  for (const std::string& name : Game::_mods) {
    try {
      sandbox::Load(name);
    } catch (const std::invalid_argument& e) {
      if (!options.quiet) {
        std::cerr << tools::LogHead("game-client", tools::Level::kWarning)
                  << "mod not loaded: " << e.what() << std::endl;
      }
    }
  }

  gameclient::Monitor monitor(stats, jsonLines, options.quiet ? nullptr : &std::cerr,
                              isatty(STDERR_FILENO) == 1);
  const auto start = std::chrono::steady_clock::now();
  Ending ending;
  bool failed = false;
  std::atomic<bool> receiverDone{false};
  std::thread receiver([&client, &receiverDone, &threadOrder] {
    pthread_setname_np(pthread_self(), "receiving");
    client->ReceivingThread();
    if (threadOrder) threadOrder->ReceiverFinished();
    receiverDone.store(true);
  });
  try {
    client->Connected();
    ending = Run(*client, options, *stats, monitor, receiverDone, threadOrder.get(), digest.get());
  } catch (const std::exception& e) {
    monitor.Close();
    std::cerr << tools::LogHead("game-client", tools::Level::kError) << e.what() << std::endl;
    ending = {"failure", kFailed};
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  // The recording ends, or the replay stops, on an event's edge: nothing the threads take in
  // from here on changes the replica, in the recorded run as in its replays.
  if (threadOrder) threadOrder->Close(std::chrono::seconds(1));
  Game::isActive.store(false);
  // The receiving thread sees the end at its next poll, within half a second, unless it
  // waits for the rest of a message from a server that stopped halfway: that wait ends now.
  if (!Within(receiverDone, std::chrono::milliseconds(600))) {
    orvex::net::TcpConnection::ShutdownClientConnections();
  }
  receiver.join();

  gameclient::Identity identity;
  identity.playerId = client::Client::GetPlayerID();
  identity.username = client::Client::GetUsername();
  identity.admin = client::Client::IsAdmin();
  identity.ending = ending.text;
  gameclient::Figures figures = gameclient::Measure(*client);
  monitor.Finish(*client);
  client.reset();
  if (threadOrder) threadOrder->Remove();
  if (!FinishRecording(recorder, recorderObservation, "the run ended (" + ending.text + ")"))
    failed = true;
  try {
    orvex::engine::RunSynchronized();
  } catch (const std::exception& e) {
    std::cerr << tools::LogHead("game-client", tools::Level::kError) << e.what() << std::endl;
    failed = true;
  }
  figures.entities = gameclient::ReplicaSize();

  if (!options.dump.empty()) {
    try {
      gameclient::WriteDumpFile(options.dump, identity);
    } catch (const std::exception& e) {
      std::cerr << tools::LogHead("game-client", tools::Level::kError) << e.what() << std::endl;
      failed = true;
    }
  }
  if (!options.quiet) {
    std::cerr << gameclient::SummaryText(figures, seconds, ending.text, *stats,
                                         monitor.Last().freshness)
              << std::flush;
  }
  return failed || ending.status != 0 ? kFailed : 0;
}
