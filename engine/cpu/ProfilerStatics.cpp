// The profiler's process-wide tables: one definition for every module of the process.
#include "orvex/cpu/Profiler.h"

namespace orvex::cpu {

bool Profiler::enabled = false;
SharedMutex Profiler::profilesMutex;
std::unordered_map<std::thread::id, std::unordered_map<std::string, Profiler::Profile>>
    Profiler::profiles;
std::unordered_map<std::thread::id, std::vector<std::string>> Profiler::profileStacks;

}  // namespace orvex::cpu
