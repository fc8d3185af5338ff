// A scoped profiler: named stretches of code, timed into per-thread statistics.
#pragma once

#include <cstdint>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Timer.h"
#include "orvex/SharedMutex.h"

namespace orvex::cpu {

// Usage contract: every constructed profiler is stopped exactly once, on every way out of
// the measured stretch, and profilers of one thread are stopped in reverse order of
// construction. Nested profilers yield path keys: inside "Client::Send", X records as
// "Client::Send/X".
class Profiler {
 public:
  struct Profile {
    uint32_t count = 0;
    double totalMs = 0.0;
    double minMs = -1.0;  // -1.0: no measurement yet
    double maxMs = 0.0;
    std::unordered_map<std::string, Profile> children;  // not filled: nesting is in the keys
  };

  Profiler(const std::string& name, bool start);
  Profiler(const Profiler&) = delete;
  Profiler& operator=(const Profiler&) = delete;

  // Records the measurement (if timing) and pops the thread's stack.
  void Stop();

  // Process-wide (OrvexCpu.so). profilesMutex guards the outer maps: shared to look up,
  // to insert a key into the calling thread's own inner map, and to push or pop the
  // calling thread's own stack; exclusive to add a thread's entries, and for anyone who
  // reads other threads' statistics. Profile fields are written by their thread alone.
  static bool enabled;
  static SharedMutex profilesMutex;
  static std::unordered_map<std::thread::id, std::unordered_map<std::string, Profile>> profiles;
  static std::unordered_map<std::thread::id, std::vector<std::string>> profileStacks;

 private:
  Timer timer_;
  Profile* profile_ = nullptr;  // null: inert (disabled at construction)
};

}  // namespace orvex::cpu
