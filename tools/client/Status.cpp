#include "client/Status.h"

#include <cstdio>
#include <shared_mutex>

#include "Game.h"
#include "client/Client.h"
#include "game/Networking.h"
#include "game/entity/ClientSideEntity.h"

namespace gameclient {
namespace {

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
  f.passesDropped = Game::SynchronizeFigures().dropped;
  for (const std::atomic<uint64_t>& n : c.reliableByCode) f.reliable += Load(n);
  f.creates = Load(c.reliableByCode[0x40]);
  f.destroys = Load(c.reliableByCode[0x41]);
  f.updates = Load(c.reliableByCode[0x42]);
  f.moves = Load(c.reliableByCode[0x46]);
  f.moduleMessages = Load(c.reliableByCode[networking::MSG_FOR_MODULE]);
  f.bytesIn = client.GetBytesIn();
  f.bytesOut = client.GetBytesOut();
  return f;
}

std::string StatusText(const Figures& f) {
  return "game-client: " + std::to_string(f.entities) + " entities | datagrams " +
         std::to_string(f.accepted) + " accepted, dropped " + std::to_string(f.droppedShort) +
         " short " + std::to_string(f.droppedMagic) + " magic " + std::to_string(f.droppedSender) +
         " sender " + std::to_string(f.droppedStale) + " stale " +
         std::to_string(f.droppedForeign) + " foreign | reliable " + std::to_string(f.reliable) +
         " | in " + Size(f.bytesIn) + ", out " + Size(f.bytesOut);
}

std::string SummaryText(const Figures& f, double seconds, const std::string& ending) {
  char rate[32];
  std::snprintf(rate, sizeof rate, "%.1f",
                seconds > 0 ? static_cast<double>(f.accepted) / seconds : 0.0);
  char duration[32];
  std::snprintf(duration, sizeof duration, "%.1f", seconds);
  const uint64_t other =
      f.reliable - f.creates - f.updates - f.moves - f.destroys - f.moduleMessages;
  return "game-client: the run ended (" + ending + ") after " + duration + " s\n" +
         "  replica:    " + std::to_string(f.entities) + " entities\n" +
         "  datagrams:  " + std::to_string(f.accepted) + " accepted, " + rate + " per second\n" +
         "  dropped:    short " + std::to_string(f.droppedShort) + ", wrong magic " +
         std::to_string(f.droppedMagic) + ", wrong sender " + std::to_string(f.droppedSender) +
         ", stale " + std::to_string(f.droppedStale) + ", foreign " +
         std::to_string(f.droppedForeign) + ", over the game's queue cap " +
         std::to_string(f.passesDropped) + "\n" + "  reliable:   " + std::to_string(f.reliable) +
         " messages (create " + std::to_string(f.creates) + ", update " +
         std::to_string(f.updates) + ", move " + std::to_string(f.moves) + ", destroy " +
         std::to_string(f.destroys) + ", module " + std::to_string(f.moduleMessages) + ", other " +
         std::to_string(other) + ")\n" + "  bytes:      in " + Size(f.bytesIn) + ", out " +
         Size(f.bytesOut) + "\n";
}

StatusLine::StatusLine(std::ostream& out, bool terminal)
    : out_(out),
      terminal_(terminal),
      period_(terminal ? std::chrono::milliseconds(500) : std::chrono::seconds(5)),
      next_(std::chrono::steady_clock::now() + period_) {}

void StatusLine::Update(const client::Client& client) {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) return;
  next_ = now + period_;
  const std::string text = StatusText(Measure(client));
  if (terminal_) {
    // Carriage return, the line, then erase whatever a longer earlier line left.
    out_ << '\r' << text << "\x1b[K" << std::flush;
    open_ = true;
  } else {
    out_ << text << std::endl;
  }
}

void StatusLine::Close() {
  if (open_) out_ << '\n' << std::flush;
  open_ = false;
}

}  // namespace gameclient
