#include <unordered_map>
#include <utility>

#include "GAME_Mod.h"
#include "Game.h"
#include "client/Client.h"
#include "client/TestMods.h"
#include "support/Timer.h"

namespace clienttest {
namespace {

using game::entity::ClientSideEntity;

std::mutex recorderMutex;
std::vector<TestBytes> recorderPayloads;

TestBytes Remaining(orvex::filesystem::ReadOnlyStream& data) {
  TestBytes bytes(data.GetBufferSize());
  data.Read(bytes.data(), bytes.size());
  return bytes;
}

void RecordPayload(orvex::filesystem::ReadOnlyStream& payload) {
  TestBytes bytes = Remaining(payload);
  std::lock_guard<std::mutex> lock(recorderMutex);
  recorderPayloads.push_back(std::move(bytes));
}

void SupplyEntity(ClientSideEntity& entity) {
  if (entity.text == "nointerface") return;
  entity.interface = std::make_shared<RecordingInterface>();
  entity.serverDriven = entity.text != "static";
}

}  // namespace

void RecordingInterface::Sync(orvex::filesystem::ReadOnlyStream& data) {
  TestBytes bytes = Remaining(data);
  std::lock_guard<std::mutex> lock(mutex_);
  syncs_.push_back(std::move(bytes));
}

std::vector<TestBytes> RecordingInterface::Syncs() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return syncs_;
}

void EntityMod::Install() {
  if (GAME_Mod::GetModule(Id().String())) return;
  auto mod = std::make_shared<GAME_Mod>(kName);
  mod->supplyInterface = &SupplyEntity;
  GAME_Mod::Load(mod);
}

void RecorderMod::Install() {
  if (GAME_Mod::GetModule(Id().String())) return;
  auto mod = std::make_shared<GAME_Mod>(kName);
  mod->clientMessageHandler = &RecordPayload;
  GAME_Mod::Load(mod);
}

std::vector<TestBytes> RecorderMod::Payloads() {
  std::lock_guard<std::mutex> lock(recorderMutex);
  return recorderPayloads;
}

game::entity::Id EntityId(uint64_t n) {
  return game::entity::Id{n, 0xE0000000u + n};
}

ClientSideEntity::Ptr MakeEntity(game::entity::Id id, const std::string& text,
                                 game::entity::Id parent, glm::dvec3 position,
                                 game::entity::Orientation orientation) {
  EntityMod::Install();
  return ClientSideEntity::Interface::Create(id, EntityMod::Id().String(), text, parent, position,
                                             orientation, orvex::filesystem::ReadOnlyStream());
}

ClientSideEntity::Ptr FindEntity(game::entity::Id id) {
  return ClientSideEntity::Get<ClientSideEntity>(id);
}

std::shared_ptr<RecordingInterface> RecordingOf(game::entity::Id id) {
  const ClientSideEntity::Ptr entity = FindEntity(id);
  if (!entity) return nullptr;
  return std::dynamic_pointer_cast<RecordingInterface>(entity->interface);
}

void ResetProcessState() {
  std::unordered_map<game::entity::Id, ClientSideEntity::Ptr> dropped;
  {
    std::lock_guard<orvex::SharedMutex> lock(ClientSideEntity::_sharedObjectsMutex);
    dropped.swap(ClientSideEntity::_sharedObjects);
  }
  dropped.clear();
  GAME_Mod::UnloadAll();
  Game::Reset();
  Timer::SetClockSourceForTesting(nullptr);
  client::Client::_instance = nullptr;
  client::Client::error.clear();
  std::lock_guard<std::mutex> lock(recorderMutex);
  recorderPayloads.clear();
}

}  // namespace clienttest
