// The mod registry: loaded mods in load order, known by their module identifier's text.
#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "GAME_Mod.h"

namespace {

// The mutex guards the vector only: no mod code (handlers, suppliers, destructors) runs
// while it is held, so that code may itself load, unload or look up mods.
struct ModRegistry {
  std::mutex mutex;
  std::vector<std::shared_ptr<GAME_Mod>> mods;
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
    snapshot = registry.mods;
  }
  for (std::shared_ptr<GAME_Mod>& mod : snapshot) fn(mod);
}

std::shared_ptr<GAME_Mod> GAME_Mod::GetModule(const std::string& name) {
  if (name.empty()) return nullptr;
  ModRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  for (const std::shared_ptr<GAME_Mod>& mod : registry.mods) {
    if (mod->moduleId.String() == name) return mod;
  }
  return nullptr;
}

void GAME_Mod::Load(std::shared_ptr<GAME_Mod> mod) {
  if (!mod) throw std::invalid_argument("GAME_Mod::Load: no mod given");
  const std::string name = mod->moduleId.String();
  if (name.empty()) throw std::invalid_argument("GAME_Mod::Load: the mod has no valid module id");
  ModRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  for (const std::shared_ptr<GAME_Mod>& loaded : registry.mods) {
    if (loaded->moduleId == mod->moduleId) {
      throw std::invalid_argument("GAME_Mod::Load: " + name + " is already loaded");
    }
  }
  registry.mods.push_back(std::move(mod));
}

void GAME_Mod::Unload(const std::string& name) {
  std::shared_ptr<GAME_Mod> removed;  // released after the lock
  ModRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto it = std::find_if(registry.mods.begin(), registry.mods.end(),
                         [&](const auto& mod) { return mod->moduleId.String() == name; });
  if (it == registry.mods.end()) return;
  removed = std::move(*it);
  registry.mods.erase(it);
}

void GAME_Mod::UnloadAll() {
  std::vector<std::shared_ptr<GAME_Mod>> removed;  // released after the lock
  ModRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  removed.swap(registry.mods);
}
