#include "ClientSession.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "GAME_Mod.h"
#include "Game.h"

namespace testlib {
namespace {

// The mod TEST_probe counts its messages and wakes the waiters.
constexpr const char* kProbe = "TEST_probe";
std::mutex probeMutex;
std::condition_variable probeArrived;
size_t probeCount = 0;

void ProbeHandler(orvex::filesystem::ReadOnlyStream&) {
  std::lock_guard<std::mutex> lock(probeMutex);
  ++probeCount;
  probeArrived.notify_all();
}

}  // namespace

bool WaitForProbes(size_t count) {
  std::unique_lock<std::mutex> lock(probeMutex);
  return probeArrived.wait_for(lock, std::chrono::seconds(10), [=] { return probeCount >= count; });
}

Session::Session(SessionOptions options) : server(options.host) {
  if (!GAME_Mod::GetModule(kProbe)) {
    auto mod = std::make_shared<GAME_Mod>(kProbe);
    mod->clientMessageHandler = &ProbeHandler;
    GAME_Mod::Load(mod);
  }
  {
    auto connecting = Connect(server.Port(), options.token, options.password, options.host);
    connection = server.Accept();
    // The hello leaves in one flush: without a password there is nothing to wait for.
    connection->ReadHello(options.password.empty() ? 0 : 200);
    connection->Send(Welcome(options.welcome));
    client = connecting.get();
  }
  {
    std::lock_guard<std::mutex> lock(probeMutex);
    probesSent_ = probeCount;  // probes of earlier sessions in this process count too
  }
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
  const Bytes probe = ModuleMessage(kProbe, {});
  all.insert(all.end(), probe.begin(), probe.end());
  connection->Send(all);
  if (!WaitForProbes(number)) throw std::runtime_error("the reliable probe was not carried out");
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
  server.SendDatagram(clientAddress, clientPort,
                      wire::ModuleDatagram(orvex::modular::ModuleID(kProbe), {}));
  if (!WaitForProbes(number)) throw std::runtime_error("the datagram probe was not taken in");
}

Bytes Session::NextDatagram() {
  std::optional<testserver::ReceivedDatagram> datagram = server.NextDatagram(5000);
  if (!datagram) throw std::runtime_error("no datagram arrived from the client");
  return datagram->bytes;
}

std::future<std::unique_ptr<client::Client>> Connect(uint16_t port, std::string token,
                                                     std::string password, std::string host) {
  return std::async(std::launch::async,
                    [=] { return std::make_unique<client::Client>(host, port, token, password); });
}

std::string ConstructionError(const Bytes& reply, bool close) {
  testserver::TestServer server;
  auto connecting = Connect(server.Port());
  auto connection = server.Accept();
  connection->ReadHello(0);
  if (!reply.empty()) connection->Send(reply);
  if (close) connection->Close();
  try {
    connecting.get();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

}  // namespace testlib
