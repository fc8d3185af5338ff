// The mod registry: loaded mods in load order, known by their module identifier's text,
// each with the interface supplier the host gave it.
#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "GAME_Mod.h"
#include "game/Host.h"
#include "game/ModSuppliers.h"

namespace {

struct Loaded {
  std::shared_ptr<GAME_Mod> mod;
  orvex::engine::InterfaceSupplier supplier;
};

// The mutex guards the vector only: no mod code (handlers, suppliers, destructors) runs
// while it is held, so that code may itself load, unload or look up mods.
struct ModRegistry {
  std::mutex mutex;
  std::vector<Loaded> mods;
};

// Function-local, so that a mod library may load itself during its own initialisation.
ModRegistry& Registry() {
  static ModRegistry registry;
  return registry;
}

}  // namespace

GAME_Mod::GAME_Mod(const std::string& name) : moduleId(name) {}

void GAME_Mod::ForEachModule(const std::function<void(std::shared_ptr<GAME_Mod>&)>&& fn) {
  std::vector<std::shared_ptr<GAME_Mod>> snapshot;
  {
    ModRegistry& registry = Registry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    snapshot.reserve(registry.mods.size());
    for (const Loaded& loaded : registry.mods) snapshot.push_back(loaded.mod);
  }
  for (std::shared_ptr<GAME_Mod>& mod : snapshot) fn(mod);
}

namespace {

// What `take` copies out of the mod whose module text is `name`, under the registry's lock;
// empty when no such mod is loaded.
template <typename Take>
auto Lookup(const std::string& name, Take take) -> decltype(take(std::declval<const Loaded&>())) {
  if (name.empty()) return {};
  ModRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  for (const Loaded& loaded : registry.mods) {
    if (loaded.mod->moduleId.String() == name) return take(loaded);
  }
  return {};
}

}  // namespace

std::shared_ptr<GAME_Mod> GAME_Mod::GetModule(const std::string& name) {
  return Lookup(name, [](const Loaded& loaded) { return loaded.mod; });
}

orvex::engine::InterfaceSupplier game::runtime::SupplierOf(const std::string& name) {
  return Lookup(name, [](const Loaded& loaded) { return loaded.supplier; });
}

namespace orvex::engine {

void LoadMod(std::shared_ptr<GAME_Mod> mod, InterfaceSupplier supplier) {
  if (!mod) throw std::invalid_argument("LoadMod: no mod given");
  const std::string name = mod->moduleId.String();
  if (name.empty()) throw std::invalid_argument("LoadMod: the mod has no valid module id");
  ModRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  for (const Loaded& loaded : registry.mods) {
    if (loaded.mod->moduleId == mod->moduleId) {
      throw std::invalid_argument("LoadMod: " + name + " is already loaded");
    }
  }
  registry.mods.push_back({std::move(mod), std::move(supplier)});
}

void UnloadMod(const std::string& name) {
  Loaded removed;  // released after the lock
  ModRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto it = std::find_if(registry.mods.begin(), registry.mods.end(), [&](const Loaded& loaded) {
    return loaded.mod->moduleId.String() == name;
  });
  if (it == registry.mods.end()) return;
  removed = std::move(*it);
  registry.mods.erase(it);
}

void UnloadAllMods() {
  std::vector<Loaded> removed;  // released after the lock
  ModRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  removed.swap(registry.mods);
}

}  // namespace orvex::engine
