// The game's mod registry (game.so), as the client uses it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "orvex/filesystem/Stream.h"
#include "orvex/modular/ModuleID.h"

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
  // `name` is a module text such as CORE_ship; the registry knows the mod by
  // moduleId.String(), so the name must parse to a valid ModuleID.
  explicit GAME_Mod(const std::string& name);

  orvex::modular::ModuleID moduleId;
  ConnectHandler clientConnectHandler = nullptr;
  SendHandler clientSendHandler = nullptr;
  MessageHandler clientMessageHandler = nullptr;

  // Calls `fn` for every loaded mod, in load order, over a snapshot taken under the
  // registry's lock; `fn` runs without the lock, so it may load or unload mods.
  static void ForEachModule(const std::function<void(std::shared_ptr<GAME_Mod>&)>&& fn);
  // The mod whose moduleId.String() equals `name`, or an empty pointer.
  static std::shared_ptr<GAME_Mod> GetModule(const std::string& name);
};
