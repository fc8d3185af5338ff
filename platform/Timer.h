// A wall-clock stopwatch.
#pragma once

#include <atomic>
#include <mutex>

// startMs and running are written under mutex, and Elapsed() reads startMs under it;
// `running` may be read without it (it is atomic, with the size and place of a bool, so
// a reader on another thread is no data race). The mutex is never held together with
// another lock.
class Timer {
 public:
  Timer() = default;
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Sets running and startMs = now.
  void Start();
  // Milliseconds since the last Start() (meaningless while not running).
  double Elapsed();

  std::mutex mutex;
  double startMs = 0.0;
  std::atomic<bool> running = false;
};
