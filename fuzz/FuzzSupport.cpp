#include "FuzzSupport.h"

#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <future>
#include <iostream>
#include <mutex>
#include <streambuf>
#include <thread>
#include <utility>

#include "GAME_Mod.h"
#include "Game.h"
#include "filesystem/StreamValues.h"
#include "game/Host.h"
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
    ReadValue<uint64_t>(data);
    data.Read(label);
    data.ReadStream();
  }
};

void Start() {
  std::cerr.rdbuf(new LineFilter());  // lives for the whole process: cerr is written during exit
  for (const char* name : {kShip, kStatic}) {
    auto mod = std::make_shared<GAME_Mod>(name);
    orvex::engine::InterfaceSupplier modSupplier = [driven =
                                                        name == kShip](ClientSideEntity& entity) {
      entity.interface = std::make_shared<FuzzInterface>();
      entity.renderables.push_back(std::make_shared<game::graphics::RenderableInstance>());
      entity.serverDriven = driven;
    };
    orvex::engine::LoadMod(mod, modSupplier);
  }
  auto none = std::make_shared<GAME_Mod>("FUZZ_none"),
       probe = std::make_shared<GAME_Mod>("FUZZ_probe");
  probe->clientMessageHandler = [](ReadOnlyStream& payload) {
    std::string text;
    payload.Read(text);
    ReadOnlyStream nested = payload.ReadStream();
    while (nested.GetBufferSize() != 0) ReadValue<uint64_t>(nested);
  };
  orvex::engine::LoadMod(none), orvex::engine::LoadMod(probe);
}

// The run's one server thread, running each task in turn: a thread per input costs more than it.
struct ServerThread {
  testserver::TestServer server;
  std::mutex mutex;
  std::condition_variable ready;
  std::packaged_task<void()> task;
  std::thread thread{[this] {
    for (std::unique_lock<std::mutex> lock(mutex);; lock.lock()) {
      ready.wait(lock, [this] { return task.valid(); });
      std::packaged_task<void()> next = std::move(task);
      lock.unlock();
      next();
    }
  }};
};
ServerThread& Server() {
  static ServerThread& server = (Start(), *new ServerThread());  // never destroyed
  return server;
}

// Serves one connection: reads the hello and answers `reply`; then with `close` ends its side
// and requires the client to close too, without keeps it open for good.
std::future<void> Serve(Bytes reply, bool close) {
  std::packaged_task<void()> task([reply = std::move(reply), close] {
    std::unique_ptr<testserver::TestConnection> connection;
    try {
      connection = Server().server.Accept(kServeTimeoutMs);
      connection->ReadHello(0);
      connection->Send(reply);
      [[maybe_unused]] static testserver::TestConnection* open = nullptr;  // stays reachable
      if (!close) return void(open = connection.release());
      connection->Close();
    } catch (const std::runtime_error&) {
      // A client that gave up on the connection first must still close it.
      if (!connection) Fail("the client did not connect");
    }
    if (!connection->WaitClosed(kServeTimeoutMs))
      Fail("the client never closed a finished connection");
  });
  std::future<void> served = task.get_future();
  std::lock_guard<std::mutex> lock(Server().mutex);
  Server().task = std::move(task);
  Server().ready.notify_one();
  return served;
}

}  // namespace

void Fail(const std::string& what) {
  WriteStderr("fuzz harness: " + what + "\n");
  __builtin_trap();
}

void Connect(const Bytes& reply, const std::function<void(client::Client&)>& run,
             const std::function<void(const std::runtime_error&)>& refused) {
  std::future<void> served = Serve(reply, true);
  try {
    client::Client client("127.0.0.1", Server().server.Port(), "token", "");
    run(client);
  } catch (const std::runtime_error& failure) {
    refused(failure);
  }
  served.get();
  orvex::engine::ResetEntities();
  orvex::engine::ResetGame();
}

client::Client& ConnectedClient(const Bytes& reply) {
  std::future<void> served = Serve(reply, false);
  client::Client& client = *new client::Client("127.0.0.1", Server().server.Port(), "token", "");
  served.get();
  return client;
}

}  // namespace fuzz
