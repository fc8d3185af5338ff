// Test mods of the client suites and the reset of the process-wide state around each case.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "game/entity/ClientSideEntity.h"
#include "identifiers/ModuleID.h"
#include "orvex/filesystem/Stream.h"

namespace testlib {

using Bytes = std::vector<uint8_t>;

// Records the bytes left in the stream at each Sync() (receiving thread; guarded).
class RecordingInterface : public game::entity::ClientSideEntity::Interface {
 public:
  void Sync(orvex::filesystem::ReadOnlyStream& data) override;
  std::vector<Bytes> Syncs() const;

 private:
  mutable std::mutex mutex_;
  std::vector<Bytes> syncs_;
};

// The mod TEST_entities. By entity text: "nointerface" gets no interface, "static" a
// RecordingInterface that is not server-driven, anything else a driven RecordingInterface.
struct EntityMod {
  static constexpr const char* kName = "TEST_entities";
  static orvex::modular::ModuleID Id() { return orvex::modular::ModuleID(kName); }
  static void Install();  // idempotent
};

// The mod TEST_recorder: its message handler records each payload (any thread).
struct RecorderMod {
  static constexpr const char* kName = "TEST_recorder";
  static orvex::modular::ModuleID Id() { return orvex::modular::ModuleID(kName); }
  static void Install();
  static std::vector<Bytes> Payloads();
};

// Registers an entity of TEST_entities directly, as a creation message would.
game::entity::ClientSideEntity::Ptr MakeEntity(game::entity::Id id, const std::string& text,
                                               game::entity::Id parent = {},
                                               glm::dvec3 position = glm::dvec3(0.0),
                                               game::entity::Orientation orientation = {});
game::entity::ClientSideEntity::Ptr FindEntity(game::entity::Id id);
// The entity's interface as a RecordingInterface (null when it has none).
std::shared_ptr<RecordingInterface> RecordingOf(game::entity::Id id);
void QueueAction(game::entity::ClientSideEntity& entity, const Bytes& payload);

// Loads mod `name` whose send handler runs `script` (none when empty); four per case.
using SendScript = std::function<void(orvex::filesystem::WriteOnlyStream& reliable,
                                      orvex::filesystem::WriteOnlyStream& unreliable)>;
void LoadSendMod(const std::string& name, SendScript script);
void WriteBytes(orvex::filesystem::Stream& stream, const Bytes& bytes);

// Puts the game, mods, registry, clock, recorders, scripts and client statics back.
void ResetClientState();

// Resets at both ends of its life: declared first in a fixture, it outlives the sessions.
struct CleanClientState {
  CleanClientState() { ResetClientState(); }
  ~CleanClientState() { ResetClientState(); }
};

}  // namespace testlib
