#include "client/Status.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <shared_mutex>
#include <vector>

#include <nlohmann/json.hpp>

#include "Game.h"
#include "client/Client.h"
#include "common/Log.h"
#include "game/Host.h"
#include "game/Networking.h"
#include "game/entity/ClientSideEntity.h"
#include "net/TcpConnection.h"
#include "net/UdpEndpoint.h"

namespace gameclient {
namespace {

// The figures' interval, which a freshness round also takes.
constexpr std::chrono::seconds kInterval{1};

// A steady clock's time in seconds, the freshness scan's time line.
double Seconds(std::chrono::steady_clock::time_point at) {
  return std::chrono::duration<double>(at.time_since_epoch()).count();
}

uint64_t Load(const std::atomic<uint64_t>& counter) {
  return counter.load(std::memory_order_relaxed);
}

std::string Size(uint64_t bytes) {
  char text[32];
  if (bytes < 10000) {
    std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
  } else if (bytes < 1000000) {
    std::snprintf(text, sizeof text, "%.1f kB", static_cast<double>(bytes) / 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  }
  return text;
}

// The summary's line on the replica's freshness at the last scan.
std::string FreshnessLine(const FreshnessFigures& f) {
  char text[160];
  std::snprintf(text, sizeof text, "  freshness:  state age median %.0f s, p99 %.0f s, max %.0f s",
                f.ageMs.median / 1e3, f.ageMs.p99 / 1e3, f.ageMs.max / 1e3);
  std::string line = text;
  if (!f.stalest.empty()) {
    std::snprintf(text, sizeof text, "%.2f", f.stalest.front().serverTime);
    line += "; stalest " + f.stalest.front().id + ", last heard of at server time " + text + " s";
  }
  return line + "\n";
}

}  // namespace

uint64_t ReplicaSize() {
  using game::entity::ClientSideEntity;
  std::shared_lock<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
  return ClientSideEntity::_sharedObjects.size();
}

Figures Measure(const client::Client& client) {
  const client::Counters& c = client.GetCounters();
  Figures f;
  f.entities = ReplicaSize();
  f.accepted = Load(c.datagramsAccepted);
  f.droppedShort = Load(c.droppedShort);
  f.droppedMagic = Load(c.droppedMagic);
  f.droppedSender = Load(c.droppedSender);
  f.droppedStale = Load(c.droppedStale);
  f.droppedForeign = Load(c.droppedForeign);
  f.passesHeld = orvex::engine::SynchronizeFigures().held;
  for (const std::atomic<uint64_t>& n : c.reliableByCode) f.reliable += Load(n);
  f.creates = Load(c.reliableByCode[0x40]);
  f.destroys = Load(c.reliableByCode[0x41]);
  f.updates = Load(c.reliableByCode[0x42]);
  f.moves = Load(c.reliableByCode[0x46]);
  f.moduleMessages = Load(c.reliableByCode[networking::MSG_FOR_MODULE]);
  // The module's sockets are the only ones this process opens.
  f.bytesIn =
      orvex::net::TcpConnection::ClientBytes().in + orvex::net::UdpEndpoint::ClientBytes().in;
  f.bytesOut =
      orvex::net::TcpConnection::ClientBytes().out + orvex::net::UdpEndpoint::ClientBytes().out;
  return f;
}

std::string SummaryText(const Figures& f, double seconds, const std::string& ending,
                        const NetworkStats& stats, const FreshnessFigures& freshness) {
  char rate[32];
  std::snprintf(rate, sizeof rate, "%.1f",
                seconds > 0 ? static_cast<double>(f.accepted) / seconds : 0.0);
  char duration[32];
  std::snprintf(duration, sizeof duration, "%.1f", seconds);
  char jitter[32];
  std::snprintf(jitter, sizeof jitter, "%.1f", stats.JitterMs());
  const uint64_t other =
      f.reliable - f.creates - f.updates - f.moves - f.destroys - f.moduleMessages;
  const Second::Ticks t = stats.TransformTotals(), p = stats.PhysicsTotals();
  return tools::LogHead("game-client", tools::Level::kInfo) + "the run ended (" + ending +
         ") after " + duration + " s\n" + "  replica:    " + std::to_string(f.entities) +
         " entities\n" + "  datagrams:  " + std::to_string(f.accepted) + " accepted, " + rate +
         " per second\n" + "  dropped:    short " + std::to_string(f.droppedShort) +
         ", wrong magic " + std::to_string(f.droppedMagic) + ", wrong sender " +
         std::to_string(f.droppedSender) + ", stale " + std::to_string(f.droppedStale) +
         ", foreign " + std::to_string(f.droppedForeign) + ", held at the game's queue cap " +
         std::to_string(f.passesHeld) + "\n" + "  ticks:      missed " + std::to_string(t.missed) +
         " transforms, " + std::to_string(p.missed) + " physics; late " +
         std::to_string(t.late + p.late) + "; jitter " + jitter + " ms\n" +
         "  reliable:   " + std::to_string(f.reliable) + " messages (create " +
         std::to_string(f.creates) + ", update " + std::to_string(f.updates) + ", move " +
         std::to_string(f.moves) + ", destroy " + std::to_string(f.destroys) + ", module " +
         std::to_string(f.moduleMessages) + ", other " + std::to_string(other) + ")\n" +
         "  bytes:      in " + Size(f.bytesIn) + ", out " + Size(f.bytesOut) + "\n" +
         FreshnessLine(freshness);
}

std::string StatusText(const Second& s, size_t width, const std::string& head) {
  const double per = s.seconds > 0 ? 1.0 / s.seconds : 0.0;
  auto rate = [per](uint64_t n) { return static_cast<double>(n) * per; };
  char text[96];
  std::vector<std::string> items;
  auto add = [&items, &text](int length) {
    if (length > 0) items.emplace_back(text, std::min<size_t>(size_t(length), sizeof text - 1));
  };
  if (s.silentMs > 1000)
    add(std::snprintf(text, sizeof text, "NOTHING FOR %.1f s", s.silentMs / 1e3));
  add(std::snprintf(text, sizeof text, "%llu entities",
                    static_cast<unsigned long long>(s.entities)));
  add(std::snprintf(text, sizeof text, "in %.0f/s %s/s", rate(s.in.datagrams),
                    Size(static_cast<uint64_t>(rate(s.in.bytes))).c_str()));
  add(std::snprintf(text, sizeof text, "missed %.0f/s",
                    rate(s.transformTicks.missed + s.physicsTicks.missed)));
  add(std::snprintf(text, sizeof text, "late %.0f/s stale %.0f/s",
                    rate(s.transformTicks.late + s.physicsTicks.late), rate(s.stale)));
  add(std::snprintf(text, sizeof text, "jitter %.1f ms", s.jitterMs));
  add(std::snprintf(text, sizeof text, "lag p99 %.0f ms", s.lateMs.p99));
  add(std::snprintf(text, sizeof text, "state age p99 %.0f s", s.freshness.ageMs.p99 / 1e3));
  add(std::snprintf(text, sizeof text, "wait p99 %.1f ms", s.applyWaitMs.p99));
  add(std::snprintf(text, sizeof text, "frame %.1f/%.1f ms", s.frameMs.median, s.frameMs.p99));
  add(std::snprintf(text, sizeof text, "out %.0f/s %s/s", rate(s.out.datagrams),
                    Size(static_cast<uint64_t>(rate(s.out.bytes))).c_str()));
  if (s.simulated) {
    add(std::snprintf(text, sizeof text, "simulated drop %.0f/s dup %.0f/s",
                      rate(s.simulatorIn.dropped + s.simulatorOut.dropped),
                      rate(s.simulatorIn.duplicated + s.simulatorOut.duplicated)));
  }
  std::string line = head;
  for (size_t i = 0; i < items.size(); ++i) {
    const std::string next = line + (i == 0 ? "" : " | ") + items[i];
    if (next.size() > width) break;
    line = next;
  }
  return line;
}

Monitor::Monitor(std::shared_ptr<NetworkStats> stats, std::ostream* jsonLines, std::ostream* status,
                 bool terminal)
    : stats_(std::move(stats)),
      jsonLines_(jsonLines),
      status_(status),
      terminal_(terminal),
      nextRecord_(Clock::now() + kInterval),
      nextShow_(Clock::now() + (terminal ? std::chrono::seconds(1) : std::chrono::seconds(5))) {}

void Monitor::Frame(const client::Client& client, Clock::time_point begun) {
  const auto now = Clock::now();
  stats_->Frame(now - begun);
  freshness_.Step(Seconds(now), Game::timestamp.load(),
                  std::chrono::duration<double>(kInterval).count());
  if (now >= nextRecord_) {
    // A late frame does not bunch up the intervals that follow.
    nextRecord_ = std::max(nextRecord_ + kInterval, now);
    Record(&client, now);
  }
  if (status_ != nullptr && now >= nextShow_) {
    nextShow_ = now + (terminal_ ? std::chrono::milliseconds(500) : std::chrono::seconds(5));
    Show(now);
  }
}

void Monitor::Finish(const client::Client& client) {
  Record(&client, Clock::now());
  Close();
}

void Monitor::Record(const client::Client* client, Clock::time_point now) {
  last_ = stats_->Take(client, now);
  last_.entities = ReplicaSize();
  last_.freshness = freshness_.Scan(Seconds(now), Game::timestamp.load());
  if (jsonLines_ != nullptr) *jsonLines_ << ToJson(last_).dump() << '\n' << std::flush;
}

void Monitor::Show(Clock::time_point now) {
  Second shown = last_;
  shown.silentMs = stats_->SilentMs(now);
  if (!terminal_) {
    *status_ << StatusText(shown, SIZE_MAX, tools::LogHead("game-client", tools::Level::kInfo))
             << std::endl;
    return;
  }
  winsize size{};
  const size_t columns =
      ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
  // One column short of the width: a line that fills it wraps on some terminals.
  *status_ << '\r' << StatusText(shown, columns - 1, "game-client: ") << "\x1b[K" << std::flush;
  open_ = true;
}

void Monitor::Close() {
  if (open_) *status_ << '\n' << std::flush;
  open_ = false;
}

}  // namespace gameclient
