#include "orvex/cpu/Profiler.h"

#include <algorithm>
#include <mutex>
#include <shared_mutex>

namespace orvex::cpu {

Profiler::Profiler(const std::string& name, bool start) {
  if (!enabled) return;
  const std::thread::id tid = std::this_thread::get_id();
  std::shared_lock<SharedMutex> shared(profilesMutex);
  if (profiles.find(tid) == profiles.end()) {
    shared.unlock();
    {
      std::lock_guard<SharedMutex> exclusive(profilesMutex);
      profiles.try_emplace(tid);
      profileStacks.try_emplace(tid);
    }
    shared.lock();
  }
  // This thread's own entries: only this thread changes them, so the shared lock suffices.
  std::vector<std::string>& stack = profileStacks.at(tid);
  std::string key;
  for (const std::string& open : stack) {
    key += open;
    key += '/';
  }
  key += name;
  profile_ = &profiles.at(tid)[key];
  stack.push_back(name);
  shared.unlock();
  if (start) timer_.Start();
}

void Profiler::Stop() {
  if (profile_ == nullptr) return;
  if (timer_.running) {
    const double t = timer_.Elapsed();
    ++profile_->count;
    profile_->totalMs += t;
    profile_->minMs = profile_->minMs == -1.0 ? t : std::min(t, profile_->minMs);
    profile_->maxMs = std::max(t, profile_->maxMs);
    timer_.running = false;
  }
  std::shared_lock<SharedMutex> shared(profilesMutex);
  auto it = profileStacks.find(std::this_thread::get_id());
  if (it != profileStacks.end() && !it->second.empty()) it->second.pop_back();
}

}  // namespace orvex::cpu
