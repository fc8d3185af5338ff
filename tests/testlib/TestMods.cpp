#include "TestMods.h"

#include <array>
#include <stdexcept>

#include "GAME_Mod.h"
#include "Game.h"
#include "client/Client.h"
#include "support/Timer.h"

namespace testlib {
namespace {

using game::entity::ClientSideEntity;

std::mutex recorderMutex;
std::vector<Bytes> recorderPayloads;
constexpr size_t kScriptSlots = 4;
std::array<SendScript, kScriptSlots> sendScripts;
size_t scriptsInUse = 0;

Bytes Remaining(orvex::filesystem::ReadOnlyStream& data) {
  Bytes bytes(data.GetBufferSize());
  data.Read(bytes.data(), bytes.size());
  return bytes;
}

void RecordPayload(orvex::filesystem::ReadOnlyStream& payload) {
  Bytes bytes = Remaining(payload);
  std::lock_guard<std::mutex> lock(recorderMutex);
  recorderPayloads.push_back(std::move(bytes));
}

void SupplyEntity(ClientSideEntity& entity) {
  if (entity.text == "nointerface") return;
  entity.interface = std::make_shared<RecordingInterface>();
  entity.serverDriven = entity.text != "static";
}

// The handlers are plain function pointers: one per slot, each running its slot's script.
template <size_t Slot>
void ScriptedSend(orvex::filesystem::WriteOnlyStream& reliable,
                  orvex::filesystem::WriteOnlyStream& unreliable) {
  sendScripts[Slot](reliable, unreliable);
}
constexpr std::array<GAME_Mod::SendHandler, kScriptSlots> kHandlers = {
    &ScriptedSend<0>, &ScriptedSend<1>, &ScriptedSend<2>, &ScriptedSend<3>};

void LoadOnce(const char* name, void (*configure)(GAME_Mod&)) {
  if (GAME_Mod::GetModule(name)) return;
  auto mod = std::make_shared<GAME_Mod>(name);
  configure(*mod);
  GAME_Mod::Load(mod);
}

}  // namespace

void RecordingInterface::Sync(orvex::filesystem::ReadOnlyStream& data) {
  Bytes bytes = Remaining(data);
  std::lock_guard<std::mutex> lock(mutex_);
  syncs_.push_back(std::move(bytes));
}

std::vector<Bytes> RecordingInterface::Syncs() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return syncs_;
}

void EntityMod::Install() {
  LoadOnce(kName, [](GAME_Mod& mod) { mod.supplyInterface = &SupplyEntity; });
}

void RecorderMod::Install() {
  LoadOnce(kName, [](GAME_Mod& mod) { mod.clientMessageHandler = &RecordPayload; });
}

std::vector<Bytes> RecorderMod::Payloads() {
  std::lock_guard<std::mutex> lock(recorderMutex);
  return recorderPayloads;
}

ClientSideEntity::Ptr MakeEntity(game::entity::Id id, const std::string& text,
                                 game::entity::Id parent, glm::dvec3 position,
                                 game::entity::Orientation orientation) {
  EntityMod::Install();
  return ClientSideEntity::Interface::Create(id, EntityMod::kName, text, parent, position,
                                             orientation, orvex::filesystem::ReadOnlyStream());
}

ClientSideEntity::Ptr FindEntity(game::entity::Id id) {
  return ClientSideEntity::Get<ClientSideEntity>(id);
}

std::shared_ptr<RecordingInterface> RecordingOf(game::entity::Id id) {
  const ClientSideEntity::Ptr entity = FindEntity(id);
  return entity ? std::dynamic_pointer_cast<RecordingInterface>(entity->interface) : nullptr;
}

void QueueAction(ClientSideEntity& entity, const Bytes& payload) {
  orvex::filesystem::Stream action;
  WriteBytes(action, payload);
  entity.QueueAction(std::move(action));
}

void LoadSendMod(const std::string& name, SendScript script) {
  auto mod = std::make_shared<GAME_Mod>(name);
  if (script) {
    if (scriptsInUse == kScriptSlots) throw std::logic_error("no free send script slot");
    sendScripts[scriptsInUse] = std::move(script);
    mod->clientSendHandler = kHandlers[scriptsInUse++];
  }
  GAME_Mod::Load(mod);
}

void WriteBytes(orvex::filesystem::Stream& stream, const Bytes& bytes) {
  stream.Write(bytes.data(), bytes.size());
}

void ResetClientState() {
  Game::ResetEntities();
  GAME_Mod::UnloadAll();
  Game::Reset();
  Timer::SetClockSourceForTesting(nullptr);
  client::Client::_instance = nullptr;
  client::Client::error.clear();
  for (SendScript& script : sendScripts) script = nullptr;
  scriptsInUse = 0;
  std::lock_guard<std::mutex> lock(recorderMutex);
  recorderPayloads.clear();
}

}  // namespace testlib
