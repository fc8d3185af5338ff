// load-driver: the client end to end under the module's promised load. An in-process
// reference server with N entities streams its state at R ticks a second to a real client
// on loopback, which is driven like a game: a receiving thread, and on the game thread at
// F frames a second the work queued by Game::Synchronize (the state passes) followed by
// Send(). After the replica has been built, it measures for S seconds: state datagrams
// taken in per second, the game thread's frame work (passes + Send) and resident memory;
// then it stops the server, lets the socket drain, and accounts for every datagram sent:
// taken in, dropped by the client (by reason), or lost in the kernel (the socket's own
// drop count).
//
// Baseline, measured first in the same run: a server with the same options streams the
// same datagrams to a bare UDP socket that only counts them (after a hand-made handshake,
// with keep-alives so that the server keeps streaming). Its memory growth is the server's
// share of the process, since both run in one process.
//
// Exit status: 0 on a completed run, 1 when a phase failed (the reason on stderr), 64 for
// bad arguments.
#include <malloc.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "BenchSupport.h"
#include "filesystem/StreamValues.h"
#include "game/Host.h"
#include "game/Networking.h"
#include "net/TcpConnection.h"
#include "net/UdpEndpoint.h"
#include "server/GameServer.h"

namespace {

using Clock = std::chrono::steady_clock;
using benchsupport::ClientSideEntity;

constexpr int kUsageError = 64;
constexpr const char* kModule = "BENCH_ship";
// How long a receiver is given to take in what is still queued once the server stopped.
constexpr auto kDrainTime = std::chrono::milliseconds(1500);

struct Options {
  size_t entities = 100000;
  double rate = 1.0;
  double seconds = 10.0;
  int fps = 60;
  double events = 1.0;
  double settleTimeout = 180.0;
  bool baseline = true;
  bool flat = false;        // no riders and no physics: every state datagram a full one
  double applyShare = 0.5;  // of a frame, the time budget of the state passes
  std::string json;
  std::string markdown;
};

double Seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

Clock::duration Duration(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// Resident set size and its peak (/proc/self/status), and the heap in use (allocated and
// not freed, mallinfo2), in MiB. The heap figure is what the process holds now; RSS also
// keeps pages that were freed and not returned.
struct Memory {
  double rss = 0, peak = 0, heap = 0;
};
Memory ReadMemory() {
  std::ifstream status("/proc/self/status");
  Memory m;
  const struct mallinfo2 info = mallinfo2();
  m.heap = static_cast<double>(info.uordblks + info.hblkhd) / (1024 * 1024);
  std::string line;
  while (std::getline(status, line)) {
    long kb = 0;
    if (std::sscanf(line.c_str(), "VmRSS: %ld kB", &kb) == 1)
      m.rss = static_cast<double>(kb) / 1024;
    if (std::sscanf(line.c_str(), "VmHWM: %ld kB", &kb) == 1)
      m.peak = static_cast<double>(kb) / 1024;
  }
  return m;
}

// Hands freed heap back to the system, so that the next phase's memory figures start from
// what is really in use.
Memory TrimmedMemory() {
  malloc_trim(0);
  return ReadMemory();
}

// The kernel's count of datagrams dropped at the UDP socket bound to local `port` (its
// receive buffer was full): the "drops" column of /proc/net/udp and /proc/net/udp6.
uint64_t SocketDrops(uint16_t port) {
  uint64_t drops = 0;
  for (const char* path : {"/proc/net/udp", "/proc/net/udp6"}) {
    std::ifstream table(path);
    std::string line;
    std::getline(table, line);  // column names
    while (std::getline(table, line)) {
      std::istringstream fields(line);
      std::string slot, local, field;
      fields >> slot >> local;
      const size_t colon = local.rfind(':');
      if (colon == std::string::npos || std::stoul(local.substr(colon + 1), nullptr, 16) != port) {
        continue;
      }
      std::string last;
      while (fields >> field) last = field;
      drops += std::stoull(last);
    }
  }
  return drops;
}

struct Percentiles {
  double median = 0, p99 = 0, max = 0;
};
Percentiles PercentilesOf(std::vector<double> samples) {
  Percentiles p;
  if (samples.empty()) return p;
  std::sort(samples.begin(), samples.end());
  auto at = [&](double q) {
    const size_t i = static_cast<size_t>(q * static_cast<double>(samples.size() - 1) + 0.5);
    return samples[std::min(i, samples.size() - 1)];
  };
  p.median = at(0.5);
  p.p99 = at(0.99);
  p.max = samples.back();
  return p;
}

gameserver::Options ServerOptions(const Options& options) {
  gameserver::Options server;
  server.host = "127.0.0.1";
  server.entities = options.entities;
  server.rate = options.rate;
  server.mods = {kModule};
  server.eventsPerSecond = options.events;
  server.riders = server.physics = !options.flat;
  server.quiet = true;
  return server;
}

// What the server did with the state datagrams of its (single) client: counted for
// sending, and handed to the kernel (the rest found the send queue full).
struct ServerSent {
  uint64_t planned = 0, sent = 0;
};
ServerSent SentBy(const gameserver::GameServer& server) {
  const gameserver::Counters c = server.GetCounters();
  return ServerSent{c.transformDatagrams + c.physicsDatagrams, c.datagramsOut};
}

// The datagram port the server streams to (learnt from the receiver's keep-alives).
uint16_t StreamPort(const gameserver::GameServer& server) {
  const std::vector<gameserver::ClientInfo> clients = server.Clients();
  return clients.empty() ? 0 : clients.front().datagramPort;
}

// A measured window and the whole run's accounting, for either receiver.
struct Stream {
  double window = 0;
  uint64_t windowSent = 0, windowTakenIn = 0;
  // From the first datagram to the end of the drain.
  uint64_t planned = 0, sent = 0, takenIn = 0, socketDrops = 0;
};

// ---------------------------------------------------------------------------------------
// The client.

struct ClientResult {
  Stream stream;
  double settleSeconds = 0;
  // The constructor (connect, hello, welcome), then from its return until the registry
  // held the entities with an interface (creates taken in on the receiving thread).
  double connectSeconds = 0, buildSeconds = 0;
  size_t built = 0;
  double gameThreadCpu = 0;  // CPU seconds of the game thread over the window
  uint64_t passesDropped = 0, passesWaiting = 0;
  size_t replica = 0;
  uint64_t droppedShort = 0, droppedMagic = 0, droppedSender = 0, droppedStale = 0,
           droppedForeign = 0;
  uint64_t passes = 0;
  size_t frames = 0;
  size_t lateFrames = 0;
  Percentiles frameMs, passesMs, sendMs;
  Memory before, loaded, after, released;
};

class GameLoop {
 public:
  GameLoop(client::Client& client, int fps, double applyShare)
      : client_(client),
        frame_(Duration(1.0 / fps)),
        budget_(std::chrono::duration_cast<Clock::duration>(frame_ * applyShare)) {}

  // Runs frames until `until` returns true, `deadline` passes or the game is asked to
  // quit; records each frame's work when `record`. Returns whether `until` ended it.
  template <typename Until>
  bool Run(Until until, Clock::time_point deadline, bool record) {
    auto next = Clock::now();
    while (!until()) {
      if (Clock::now() >= deadline || !Game::isActive) return false;
      const auto start = Clock::now();
      passes_ += orvex::engine::RunSynchronized(budget_);
      const auto middle = Clock::now();
      client_.Send();
      const auto end = Clock::now();
      if (record) {
        passesMs_.push_back(Seconds(middle - start) * 1e3);
        sendMs_.push_back(Seconds(end - middle) * 1e3);
        frameMs_.push_back(Seconds(end - start) * 1e3);
      }
      next += frame_;
      if (next < end) {
        if (record) ++late_;
        next = end;
      }
      std::this_thread::sleep_until(next);
    }
    return true;
  }

  uint64_t passes_ = 0;
  size_t late_ = 0;
  std::vector<double> frameMs_, passesMs_, sendMs_;

 private:
  client::Client& client_;
  Clock::duration frame_;
  Clock::duration budget_;
};

double ThreadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

ClientResult RunClient(const Options& options) {
  ClientResult r;
  r.before = TrimmedMemory();
  gameserver::GameServer server(ServerOptions(options));
  server.Start();
  size_t expected = 0;
  for (const gameserver::EntityState& e : server.Snapshot()) {
    if (e.text != "nointerface") ++expected;
  }

  const auto joined = Clock::now();
  Game::isActive = true;
  auto client = std::make_unique<client::Client>("127.0.0.1", server.Port(), "load", "");
  const auto connected = Clock::now();
  r.connectSeconds = Seconds(connected - joined);
  for (const std::string& name : Game::_mods) benchsupport::LoadMod(name);
  std::thread receiving([&] {
    pthread_setname_np(pthread_self(), "receiving");
    client->ReceivingThread();
  });
  // Stops the receiving thread on every way out.
  struct Stop {
    std::thread& thread;
    ~Stop() {
      Game::isActive = false;
      if (thread.joinable()) thread.join();
    }
  } stop{receiving};
  client->Connected();

  // The replica is built when (nearly) every entity with an interface is registered; the
  // scene's own events move the count by a few while it loads.
  GameLoop loop(*client, options.fps, options.applyShare);
  const size_t wanted = expected - std::min<size_t>(expected, expected / 1000 + 2);
  if (!loop.Run([&] { return benchsupport::RegistrySize() >= wanted; },
                joined + Duration(options.settleTimeout), false)) {
    throw std::runtime_error("the replica held " + std::to_string(benchsupport::RegistrySize()) +
                             " of " + std::to_string(expected) + " entities after " +
                             std::to_string(options.settleTimeout) + " s");
  }
  r.buildSeconds = Seconds(Clock::now() - connected);
  r.built = benchsupport::RegistrySize();
  // Two more ticks, so that the create backlog is gone from the receiving thread.
  loop.Run([] { return false; }, Clock::now() + Duration(2.0 / options.rate + 0.5), false);
  r.settleSeconds = Seconds(Clock::now() - joined);
  r.loaded = ReadMemory();

  const client::Counters& counters = client->GetCounters();
  auto load = [](const std::atomic<uint64_t>& a) { return a.load(std::memory_order_relaxed); };
  const uint64_t sent0 = SentBy(server).sent, accepted0 = load(counters.datagramsAccepted);
  const uint64_t passes0 = loop.passes_, dropped0 = orvex::engine::SynchronizeFigures().dropped;
  const double cpu0 = ThreadCpuSeconds();
  const auto windowStart = Clock::now();
  loop.Run([] { return false; }, windowStart + Duration(options.seconds), true);
  r.gameThreadCpu = ThreadCpuSeconds() - cpu0;
  r.passesDropped = orvex::engine::SynchronizeFigures().dropped - dropped0;
  r.passesWaiting = orvex::engine::SynchronizeFigures().queued;
  r.stream.window = Seconds(Clock::now() - windowStart);
  r.stream.windowSent = SentBy(server).sent - sent0;
  r.stream.windowTakenIn = load(counters.datagramsAccepted) - accepted0;
  r.passes = loop.passes_ - passes0;
  r.frames = loop.frameMs_.size();
  r.lateFrames = loop.late_;
  r.frameMs = PercentilesOf(loop.frameMs_);
  r.passesMs = PercentilesOf(loop.passesMs_);
  r.sendMs = PercentilesOf(loop.sendMs_);
  r.replica = benchsupport::RegistrySize();
  r.after = ReadMemory();

  // Whole-run accounting: no more sends, then time for the socket to drain. The receiving
  // thread is stopped first, so that the server's goodbye finds the game already leaving.
  Game::isActive = false;
  receiving.join();
  const uint16_t port = StreamPort(server);
  server.Stop();
  std::this_thread::sleep_for(kDrainTime);
  const ServerSent total = SentBy(server);
  r.stream.planned = total.planned;
  r.stream.sent = total.sent;
  r.stream.takenIn = load(counters.datagramsAccepted);
  r.stream.socketDrops = SocketDrops(port);
  r.droppedShort = load(counters.droppedShort);
  r.droppedMagic = load(counters.droppedMagic);
  r.droppedSender = load(counters.droppedSender);
  r.droppedStale = load(counters.droppedStale);
  r.droppedForeign = load(counters.droppedForeign);

  client.reset();
  orvex::engine::RunSynchronized();
  {
    std::lock_guard<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    ClientSideEntity::_sharedObjects.clear();
  }
  // The headless renderer keeps an aim reference per entity the replica ever held.
  orvex::engine::ResetGame();
  r.released = TrimmedMemory();
  return r;
}

// ---------------------------------------------------------------------------------------
// The same stream into a bare socket.

struct BaselineResult {
  Stream stream;
  Memory before, after;
};

// The server's side of the bargain without a client: a hello, the welcome read field by
// field, every later TCP byte read and forgotten, and a datagram keep-alive every 500 ms
// from the counting socket so that the server knows where to stream.
class BareReceiver {
 public:
  explicit BareReceiver(uint16_t port)
      : tcp_("127.0.0.1", port, 0, 5000), udp_("127.0.0.1", port, 64) {
    const wire::Bytes hello = wire::ByteWriter()
                                  .U8(LEAD_BYTE)
                                  .Raw(networking::MAGIC, sizeof networking::MAGIC)
                                  .U32(networking::HELLO_VERSION)
                                  .Text("bare");
    tcp_.Write(hello.data(), hello.size());
    tcp_.Flush();
    if (tcp_.Poll(5000) != 1 || ReadValue<uint8_t>(tcp_) != 1) {
      throw std::runtime_error("the server did not welcome the bare receiver");
    }
    version_ = ReadValue<uint16_t>(tcp_);
    tag_ = ReadValue<uint16_t>(tcp_);
    player_ = ReadValue<uint64_t>(tcp_);
    tcp_.ReadString(1024);
    while (!tcp_.ReadString(1024).empty()) {
    }
    ReadValue<int32_t>(tcp_);
    std::vector<unsigned char> config(ReadValue<uint32_t>(tcp_));
    if (!config.empty()) tcp_.Read(config.data(), config.size());

    udp_.Receive([this](const orvex::net::UdpEndpoint&, orvex::filesystem::ReadOnlyStream&&) {
      received_.fetch_add(1, std::memory_order_relaxed);
    });
    draining_ = std::thread([this] {
      std::vector<unsigned char> sink(1 << 20);
      while (!stop_) {
        if (tcp_.Poll(50) != 1) continue;
        try {
          tcpBytes_.fetch_add(tcp_.ReadSome(sink.data(), sink.size()), std::memory_order_relaxed);
        } catch (const std::exception&) {
          return;
        }
      }
    });
  }

  ~BareReceiver() {
    stop_ = true;
    draining_.join();
    udp_.StopReceiving();
  }

  void KeepAlive() {
    const wire::Bytes keepAlive =
        wire::ByteWriter().U8(LEAD_BYTE).U16(version_).U16(tag_).U64(player_).U8(
            networking::MSG_KEEPALIVE);
    udp_.Write(keepAlive.data(), keepAlive.size());
    udp_.Flush();
  }

  uint64_t Received() const { return received_.load(std::memory_order_relaxed); }
  uint64_t TcpBytes() const { return tcpBytes_.load(std::memory_order_relaxed); }

 private:
  orvex::net::TcpConnection tcp_;
  orvex::net::UdpEndpoint udp_;
  uint16_t version_ = 0, tag_ = 0;
  uint64_t player_ = 0;
  std::atomic<uint64_t> received_{0};
  std::atomic<uint64_t> tcpBytes_{0};
  std::atomic<bool> stop_{false};
  std::thread draining_;
};

BaselineResult RunBaseline(const Options& options) {
  BaselineResult r;
  r.before = TrimmedMemory();
  gameserver::GameServer server(ServerOptions(options));
  server.Start();
  {
    BareReceiver bare(server.Port());

    // Settle: keep-alives until datagrams flow and the creates stopped arriving on TCP.
    auto keepAliveDue = Clock::now();
    auto keepAlives = [&] {
      if (Clock::now() < keepAliveDue) return;
      bare.KeepAlive();
      keepAliveDue = Clock::now() + std::chrono::milliseconds(500);
    };
    const auto deadline = Clock::now() + Duration(options.settleTimeout);
    uint64_t lastBytes = ~uint64_t{0};
    auto quietSince = Clock::now();
    for (;;) {
      if (Clock::now() >= deadline) throw std::runtime_error("the bare receiver never settled");
      keepAlives();
      const uint64_t bytes = bare.TcpBytes();
      if (bytes != lastBytes) {
        lastBytes = bytes;
        quietSince = Clock::now();
      }
      if (bare.Received() > 0 && Clock::now() - quietSince > std::chrono::seconds(1)) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }

    const uint64_t sent0 = SentBy(server).sent, received0 = bare.Received();
    const auto start = Clock::now();
    while (Clock::now() < start + Duration(options.seconds)) {
      keepAlives();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    r.stream.window = Seconds(Clock::now() - start);
    r.stream.windowSent = SentBy(server).sent - sent0;
    r.stream.windowTakenIn = bare.Received() - received0;
    r.after = ReadMemory();

    const uint16_t port = StreamPort(server);
    server.Stop();
    std::this_thread::sleep_for(kDrainTime);
    const ServerSent total = SentBy(server);
    r.stream.planned = total.planned;
    r.stream.sent = total.sent;
    r.stream.takenIn = bare.Received();
    r.stream.socketDrops = SocketDrops(port);
  }
  return r;
}

// ---------------------------------------------------------------------------------------
// Reports.

std::string Fixed(double value, int digits = 1) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

double PerSecond(uint64_t count, double seconds) {
  return seconds > 0 ? static_cast<double>(count) / seconds : 0.0;
}

double LoadAverage() {
  std::ifstream file("/proc/loadavg");
  double one = 0;
  file >> one;
  return one;
}

std::string Markdown(const Options& o, const ClientResult& c, const BaselineResult* b,
                     double loadBefore) {
  std::ostringstream out;
  const uint64_t clientDrops =
      c.droppedShort + c.droppedMagic + c.droppedSender + c.droppedStale + c.droppedForeign;
  auto unaccounted = [](const Stream& s, uint64_t dropped) {
    const uint64_t seen = s.takenIn + dropped + s.socketDrops;
    return s.sent > seen ? s.sent - seen : 0;
  };
  const double clientRate = PerSecond(c.stream.windowTakenIn, c.stream.window);
  const double baseRate = b ? PerSecond(b->stream.windowTakenIn, b->stream.window) : 0.0;
  auto both = [&](const std::string& client, const std::string& base) {
    return " | " + client + " | " + (b ? base : std::string("-")) + " |";
  };
  out << "### load-driver\n\n"
      << o.entities << " entities, " << Fixed(o.rate, 1) << " server ticks/s, " << o.fps << " fps, "
      << Fixed(o.seconds, 0) << " s measured after the replica was built"
      << (o.flat ? " (no riders, no physics: every state datagram full)" : "") << "; passes given "
      << Fixed(o.applyShare * 100, 0) << "% of a frame; load average " << Fixed(loadBefore, 2)
      << " when the run began.\n\n"
      << "| measure | client | baseline: bare UdpSocket | ratio |\n|---|---:|---:|---:|\n";
  out << "| state datagrams sent by the server /s"
      << both(Fixed(PerSecond(c.stream.windowSent, c.stream.window), 0),
              b ? Fixed(PerSecond(b->stream.windowSent, b->stream.window), 0) : "")
      << " |\n";
  out << "| state datagrams taken in /s" << both(Fixed(clientRate, 0), Fixed(baseRate, 0)) << " "
      << (b && baseRate > 0 ? Fixed(clientRate / baseRate, 2) : "n/a") << " |\n";
  out << "| whole run: sent / taken in"
      << both(std::to_string(c.stream.sent) + " / " + std::to_string(c.stream.takenIn),
              b ? std::to_string(b->stream.sent) + " / " + std::to_string(b->stream.takenIn) : "")
      << " |\n";
  out << "| whole run: lost in the socket's receive buffer / unaccounted"
      << both(std::to_string(c.stream.socketDrops) + " / " +
                  std::to_string(unaccounted(c.stream, clientDrops)),
              b ? std::to_string(b->stream.socketDrops) + " / " +
                      std::to_string(unaccounted(b->stream, 0))
                : "")
      << " |\n";
  out << "| whole run: not sent (server's send queue full)"
      << both(std::to_string(c.stream.planned - c.stream.sent),
              b ? std::to_string(b->stream.planned - b->stream.sent) : "")
      << " |\n";
  out << "| dropped by the client: stale / foreign / sender / magic / short | " << c.droppedStale
      << " / " << c.droppedForeign << " / " << c.droppedSender << " / " << c.droppedMagic << " / "
      << c.droppedShort << " | | |\n";
  out << "| join: connect / build " << c.built << " entities (creates/s) | "
      << Fixed(c.connectSeconds * 1e3, 1) << " ms / " << Fixed(c.buildSeconds, 2) << " s ("
      << Fixed(c.buildSeconds > 0 ? static_cast<double>(c.built) / c.buildSeconds : 0, 0)
      << ") | | |\n";
  out << "| state passes run /s | " << Fixed(PerSecond(c.passes, c.stream.window), 0) << " | | |\n";
  out << "| state passes dropped over the queue cap / waiting at the end | " << c.passesDropped
      << " / " << c.passesWaiting << " | | |\n";
  out << "| game thread CPU share | " << Fixed(100 * c.gameThreadCpu / c.stream.window, 0)
      << "% | | |\n";
  out << "| frame work (passes + Send), median / p99 / max | " << Fixed(c.frameMs.median, 2)
      << " / " << Fixed(c.frameMs.p99, 2) << " / " << Fixed(c.frameMs.max, 1) << " ms | | |\n";
  out << "| of which passes, median / p99 / max | " << Fixed(c.passesMs.median, 2) << " / "
      << Fixed(c.passesMs.p99, 2) << " / " << Fixed(c.passesMs.max, 1) << " ms | | |\n";
  out << "| of which Send, median / p99 / max | " << Fixed(c.sendMs.median, 2) << " / "
      << Fixed(c.sendMs.p99, 2) << " / " << Fixed(c.sendMs.max, 1) << " ms | | |\n";
  out << "| frames run / over the " << Fixed(1000.0 / o.fps, 1) << " ms budget | " << c.frames
      << " / " << c.lateFrames << " (of " << Fixed(o.seconds * o.fps, 0) << " due) | | |\n";
  out << "| RSS, MiB: before / replica built / end of window / client gone | "
      << Fixed(c.before.rss, 0) << " / " << Fixed(c.loaded.rss, 0) << " / " << Fixed(c.after.rss, 0)
      << " / " << Fixed(c.released.rss, 0) << " | "
      << (b ? Fixed(b->before.rss, 0) + " / - / " + Fixed(b->after.rss, 0) + " / -" : "-")
      << " | |\n";
  out << "| heap in use, MiB: before / replica built / end of window / client gone | "
      << Fixed(c.before.heap, 0) << " / " << Fixed(c.loaded.heap, 0) << " / "
      << Fixed(c.after.heap, 0) << " / " << Fixed(c.released.heap, 0) << " | "
      << (b ? Fixed(b->before.heap, 0) + " / - / " + Fixed(b->after.heap, 0) + " / -" : "-")
      << " | |\n";
  return out.str();
}

std::string Json(const Options& o, const ClientResult& c, const BaselineResult* b) {
  std::ostringstream out;
  auto pct = [](const Percentiles& p) {
    return "{\"median\": " + Fixed(p.median, 3) + ", \"p99\": " + Fixed(p.p99, 3) +
           ", \"max\": " + Fixed(p.max, 3) + "}";
  };
  auto stream = [](const Stream& s) {
    return "\"window\": " + Fixed(s.window, 3) +
           ", \"windowSent\": " + std::to_string(s.windowSent) +
           ", \"windowTakenIn\": " + std::to_string(s.windowTakenIn) +
           ", \"planned\": " + std::to_string(s.planned) + ", \"sent\": " + std::to_string(s.sent) +
           ", \"takenIn\": " + std::to_string(s.takenIn) +
           ", \"socketDrops\": " + std::to_string(s.socketDrops);
  };
  out << "{\n  \"entities\": " << o.entities << ", \"rate\": " << o.rate << ", \"fps\": " << o.fps
      << ", \"seconds\": " << o.seconds << ",\n"
      << "  \"client\": {" << stream(c.stream)
      << ", \"settleSeconds\": " << Fixed(c.settleSeconds, 3)
      << ", \"connectSeconds\": " << Fixed(c.connectSeconds, 4)
      << ", \"buildSeconds\": " << Fixed(c.buildSeconds, 3) << ", \"built\": " << c.built
      << ", \"gameThreadCpu\": " << Fixed(c.gameThreadCpu, 3)
      << ", \"passesDropped\": " << c.passesDropped << ", \"passesWaiting\": " << c.passesWaiting
      << ", \"replica\": " << c.replica << ", \"droppedStale\": " << c.droppedStale
      << ", \"droppedForeign\": " << c.droppedForeign << ", \"droppedSender\": " << c.droppedSender
      << ", \"droppedMagic\": " << c.droppedMagic << ", \"droppedShort\": " << c.droppedShort
      << ", \"passes\": " << c.passes << ", \"frames\": " << c.frames
      << ", \"lateFrames\": " << c.lateFrames << ", \"frameMs\": " << pct(c.frameMs)
      << ", \"passesMs\": " << pct(c.passesMs) << ", \"sendMs\": " << pct(c.sendMs)
      << ", \"heapMiB\": {\"before\": " << Fixed(c.before.heap)
      << ", \"loaded\": " << Fixed(c.loaded.heap) << ", \"end\": " << Fixed(c.after.heap)
      << ", \"released\": " << Fixed(c.released.heap) << "}"
      << ", \"rssMiB\": {\"before\": " << Fixed(c.before.rss)
      << ", \"loaded\": " << Fixed(c.loaded.rss) << ", \"end\": " << Fixed(c.after.rss)
      << ", \"released\": " << Fixed(c.released.rss) << ", \"peak\": " << Fixed(c.after.peak)
      << "}}";
  if (b) {
    out << ",\n  \"baseline\": {" << stream(b->stream)
        << ", \"rssMiB\": {\"before\": " << Fixed(b->before.rss)
        << ", \"end\": " << Fixed(b->after.rss)
        << "}, \"heapMiB\": {\"before\": " << Fixed(b->before.heap)
        << ", \"end\": " << Fixed(b->after.heap) << "}}";
  }
  out << "\n}\n";
  return out.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::trunc);
  file << text;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
}

}  // namespace
int main(int argc, char** argv) {
  Options options;
  CLI::App app{
      "Streams a reference server's state to a real client in this process, drives the client "
      "like a game, and reports throughput, drops, frame work and memory against a bare UDP "
      "socket fed the same stream."};
  app.add_option("--entities", options.entities, "entities in the server's scene")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000));
  app.add_option("--rate", options.rate, "server ticks per second (state of every entity each)")
      ->capture_default_str()
      ->check(CLI::Range(0.1, 1000.0));
  app.add_option("--seconds", options.seconds, "length of each measured window")
      ->capture_default_str()
      ->check(CLI::Range(0.5, 3600.0));
  app.add_option("--fps", options.fps, "game frames per second")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  app.add_option("--events", options.events, "scene updates, moves and destroys per second")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 10000.0));
  app.add_option("--settle-timeout", options.settleTimeout,
                 "seconds allowed for building the replica")
      ->capture_default_str()
      ->check(CLI::Range(1.0, 3600.0));
  app.add_flag("!--no-baseline", options.baseline, "skip the bare-socket baseline");
  app.add_flag("--flat", options.flat,
               "no entity rides on another and no physics: every state datagram a full one");
  app.add_option("--apply-share", options.applyShare,
                 "share of a frame the state passes may take (the rest waits for later frames)")
      ->capture_default_str()
      ->check(CLI::Range(0.01, 1.0));
  app.add_option("--json", options.json, "write the figures as JSON to this file");
  app.add_option("--markdown", options.markdown, "write the figures as a Markdown table here");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::string reason = e.what();
    std::replace(reason.begin(), reason.end(), '\n', ' ');
    std::cerr << "load-driver: " << reason << std::endl;
    return kUsageError;
  }

  try {
    const double loadBefore = LoadAverage();
    std::unique_ptr<BaselineResult> baseline;
    if (options.baseline) {
      std::cerr << "load-driver: baseline phase (bare UDP socket)" << std::endl;
      baseline = std::make_unique<BaselineResult>(RunBaseline(options));
    }
    std::cerr << "load-driver: client phase (" << options.entities << " entities, " << options.rate
              << " ticks/s)" << std::endl;
    const ClientResult client = RunClient(options);
    const std::string table = Markdown(options, client, baseline.get(), loadBefore);
    std::cout << table;
    if (!options.markdown.empty()) WriteFile(options.markdown, table);
    if (!options.json.empty()) WriteFile(options.json, Json(options, client, baseline.get()));
  } catch (const std::exception& e) {
    std::cerr << "load-driver: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
