// The replica's digest, once a frame: what two runs over one recording compare to find
// where they first went apart (replica-diff; docs/replay.md).
//
// One JSON line per frame end. The first line names the fields:
//   {"fields": ["parent", "module", ...]}
// then, for frame N (counted from 1) after E events of the thread order:
//   {"frame": N, "events": E, "hash": "<16 hex>", "entities": K,
//    "changed": [["<id text>", ["<word 0>", "<word 1>"], "<4 hex per field>"], ...],
//    "gone": [["<id text>", ["<word 0>", "<word 1>"]], ...]}
// `hash` covers every entity's fields (order-independent); `changed` lists the entities
// whose fields differ from the previous frame's (new ones included), each with a 16-bit
// hash per field in the order of `fields`; `gone` the entities no longer there. Replaying
// the lines gives every entity's field hashes at any frame.
#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <unordered_map>

#include "game/entity/Id.h"

namespace gameclient {

inline constexpr std::array<std::string_view, 19> kDigestFields = {
    "parent",       "module",         "text",
    "position",     "targetPosition", "velocity",
    "physicsExtra", "orientation",    "targetOrientation",
    "updateRate",   "smooth",         "forceSnap",
    "serverDriven", "hasTarget",      "velocityReset",
    "stale",        "ready",          "aimId",
    "sync"};

class ReplicaDigest {
 public:
  // Writes the fields line.
  explicit ReplicaDigest(std::ostream& out);
  // Writes frame's line. REQUIRES: no other thread changes the replica meanwhile (the
  // thread order's frame end gives that).
  void Frame(uint64_t events);

 private:
  std::ostream& out_;
  uint64_t frame_ = 0;
  // Each entity's hash over its fields, as of the last frame.
  std::unordered_map<game::entity::Id, uint64_t> previous_;
};

}  // namespace gameclient
