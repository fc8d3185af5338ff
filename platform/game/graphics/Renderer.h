// The parts of the game's renderer that entities use: aim references and the renderable
// instances that carry an aim id.
#pragma once

#include <any>
#include <cstdint>
#include <string>

namespace game::graphics {

class RenderableInstance {
 public:
  void SetAimID(unsigned int aimId);

  // Set by the entity code once the instance's entity is initialised.
  bool linked = false;
};

class GameRenderer {
 public:
  // Registers `reference` under `name` and returns its aim id. Any thread.
  uint32_t AddAimReference(const std::string& name, std::any reference);
};

}  // namespace game::graphics
