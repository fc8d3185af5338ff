// The two passes that apply a state datagram's records to the replica. The datagram
// intake builds one per accepted MSG_TRANSFORMS or MSG_PHYSICS datagram and hands it to
// Game::Synchronize; it then runs once on the game thread. Each pass owns its copy of the
// datagram, positioned at the first record.
//
// Records follow each other up to the first id with a zero word (only that id is read):
//   TransformRecord, 56 bytes: Id (16), position f64 x3 (24), orientation f32 w,x,y,z (16)
//   PhysicsRecord,   64 bytes: Id (16), velocity f64 x3 (24), second vector f64 x3 (24)
// A NaN anywhere in a record ends the pass with one line on std::cerr; records applied
// before it stay applied.
#pragma once

#include <cstddef>
#include <cstdint>

#include "game/entity/Id.h"
#include "orvex/filesystem/Stream.h"

namespace client {

class TransformPass {
 public:
  TransformPass(orvex::filesystem::ReadOnlyStream records, int32_t divisor, game::entity::Id parent,
                bool foreign);
  void operator()();

  // Passes are made on the datagram delivery thread and destroyed on the game thread, tens
  // of thousands a second; their blocks are reused, so a steady stream allocates nothing.
  static void* operator new(size_t size);
  static void operator delete(void* block, size_t size);

 private:
  orvex::filesystem::ReadOnlyStream records_;
  int32_t divisor_;
  game::entity::Id parent_;
  bool foreign_;
};

class PhysicsPass {
 public:
  explicit PhysicsPass(orvex::filesystem::ReadOnlyStream records);
  void operator()();

  // Passes are made on the datagram delivery thread and destroyed on the game thread, tens
  // of thousands a second; their blocks are reused, so a steady stream allocates nothing.
  static void* operator new(size_t size);
  static void operator delete(void* block, size_t size);

 private:
  orvex::filesystem::ReadOnlyStream records_;
};

}  // namespace client
