#include "client/Sandbox.h"

#include <array>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "GAME_Mod.h"
#include "Game.h"
#include "game/Host.h"
#include "game/graphics/Renderer.h"

namespace sandbox {
namespace {

using game::entity::ClientSideEntity;
using orvex::filesystem::ReadOnlyStream;
using orvex::filesystem::WriteOnlyStream;

constexpr size_t kIdSize = sizeof(game::entity::Id);

// What is left of `data`, as Bytes or as a std::string.
template <typename Container = Bytes>
Container Remaining(ReadOnlyStream& data) {
  Container bytes(data.GetBufferSize(), 0);
  data.Read(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size());
  return bytes;
}

// The newest payloads any instance received, in arrival order.
struct MessageLog {
  std::mutex mutex;
  History<ModuleMessage> messages{kKeptModuleMessages};
};

MessageLog& Log() {
  static MessageLog log;
  return log;
}

// One sandbox mod. waitingMutex_ guards the payloads waiting for the next Send(), which
// arrive on the receiving and delivery threads and leave on the game thread.
class Instance {
 public:
  explicit Instance(std::string module) : module_(std::move(module)) {}

  const std::string& Module() const { return module_; }

  void OnMessage(ReadOnlyStream& stream) {
    Bytes payload = Remaining(stream);
    const bool acted = !payload.empty() && std::strchr("RUA", payload[0]) != nullptr;
    {
      // A payload that asks for nothing moves into the log: a 16 MiB one is held once.
      MessageLog& log = Log();
      const uint64_t bytes = payload.size() + module_.size();
      std::lock_guard<std::mutex> lock(log.mutex);
      log.messages.Add(ModuleMessage{module_, acted ? payload : std::move(payload)}, bytes);
    }
    if (!acted) return;
    switch (payload[0]) {
      case 'R': {
        std::lock_guard<std::mutex> lock(waitingMutex_);
        reliable_.push_back(std::move(payload));
        break;
      }
      case 'U': {
        std::lock_guard<std::mutex> lock(waitingMutex_);
        unreliable_.push_back(std::move(payload));
        break;
      }
      case 'A':
        // The flag that Send() reads is a plain bool of the game's: it is set on the game
        // thread, never beside Send() on this one.
        Game::Synchronize([payload] { QueueAction(payload); });
        break;
      default:
        break;
    }
  }

  // Each payload is flushed on its own, so it leaves as a record (reliable) or a datagram
  // (unreliable) of its own.
  void OnSend(WriteOnlyStream& reliable, WriteOnlyStream& unreliable) {
    std::vector<Bytes> reliablePayloads, unreliablePayloads;
    {
      std::lock_guard<std::mutex> lock(waitingMutex_);
      reliablePayloads.swap(reliable_);
      unreliablePayloads.swap(unreliable_);
    }
    for (const Bytes& payload : reliablePayloads) {
      reliable.Write(payload.data(), payload.size());
      reliable.Flush();
    }
    for (const Bytes& payload : unreliablePayloads) {
      unreliable.Write(payload.data(), payload.size());
      unreliable.Flush();
    }
  }

 private:
  static void QueueAction(const Bytes& payload) {
    if (payload.size() < 1 + kIdSize) return;
    game::entity::Id id;
    std::memcpy(&id, payload.data() + 1, kIdSize);
    const ClientSideEntity::Ptr entity = ClientSideEntity::Get<ClientSideEntity>(id);
    if (!entity) return;
    orvex::filesystem::Stream action;
    action.Write(payload.data() + 1 + kIdSize, payload.size() - 1 - kIdSize);
    orvex::engine::QueueAction(*entity, std::move(action));
  }

  const std::string module_;
  std::mutex waitingMutex_;
  std::vector<Bytes> reliable_;
  std::vector<Bytes> unreliable_;
};

// The slot table. mutex guards the slots; handlers copy their instance out and run
// without it.
struct Slots {
  std::mutex mutex;
  std::array<std::shared_ptr<Instance>, kMaxMods> instances;
};

Slots& Table() {
  static Slots slots;
  return slots;
}

std::shared_ptr<Instance> InstanceAt(size_t slot) {
  Slots& slots = Table();
  std::lock_guard<std::mutex> lock(slots.mutex);
  return slots.instances[slot];
}

template <size_t Slot>
void MessageHandler(ReadOnlyStream& payload) {
  if (const std::shared_ptr<Instance> instance = InstanceAt(Slot)) instance->OnMessage(payload);
}

template <size_t Slot>
void SendHandler(WriteOnlyStream& reliable, WriteOnlyStream& unreliable) {
  if (const std::shared_ptr<Instance> instance = InstanceAt(Slot)) {
    instance->OnSend(reliable, unreliable);
  }
}

template <size_t... Slot>
constexpr std::array<GAME_Mod::MessageHandler, kMaxMods> MessageHandlers(
    std::index_sequence<Slot...>) {
  return {&MessageHandler<Slot>...};
}

template <size_t... Slot>
constexpr std::array<GAME_Mod::SendHandler, kMaxMods> SendHandlers(std::index_sequence<Slot...>) {
  return {&SendHandler<Slot>...};
}

constexpr std::array<GAME_Mod::MessageHandler, kMaxMods> kMessageHandlers =
    MessageHandlers(std::make_index_sequence<kMaxMods>());
constexpr std::array<GAME_Mod::SendHandler, kMaxMods> kSendHandlers =
    SendHandlers(std::make_index_sequence<kMaxMods>());

void ConnectHandler(uint64_t, std::string& username, WriteOnlyStream& stream) {
  stream.Write(username);
}

// Runs inside the entity's constructor: no registry, no shared_from_this.
void SupplyInterface(ClientSideEntity& entity) {
  if (entity.text == "nointerface") return;
  entity.interface = std::make_shared<SandboxInterface>();
  entity.serverDriven = entity.text != "static";
  entity.renderables.push_back(std::make_shared<game::graphics::RenderableInstance>());
}

}  // namespace

void SandboxInterface::Sync(ReadOnlyStream& data) {
  std::string bytes = Remaining<std::string>(data);
  const size_t size = bytes.size();
  syncCalls_.fetch_add(1, std::memory_order_relaxed);
  std::lock_guard<SmallLock> lock(lock_);
  syncs_.Add(std::move(bytes), size);
}

void SandboxInterface::ForEachSync(
    const std::function<void(std::span<const uint8_t>)>& visit) const {
  std::lock_guard<SmallLock> lock(lock_);
  syncs_.ForEach([&visit](const std::string& bytes) {
    visit({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
  });
}

uint64_t SandboxInterface::SyncsLeftOut() const {
  std::lock_guard<SmallLock> lock(lock_);
  return syncs_.LeftOut();
}

std::shared_ptr<GAME_Mod> Load(const std::string& name) {
  auto mod = std::make_shared<GAME_Mod>(name);
  const std::string module = mod->moduleId.String();
  if (module.empty()) {
    throw std::invalid_argument("'" + name + "' is not a module name (PREFIX_name)");
  }
  if (GAME_Mod::GetModule(module)) {
    throw std::invalid_argument("the mod " + module + " is loaded already");
  }
  auto instance = std::make_shared<Instance>(module);
  size_t slot = kMaxMods;
  {
    Slots& slots = Table();
    std::lock_guard<std::mutex> lock(slots.mutex);
    for (size_t i = 0; i < kMaxMods && slot == kMaxMods; ++i) {
      if (!slots.instances[i]) slot = i;
    }
    if (slot == kMaxMods) {
      throw std::invalid_argument("no room for the mod " + module + ": at most " +
                                  std::to_string(kMaxMods) + " sandbox mods");
    }
    slots.instances[slot] = instance;
  }
  mod->clientConnectHandler = &ConnectHandler;
  mod->clientSendHandler = kSendHandlers[slot];
  mod->clientMessageHandler = kMessageHandlers[slot];
  orvex::engine::InterfaceSupplier modSupplier = &SupplyInterface;
  try {
    orvex::engine::LoadMod(mod, modSupplier);
  } catch (...) {
    Slots& slots = Table();
    std::lock_guard<std::mutex> lock(slots.mutex);
    slots.instances[slot].reset();
    throw;
  }
  return mod;
}

void UnloadAll() {
  std::array<std::shared_ptr<Instance>, kMaxMods> unloaded;
  {
    Slots& slots = Table();
    std::lock_guard<std::mutex> lock(slots.mutex);
    unloaded.swap(slots.instances);
  }
  for (const std::shared_ptr<Instance>& instance : unloaded) {
    if (instance) orvex::engine::UnloadMod(instance->Module());
  }
  MessageLog& log = Log();
  std::lock_guard<std::mutex> lock(log.mutex);
  log.messages.Clear();
}

void ForEachModuleMessage(const std::function<void(const ModuleMessage&)>& visit) {
  MessageLog& log = Log();
  std::lock_guard<std::mutex> lock(log.mutex);
  log.messages.ForEach(visit);
}

void SetKeptBytesCap(uint64_t bytes) {
  KeptBytes::Process().SetCap(bytes);
}

uint64_t ModuleMessagesLeftOut() {
  MessageLog& log = Log();
  std::lock_guard<std::mutex> lock(log.mutex);
  return log.messages.LeftOut();
}

}  // namespace sandbox
