// The game's mod registry (game.so), as the client uses it, and the reference runtime's
// calls to load and unload mods.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "identifiers/ModuleID.h"
#include "orvex/filesystem/Stream.h"

namespace game::entity {
class ClientSideEntity;
}

class GAME_Mod {
 public:
  // Writes the mod's first message to its server-side counterpart into `stream`.
  using ConnectHandler = void (*)(uint64_t playerId, std::string& username,
                                  orvex::filesystem::WriteOnlyStream& stream);
  // Writes this frame's reliable and unreliable messages.
  using SendHandler = void (*)(orvex::filesystem::WriteOnlyStream& reliable,
                               orvex::filesystem::WriteOnlyStream& unreliable);
  // Receives a message from the server-side counterpart (TCP or datagram).
  using MessageHandler = void (*)(orvex::filesystem::ReadOnlyStream& payload);
  // Called by the ClientSideEntity constructor for entities of this module: sets the
  // entity's interface (or leaves it empty), its renderables and serverDriven. It runs
  // outside the registry lock and must not use the registry.
  using InterfaceSupplier = std::function<void(game::entity::ClientSideEntity& entity)>;

  // `name` is a module text such as CORE_ship; the registry knows the mod by
  // moduleId.String(), so the name must parse to a valid ModuleID.
  explicit GAME_Mod(const std::string& name);

  orvex::modular::ModuleID moduleId;
  ConnectHandler clientConnectHandler = nullptr;
  SendHandler clientSendHandler = nullptr;
  MessageHandler clientMessageHandler = nullptr;
  InterfaceSupplier supplyInterface;

  // Calls `fn` for every loaded mod, in load order, over a snapshot taken under the
  // registry's lock; `fn` runs without the lock, so it may load or unload mods.
  static void ForEachModule(const std::function<void(std::shared_ptr<GAME_Mod>&)>&& fn);
  // The mod whose moduleId.String() equals `name`, or an empty pointer.
  static std::shared_ptr<GAME_Mod> GetModule(const std::string& name);

  // Reference runtime. Load throws std::invalid_argument when the mod's id is not valid
  // or a mod with the same id is loaded.
  static void Load(std::shared_ptr<GAME_Mod> mod);
  static void Unload(const std::string& name);
  static void UnloadAll();
};
