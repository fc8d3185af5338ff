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

constexpr int kServeTimeoutMs = 20000;

void WriteStderr(const std::string& text) {
  [[maybe_unused]] ssize_t written = write(2, text.data(), text.size());
}

// Under a mutex: the client writes from its receiving and datagram delivery threads too.
class LineFilter : public std::streambuf {
  const char* env_ = std::getenv("ORVEX_FUZZ_VERBOSE");
  const bool verbose_ = env_ != nullptr && std::strcmp(env_, "0") != 0;
  std::mutex mutex_;
  std::string line_;

  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    std::lock_guard<std::mutex> lock(mutex_);
    line_ += traits_type::to_char_type(c);
    if (line_.back() != '\n') return c;
    if (verbose_ || line_.rfind("ASSERTION FAILED", 0) == 0) WriteStderr(line_);
    line_.clear();
    return c;
  }
};

// Reads what a server would put in an interface's data: a counter, a text and a nested block.
// Bounded streams clamp every count, so none of this throws.
struct FuzzInterface : ClientSideEntity::Interface {
  void Sync(ReadOnlyStream& data) override {
    std::string label;
    data.ReadValue<uint64_t>();
    data.Read(label);
    data.ReadStream();
  }
};

}  // namespace

void Start() {
  // Lives for the whole process: std::cerr may be written during exit.
  std::cerr.rdbuf(new LineFilter());
  for (const char* name : {kShip, kStatic, "FUZZ_none", "FUZZ_probe"}) {
    auto mod = std::make_shared<GAME_Mod>(name);
    if (name == kShip || name == kStatic) {
      mod->supplyInterface = [driven = name == kShip](ClientSideEntity& entity) {
        entity.interface = std::make_shared<FuzzInterface>();
        entity.renderables.push_back(std::make_shared<game::graphics::RenderableInstance>());
        entity.serverDriven = driven;
      };
    } else if (std::strcmp(name, "FUZZ_probe") == 0) {
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

void Fail(const std::string& what) {
  WriteStderr("fuzz harness: " + what + "\n");
  __builtin_trap();
}

LoopbackServer::LoopbackServer()
    : thread_([this] {
        for (std::unique_ptr<testserver::TestConnection> open;;) {
          std::unique_lock<std::mutex> lock(mutex_);
          changed_.wait(lock, [this] { return armed_.has_value(); });
          const auto [reply, close] = std::move(*armed_);
          armed_.reset();
          lock.unlock();
          std::unique_ptr<testserver::TestConnection> connection;
          try {
            connection = server_.Accept(kServeTimeoutMs);
            connection->ReadHello(0);
            connection->Send(reply);
            close ? connection->Close() : void(open = std::move(connection));
          } catch (const std::runtime_error&) {
            // A client that gave up on the connection first must still close it.
            if (!connection) Fail("the client did not connect");
          }
          if (connection && !connection->WaitClosed(kServeTimeoutMs)) {
            Fail("the client kept a finished connection open");
          }
          lock.lock();
          served_ = true;
          changed_.notify_all();
        }
      }) {}

void LoopbackServer::Arm(Bytes reply, bool close) {
  std::lock_guard<std::mutex> lock(mutex_);
  armed_.emplace(std::move(reply), close);
  served_ = false;
  changed_.notify_all();
}

void LoopbackServer::WaitServed() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return served_; });
}

}  // namespace fuzz
