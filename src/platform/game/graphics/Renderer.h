// The parts of the game's renderer that entities use: aim references and the renderable
// instances that carry an aim id. The reference runtime's renderer is headless: it records
// the references it is given and hands out aim ids 1, 2, 3, ...
#pragma once

#include <any>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace game::graphics {

class RenderableInstance {
 public:
  void SetAimID(unsigned int aimId);

  unsigned int aimId = 0;
  // Set by the entity code once the instance's entity is initialised.
  bool linked = false;
  // How many times SetAimID ran.
  int aimIdCalls = 0;
};

class GameRenderer {
 public:
  struct AimReference {
    std::string name;
    std::any reference;
  };

  // Any thread.
  uint32_t AddAimReference(const std::string& name, std::any reference);

  // Copies of what was registered so far, in order of registration.
  std::vector<AimReference> AimReferences() const;
  size_t AimReferenceCount() const;

 private:
  mutable std::mutex mutex_;
  std::vector<AimReference> references_;
};

}  // namespace game::graphics
