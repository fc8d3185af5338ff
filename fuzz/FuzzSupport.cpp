#include "FuzzSupport.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <streambuf>
#include <utility>

#include "GAME_Mod.h"
#include "Game.h"
#include "game/entity/ClientSideEntity.h"
#include "game/graphics/Renderer.h"
#include "identifiers/ModuleID.h"
#include "net/TcpListener.h"
#include "orvex/net/Socket.h"
#include "server/Wire.h"

namespace fuzz {
namespace {

using game::entity::ClientSideEntity;
using orvex::filesystem::ReadOnlyStream;

constexpr size_t kKeptLines = 64;
constexpr int kServeTimeoutMs = 20000;

// std::cerr's replacement: collects whole lines under a mutex (the client writes from the
// receiving thread and the datagram delivery thread too).
class LineFilter : public std::streambuf {
 public:
  explicit LineFilter(bool verbose) : verbose_(verbose) {}

  std::vector<std::string> Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> lines(lines_.begin(), lines_.end());
    lines_.clear();
    return lines;
  }

 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char ch = traits_type::to_char_type(c);
    xsputn(&ch, 1);
    return c;
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    std::lock_guard<std::mutex> lock(mutex_);
    for (std::streamsize i = 0; i < n; ++i) {
      if (s[i] != '\n') {
        partial_.push_back(s[i]);
        continue;
      }
      if (verbose_ || partial_.rfind("ASSERTION FAILED", 0) == 0) {
        const std::string line = partial_ + "\n";
        [[maybe_unused]] ssize_t written = write(2, line.data(), line.size());
      }
      lines_.push_back(std::move(partial_));
      partial_.clear();
      if (lines_.size() > kKeptLines) lines_.pop_front();
    }
    return n;
  }

 private:
  const bool verbose_;
  std::mutex mutex_;
  std::string partial_;
  std::deque<std::string> lines_;
};

LineFilter* filter = nullptr;

// Reads what a server would put in an interface's data: two counters, a text and a
// nested block. Bounded streams clamp every count, so none of this throws.
class FuzzInterface : public ClientSideEntity::Interface {
 public:
  void Sync(ReadOnlyStream& data) override {
    serial = data.ReadValue<uint32_t>();
    revision = data.ReadValue<uint32_t>();
    data.Read(label);
    ReadOnlyStream nested = data.ReadStream();
    nestedBytes = nested.GetBufferSize();
  }

  uint32_t serial = 0;
  uint32_t revision = 0;
  std::string label;
  unsigned long nestedBytes = 0;
};

void SupplyDriven(ClientSideEntity& entity) {
  entity.interface = std::make_shared<FuzzInterface>();
  entity.renderables.push_back(std::make_shared<game::graphics::RenderableInstance>());
  entity.serverDriven = true;
}

void SupplyStatic(ClientSideEntity& entity) {
  entity.interface = std::make_shared<FuzzInterface>();
  entity.renderables.push_back(std::make_shared<game::graphics::RenderableInstance>());
  entity.serverDriven = false;
}

void SupplyNothing(ClientSideEntity&) {}

void ProbeHandler(ReadOnlyStream& payload) {
  std::string text;
  payload.Read(text);
  ReadOnlyStream nested = payload.ReadStream();
  while (nested.GetBufferSize() != 0) nested.ReadValue<uint64_t>();
}

}  // namespace

void QuietDiagnostics() {
  if (filter != nullptr) return;
  const char* verbose = std::getenv("ORVEX_FUZZ_VERBOSE");
  // Lives for the whole process: std::cerr may be written during exit.
  filter = new LineFilter(verbose != nullptr && std::strcmp(verbose, "0") != 0);
  std::cerr.rdbuf(filter);
}

std::vector<std::string> TakeLines() {
  return filter != nullptr ? filter->Take() : std::vector<std::string>();
}

void InstallMods() {
  if (GAME_Mod::GetModule(orvex::modular::ModuleID(kShip).String())) return;
  auto ship = std::make_shared<GAME_Mod>(kShip);
  ship->supplyInterface = &SupplyDriven;
  GAME_Mod::Load(ship);
  auto still = std::make_shared<GAME_Mod>(kStatic);
  still->supplyInterface = &SupplyStatic;
  GAME_Mod::Load(still);
  auto none = std::make_shared<GAME_Mod>(kNone);
  none->supplyInterface = &SupplyNothing;
  GAME_Mod::Load(none);
  auto probe = std::make_shared<GAME_Mod>(kProbe);
  probe->clientMessageHandler = &ProbeHandler;
  GAME_Mod::Load(probe);
}

bool SuppliesInterface(const std::string& moduleText) {
  // The entity constructor looks the mod up by the text form of the identifier that the
  // registry built from the text.
  const std::string name = orvex::modular::ModuleID(moduleText).String();
  return name == orvex::modular::ModuleID(kShip).String() ||
         name == orvex::modular::ModuleID(kStatic).String();
}

void ResetGame() {
  std::vector<ClientSideEntity::Ptr> doomed;
  {
    std::lock_guard<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    doomed.reserve(ClientSideEntity::_sharedObjects.size());
    for (auto& entry : ClientSideEntity::_sharedObjects) doomed.push_back(std::move(entry.second));
    // clear() keeps the buckets that the client reserved, so the next reserve is free.
    ClientSideEntity::_sharedObjects.clear();
  }
  doomed.clear();
  Game::Reset();
  Game::isActive = true;
}

void Fail(const std::string& what) {
  const std::string line = "fuzz harness: " + what + "\n";
  [[maybe_unused]] ssize_t written = write(2, line.data(), line.size());
  __builtin_trap();
}

void RequireOneLine(const char* text) {
  const std::string what = text;
  if (what.empty() || what.find('\n') != std::string::npos) {
    Fail("an error text is not one line: '" + what + "'");
  }
}

LoopbackServer::LoopbackServer()
    : listener_(std::make_unique<orvex::net::TcpListener>("127.0.0.1", 0)),
      port_(listener_->GetPort()),
      thread_([this] { Loop(); }) {}

LoopbackServer::~LoopbackServer() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  listener_->Close();
  thread_.join();
}

void LoopbackServer::Arm(Bytes reply, bool endAfterReply) {
  std::lock_guard<std::mutex> lock(mutex_);
  reply_ = std::move(reply);
  endAfterReply_ = endAfterReply;
  armed_ = true;
  served_ = false;
  changed_.notify_all();
}

void LoopbackServer::WaitServed() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return served_; });
}

void LoopbackServer::Loop() {
  for (;;) {
    Bytes reply;
    bool endAfterReply;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [this] { return armed_ || stopping_; });
      if (stopping_) return;
      armed_ = false;
      reply = std::move(reply_);
      endAfterReply = endAfterReply_;
    }
    std::unique_ptr<orvex::net::TcpSocket> tcp = listener_->Accept(kServeTimeoutMs);
    if (!tcp) {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) return;
      Fail("the client did not connect");
    }
    try {
      wire::ReadHello(*tcp, 0);
      tcp->Write(reply.data(), reply.size());
      tcp->Flush();
      if (endAfterReply) shutdown(tcp->GetDescriptor(), SHUT_WR);
      // Until the client closes: the end of the stream (or a reset) ends the read. A
      // connection whose reply has ended must close soon; another may stay open for good.
      const int waitMs = endAfterReply ? kServeTimeoutMs : -1;
      unsigned char sink[4096];
      for (;;) {
        if (tcp->Poll(waitMs) != 1) Fail("the client kept a finished connection open");
        tcp->ReadSome(sink, sizeof sink);
      }
    } catch (const std::runtime_error&) {
    }
    tcp.reset();
    std::lock_guard<std::mutex> lock(mutex_);
    served_ = true;
    changed_.notify_all();
  }
}

}  // namespace fuzz
