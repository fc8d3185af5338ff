// The protocol's sizes that the module and everything outside it (protocol/Wire.h) share,
// written once. No dependencies, so that any side may include it.
#pragma once

namespace client::limits {

// The largest datagram either side sends; the client's datagram socket and stream hold one.
inline constexpr unsigned long kDatagramCapacity = 1400;
// The client's datagram header: lead byte, u16 networking version, u16 server tag, u64
// player id.
inline constexpr unsigned long kDatagramHeaderSize = 13;
// What a module record adds to its payload: code, ModuleID, the embedded stream's count.
inline constexpr unsigned long kModuleRecordOverhead = 21;
// The longest token a hello carries.
inline constexpr unsigned long kTokenLimit = 64;
// A state datagram's records: id, position, orientation (f32); id and two vectors.
inline constexpr unsigned long kTransformRecordSize = 56;
inline constexpr unsigned long kPhysicsRecordSize = 64;

}  // namespace client::limits
