// The parts of the game's renderer that entities use: aim references and the renderable
// instances that carry an aim id. The reference runtime's renderer is headless: it records
// the references it is given and hands out aim ids 1, 2, 3, ... It keeps a reference only
// while its interface lives: the ones whose interface is gone are dropped as new ones come,
// so an endless stream of creations and destructions costs bounded memory.
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
    uint32_t aimId = 0;
  };

  // Any thread.
  uint32_t AddAimReference(const std::string& name, std::any reference);

  // Copies of the references kept, in order of registration: every one registered so far
  // except some whose interface is gone (those are dropped in batches, not at once).
  std::vector<AimReference> AimReferences() const;
  size_t AimReferenceCount() const;

 private:
  // REQUIRES: mutex_ held. Drops the references whose interface is gone.
  void DropExpired();

  mutable std::mutex mutex_;
  std::vector<AimReference> references_;
  uint32_t lastAimId_ = 0;
  // references_.size() at which the next sweep runs: twice what the last one kept, so the
  // sweeps cost a constant per registration.
  size_t sweepAt_ = 64;
};

}  // namespace game::graphics
