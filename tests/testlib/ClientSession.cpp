#include "ClientSession.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>

#include "GAME_Mod.h"
#include "Game.h"
#include "Timer.h"
#include "game/Host.h"
#include "support/Clock.h"

namespace testlib {
namespace {

using orvex::filesystem::ReadOnlyStream;
using orvex::filesystem::WriteOnlyStream;

constexpr const char* kProbe = "TEST_probe";
std::mutex mutex;  // guards the probe count and the recorded payloads
std::condition_variable probeArrived;
std::atomic<size_t> probeCount = 0;
std::vector<Bytes> payloads;
std::array<SendScript, 4> sendScripts;
size_t scriptsInUse = 0;

Bytes Remaining(ReadOnlyStream& data) {
  Bytes bytes(data.GetBufferSize());
  data.Read(bytes.data(), bytes.size());
  return bytes;
}

// Send handlers are plain function pointers: one per slot, each running its slot's script.
template <size_t Slot>
void ScriptedSend(WriteOnlyStream& reliable, WriteOnlyStream& unreliable) {
  sendScripts[Slot](reliable, unreliable);
}
constexpr std::array<GAME_Mod::SendHandler, 4> kHandlers = {&ScriptedSend<0>, &ScriptedSend<1>,
                                                            &ScriptedSend<2>, &ScriptedSend<3>};

void WaitForProbe(size_t count, const char* what) {
  std::unique_lock<std::mutex> lock(mutex);
  if (!probeArrived.wait_for(lock, std::chrono::seconds(10), [=] { return probeCount >= count; })) {
    throw std::runtime_error(std::string("the probe was not taken in: ") + what);
  }
}

// Runs the client's constructor on a helper thread while the test plays the server.
std::future<std::unique_ptr<client::Client>> Connect(uint16_t port) {
  return std::async(std::launch::async, [=] {
    return std::make_unique<client::Client>("127.0.0.1", port, "token", "");
  });
}

}  // namespace

void RecordingInterface::Sync(ReadOnlyStream& data) {
  syncs.push_back(Remaining(data));
}

void InstallTestMods() {
  if (GAME_Mod::GetModule(kEntityMod)) return;
  auto entities = std::make_shared<GAME_Mod>(kEntityMod);
  orvex::engine::InterfaceSupplier entitiesSupplier = [](ClientSideEntity& entity) {
    if (entity.text == "nointerface") return;
    entity.interface = std::make_shared<RecordingInterface>();
    entity.serverDriven = entity.text != "static";
  };
  auto recorder = std::make_shared<GAME_Mod>(kRecorderMod),
       probe = std::make_shared<GAME_Mod>(kProbe);
  recorder->clientMessageHandler = [](ReadOnlyStream& payload) {
    Bytes bytes = Remaining(payload);
    std::lock_guard<std::mutex> lock(mutex);
    payloads.push_back(std::move(bytes));
  };
  probe->clientMessageHandler = [](ReadOnlyStream&) {
    std::lock_guard<std::mutex> lock(mutex);
    ++probeCount;
    probeArrived.notify_all();
  };
  orvex::engine::LoadMod(entities, entitiesSupplier);
  for (const auto& mod : {recorder, probe}) orvex::engine::LoadMod(mod);
}

std::vector<Bytes> RecordedPayloads() {
  std::lock_guard<std::mutex> lock(mutex);
  return payloads;
}

ClientSideEntity::Ptr MakeEntity(game::entity::Id id, const std::string& text,
                                 game::entity::Id parent, glm::dvec3 position,
                                 game::entity::Orientation orientation) {
  InstallTestMods();
  return ClientSideEntity::Interface::Create(id, kEntityMod, text, parent, position, orientation,
                                             ReadOnlyStream());
}

void LoadSendMod(const std::string& name, SendScript script) {
  auto mod = std::make_shared<GAME_Mod>(name);
  if (script) {
    if (scriptsInUse == sendScripts.size()) throw std::logic_error("no free send script slot");
    sendScripts[scriptsInUse] = std::move(script);
    mod->clientSendHandler = kHandlers[scriptsInUse++];
  }
  orvex::engine::LoadMod(mod);
}

void ResetClientState() {
  orvex::engine::ResetEntities();
  orvex::engine::UnloadAllMods();
  orvex::engine::ResetGame();
  support::SetClockSourceForTesting(nullptr);
  client::Client::_instance = nullptr;
  client::Client::error.clear();
  sendScripts = {}, scriptsInUse = 0;
  std::lock_guard<std::mutex> lock(mutex);
  payloads.clear();
}

Session::Session(bool startReceiving) {
  InstallTestMods();
  auto connecting = Connect(server.Port());
  connection = server.Accept();
  connection->ReadHello(0);  // the hello leaves in one flush
  connection->Send(Welcome());
  client = connecting.get();
  probesSent = probeCount;  // probes of earlier sessions in this process count too
  if (startReceiving) StartReceiving();
}

void Session::StartReceiving() {
  Game::isActive = true;
  receiving = std::thread([this] { client->ReceivingThread(); });
}

void Session::StopReceiving(bool wake) {
  if (!receiving.joinable()) return;
  Game::isActive = false;
  try {
    if (wake && connection) connection->Send(Bytes{0x03});
  } catch (const std::exception&) {
    // The connection is gone: the thread has ended or ends on its own.
  }
  receiving.join();
}

void Session::SendReliable(const Bytes& bytes) {
  connection->Send(bytes + ModuleMessage(kProbe, {}));
  WaitForProbe(++probesSent, "reliable");
}

void Session::LearnDatagramAddress() {
  for (int attempt = 0; attempt < 20 && clientPort == 0; ++attempt) {
    client->Send();
    while (auto datagram = server.NextDatagram(600)) {
      if (!datagram->bytes.empty() && datagram->bytes[0] == LEAD_BYTE) {
        clientAddress = datagram->address, clientPort = datagram->port;
        break;
      }
    }
  }
  if (clientPort == 0) throw std::runtime_error("the client sent no datagram");
}

void Session::SendDatagram(const Bytes& bytes) {
  if (clientPort == 0) LearnDatagramAddress();
  server.SendDatagram(clientAddress, clientPort, bytes);
  server.SendDatagram(clientAddress, clientPort,
                      wire::ModuleDatagram(orvex::modular::ModuleID(kProbe), {}));
  WaitForProbe(++probesSent, "datagram");
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
