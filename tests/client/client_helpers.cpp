#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "GAME_Mod.h"
#include "Game.h"
#include "client/ClientHarness.h"

namespace clienttest {
namespace {

std::mutex probeMutex;
std::condition_variable probeArrived;
std::vector<Bytes> probePayloads;

void ProbeHandler(orvex::filesystem::ReadOnlyStream& payload) {
  Bytes bytes(payload.GetBufferSize());
  payload.Read(bytes.data(), bytes.size());
  std::lock_guard<std::mutex> lock(probeMutex);
  probePayloads.push_back(std::move(bytes));
  probeArrived.notify_all();
}

Bytes ProbePayload(size_t number) {
  Bytes payload(8);
  for (int i = 0; i < 8; ++i) payload[i] = static_cast<uint8_t>(number >> (8 * i));
  return payload;
}

// Joins a thread on every way out of a scope.
struct Joiner {
  std::thread& thread;
  ~Joiner() {
    if (thread.joinable()) thread.join();
  }
};

}  // namespace

wire::Welcome DefaultWelcome() {
  wire::Welcome welcome;
  welcome.serverTag = 0x0A0B;
  welcome.playerId = 0x1122334455667788ull;
  welcome.username = "pilot";
  welcome.mode = 3;
  welcome.config = wire::ConfigText("gravity=9.81");
  return welcome;
}

void Probe::Install() {
  if (GAME_Mod::GetModule(kName)) return;
  auto mod = std::make_shared<GAME_Mod>(kName);
  mod->clientMessageHandler = &ProbeHandler;
  GAME_Mod::Load(mod);
}

size_t Probe::Count() {
  std::lock_guard<std::mutex> lock(probeMutex);
  return probePayloads.size();
}

bool Probe::WaitFor(size_t count, int timeoutMs) {
  std::unique_lock<std::mutex> lock(probeMutex);
  return probeArrived.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                               [count] { return probePayloads.size() >= count; });
}

std::vector<Bytes> Probe::Payloads() {
  std::lock_guard<std::mutex> lock(probeMutex);
  return probePayloads;
}

Session::Session(SessionOptions options) : server(options.host) {
  if (options.installProbe) Probe::Install();
  std::exception_ptr failure;
  std::thread constructing([&] {
    try {
      client = std::make_unique<client::Client>(options.host, server.Port(), options.token,
                                                options.password);
    } catch (...) {
      failure = std::current_exception();
    }
  });
  {
    Joiner joiner{constructing};
    connection = server.Accept();
    // The hello leaves in one flush: without a password there is nothing to wait for.
    hello = connection->ReadHello(options.password.empty() ? 0 : 200);
    connection->Send(
        Encode([&](orvex::filesystem::Stream& s) { wire::WriteWelcome(s, options.welcome); }));
  }
  if (failure) std::rethrow_exception(failure);
  // Probes of earlier sessions in this process count too.
  probesSent_ = Probe::Count();
  if (options.startReceiving) StartReceiving();
}

Session::~Session() {
  StopReceiving();
  client.reset();
  connection.reset();
}

void Session::StartReceiving() {
  Game::isActive = true;
  receiving_ = std::thread([this] { client->ReceivingThread(); });
}

void Session::StopReceiving(bool wake) {
  if (!receiving_.joinable()) return;
  Game::isActive = false;
  if (wake && connection) {
    try {
      connection->Send(Bytes{0x03});
    } catch (const std::exception&) {
      // The connection is gone: the thread has ended or ends on its own.
    }
  }
  receiving_.join();
}

void Session::SendReliable(const Bytes& bytes) {
  const size_t number = ++probesSent_;
  Bytes all = bytes;
  const Bytes probe = Encode([&](orvex::filesystem::Stream& s) {
    wire::WriteModuleMessage(s, orvex::modular::ModuleID(Probe::kName), ProbePayload(number));
  });
  all.insert(all.end(), probe.begin(), probe.end());
  connection->Send(all);
  if (!Probe::WaitFor(number)) {
    throw std::runtime_error("the client did not carry out the reliable probe");
  }
}

void Session::LearnDatagramAddress() {
  for (int attempt = 0; attempt < 20 && clientPort == 0; ++attempt) {
    client->Send();
    while (auto datagram = server.NextDatagram(600)) {
      if (!datagram->bytes.empty() && datagram->bytes[0] == 0x07) {
        clientAddress = datagram->address;
        clientPort = datagram->port;
        break;
      }
    }
  }
  if (clientPort == 0) throw std::runtime_error("the client sent no datagram");
}

void Session::SendDatagram(const Bytes& bytes) {
  if (clientPort == 0) LearnDatagramAddress();
  const size_t number = ++probesSent_;
  server.SendDatagram(clientAddress, clientPort, bytes);
  server.SendDatagram(
      clientAddress, clientPort,
      wire::ModuleDatagram(orvex::modular::ModuleID(Probe::kName), ProbePayload(number)));
  if (!Probe::WaitFor(number)) throw std::runtime_error("the client took in no datagram probe");
}

size_t Session::RunGameThread() {
  return Game::RunSynchronized();
}

Connecting::Connecting(uint16_t port, std::string token, std::string password, std::string host)
    : thread_([this, port, token = std::move(token), password = std::move(password),
               host = std::move(host)] {
        try {
          client_ = std::make_unique<client::Client>(host, port, token, password);
        } catch (...) {
          failure_ = std::current_exception();
        }
      }) {}

Connecting::~Connecting() {
  if (thread_.joinable()) thread_.join();
}

std::unique_ptr<client::Client> Connecting::Finish() {
  if (thread_.joinable()) thread_.join();
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  return std::move(client_);
}

std::string ConstructionError(const Bytes& reply, const std::string& token,
                              const std::string& password) {
  testserver::TestServer server;
  std::string what;
  std::thread constructing([&] {
    try {
      client::Client client("127.0.0.1", server.Port(), token, password);
    } catch (const std::exception& e) {
      what = e.what();
    }
  });
  Joiner joiner{constructing};
  auto connection = server.Accept();
  connection->ReadHello();
  if (!reply.empty()) connection->Send(reply);
  constructing.join();
  return what;
}

}  // namespace clienttest
