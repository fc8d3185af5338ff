// orvex::SharedMutex against std::shared_mutex, in the same run.
//
// Names read Case/Implementation; the implementation marked "base:" is the baseline that
// bench/run.sh divides by.
#include <benchmark/benchmark.h>

#include <mutex>
#include <shared_mutex>

#include "orvex/SharedMutex.h"

namespace {

// One lock per implementation, shared by all threads of a benchmark.
template <class Mutex>
Mutex& TheLock() {
  static Mutex mutex;
  return mutex;
}

template <class Mutex>
void SharedLock(benchmark::State& state) {
  Mutex& mutex = TheLock<Mutex>();
  for (auto _ : state) {
    std::shared_lock<Mutex> lock(mutex);
    benchmark::DoNotOptimize(&mutex);
  }
}

template <class Mutex>
void ExclusiveLock(benchmark::State& state) {
  Mutex& mutex = TheLock<Mutex>();
  for (auto _ : state) {
    std::unique_lock<Mutex> lock(mutex);
    benchmark::DoNotOptimize(&mutex);
  }
}

// A registry-like mix: three lookups (shared) for every create or destroy (exclusive).
template <class Mutex>
void MixedReadMostly(benchmark::State& state) {
  Mutex& mutex = TheLock<Mutex>();
  unsigned i = 0;
  for (auto _ : state) {
    if (++i % 4 == 0) {
      std::unique_lock<Mutex> lock(mutex);
      benchmark::DoNotOptimize(&mutex);
    } else {
      std::shared_lock<Mutex> lock(mutex);
      benchmark::DoNotOptimize(&mutex);
    }
  }
}

#define ORVEX_LOCK_BENCH(Case)                \
  BENCHMARK(Case<orvex::SharedMutex>)         \
      ->Name(#Case "/orvex::SharedMutex")     \
      ->ThreadRange(1, 2)                     \
      ->UseRealTime();                        \
  BENCHMARK(Case<std::shared_mutex>)          \
      ->Name(#Case "/base:std::shared_mutex") \
      ->ThreadRange(1, 2)                     \
      ->UseRealTime()

ORVEX_LOCK_BENCH(SharedLock);
ORVEX_LOCK_BENCH(ExclusiveLock);
ORVEX_LOCK_BENCH(MixedReadMostly);

}  // namespace
