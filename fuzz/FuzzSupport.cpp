#include "FuzzSupport.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <streambuf>

#include "GAME_Mod.h"
#include "game/entity/ClientSideEntity.h"
#include "game/graphics/Renderer.h"

namespace fuzz {
namespace {

using game::entity::ClientSideEntity;
using orvex::filesystem::ReadOnlyStream;
using orvex::modular::ModuleID;

constexpr int kServeTimeoutMs = 20000;

void WriteStderr(const std::string& text) {
  [[maybe_unused]] ssize_t written = write(2, text.data(), text.size());
}

// std::cerr's replacement, under a mutex: the client writes from its receiving and
// datagram delivery threads too.
class LineFilter : public std::streambuf {
 public:
  explicit LineFilter(bool verbose) : verbose_(verbose) {}

 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char ch = traits_type::to_char_type(c);
    xsputn(&ch, 1);
    return c;
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    std::lock_guard<std::mutex> lock(mutex_);
    partial_.append(s, static_cast<size_t>(n));
    for (size_t end; (end = partial_.find('\n')) != std::string::npos; partial_.erase(0, end + 1)) {
      if (verbose_ || partial_.rfind("ASSERTION FAILED", 0) == 0) {
        WriteStderr(partial_.substr(0, end + 1));
      }
    }
    return n;
  }

 private:
  const bool verbose_;
  std::mutex mutex_;
  std::string partial_;
};

// Reads what a server would put in an interface's data: two counters, a text and a
// nested block. Bounded streams clamp every count, so none of this throws.
struct FuzzInterface : ClientSideEntity::Interface {
  void Sync(ReadOnlyStream& data) override {
    serial = data.ReadValue<uint32_t>();
    revision = data.ReadValue<uint32_t>();
    data.Read(label);
    nestedBytes = data.ReadStream().GetBufferSize();
  }
  uint32_t serial = 0, revision = 0;
  std::string label;
  unsigned long nestedBytes = 0;
};

}  // namespace

void Start() {
  if (GAME_Mod::GetModule(ModuleID(kShip).String())) return;
  const char* verbose = std::getenv("ORVEX_FUZZ_VERBOSE");
  // Lives for the whole process: std::cerr may be written during exit.
  std::cerr.rdbuf(new LineFilter(verbose != nullptr && std::strcmp(verbose, "0") != 0));
  for (const char* name : {kShip, kStatic, kNone, kProbe}) {
    auto mod = std::make_shared<GAME_Mod>(name);
    if (name == kShip || name == kStatic) {
      mod->supplyInterface = [driven = name == kShip](ClientSideEntity& entity) {
        entity.interface = std::make_shared<FuzzInterface>();
        entity.renderables.push_back(std::make_shared<game::graphics::RenderableInstance>());
        entity.serverDriven = driven;
      };
    }
    if (name == kProbe) {
      mod->clientMessageHandler = [](ReadOnlyStream& payload) {
        std::string text;
        payload.Read(text);
        ReadOnlyStream nested = payload.ReadStream();
        while (nested.GetBufferSize() != 0) nested.ReadValue<uint64_t>();
      };
    }
    GAME_Mod::Load(mod);
  }
}

bool SuppliesInterface(const std::string& moduleText) {
  // The entity constructor looks the mod up by the text form of the module's identifier.
  const std::string name = ModuleID(moduleText).String();
  return name == ModuleID(kShip).String() || name == ModuleID(kStatic).String();
}

void Fail(const std::string& what) {
  WriteStderr("fuzz harness: " + what + "\n");
  __builtin_trap();
}

void RequireOneLine(const char* text) {
  const std::string what = text;
  if (what.empty() || what.find('\n') != std::string::npos) {
    Fail("an error text is not one line: '" + what + "'");
  }
}

void LoopbackServer::Arm(Bytes reply, bool close) {
  std::lock_guard<std::mutex> lock(mutex_);
  reply_ = std::move(reply);
  close_ = close;
  armed_ = true;
  served_ = false;
  changed_.notify_all();
}

void LoopbackServer::WaitServed() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return served_; });
}

void LoopbackServer::ServeOne() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return armed_; });
  armed_ = false;
  const bool close = close_;
  const Bytes reply = std::move(reply_);
  lock.unlock();
  std::unique_ptr<testserver::TestConnection> connection;
  try {
    connection = server_.Accept(kServeTimeoutMs);
  } catch (const std::runtime_error&) {
    Fail("the client did not connect");
  }
  try {
    connection->ReadHello(0);
    connection->Send(reply);
    if (!close) {
      open_ = std::move(connection);
      return;
    }
    connection->Close();
  } catch (const std::runtime_error&) {
    // The client gave up on the connection first; it must still close it.
  }
  if (!connection->WaitClosed(kServeTimeoutMs)) Fail("the client kept a finished connection open");
  lock.lock();
  served_ = true;
  changed_.notify_all();
}

}  // namespace fuzz
