// Test mods for the client suites: a mod whose entities record what their interface is
// given, a mod that records module messages, and the process-wide reset that every case
// starts and ends with.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "game/entity/ClientSideEntity.h"
#include "identifiers/ModuleID.h"
#include "orvex/filesystem/Stream.h"

namespace clienttest {

using TestBytes = std::vector<uint8_t>;

// An interface that records the bytes each Sync() call is given (all bytes left in the
// stream), in order. Sync runs on the receiving thread; the record is guarded.
class RecordingInterface : public game::entity::ClientSideEntity::Interface {
 public:
  void Sync(orvex::filesystem::ReadOnlyStream& data) override;
  std::vector<TestBytes> Syncs() const;

 private:
  mutable std::mutex mutex_;
  std::vector<TestBytes> syncs_;
};

// The mod TEST_entities. Its entities get, by their entity text:
//   "nointerface": no interface;
//   "static":      a RecordingInterface, serverDriven false;
//   anything else: a RecordingInterface, serverDriven true.
struct EntityMod {
  static constexpr const char* kName = "TEST_entities";
  static orvex::modular::ModuleID Id() { return orvex::modular::ModuleID(kName); }
  // Loads the mod unless it is loaded.
  static void Install();
};

// The mod TEST_recorder: its message handler records each payload (any thread).
struct RecorderMod {
  static constexpr const char* kName = "TEST_recorder";
  static orvex::modular::ModuleID Id() { return orvex::modular::ModuleID(kName); }
  static void Install();
  static std::vector<TestBytes> Payloads();
};

// An id whose two words are both non-zero.
game::entity::Id EntityId(uint64_t n);

// Registers an entity of TEST_entities directly, as a creation message would.
game::entity::ClientSideEntity::Ptr MakeEntity(game::entity::Id id, const std::string& text,
                                               game::entity::Id parent = {},
                                               glm::dvec3 position = glm::dvec3(0.0),
                                               game::entity::Orientation orientation = {});
game::entity::ClientSideEntity::Ptr FindEntity(game::entity::Id id);
// The entity's interface as a RecordingInterface (null when it has none).
std::shared_ptr<RecordingInterface> RecordingOf(game::entity::Id id);

// Polls `condition` until it holds; false when `timeoutMs` passed first.
inline bool WaitUntil(const std::function<bool()>& condition, int timeoutMs = 10000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Puts the game runtime, the mods, the entity registry, the clock and the client's statics
// back to their load-time state.
void ResetProcessState();

// Every client case starts and ends from the load-time state, so cases stay independent
// even when the whole executable runs in one process.
class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetProcessState(); }
  void TearDown() override { ResetProcessState(); }
};

}  // namespace clienttest
