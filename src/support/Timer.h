// A wall-clock stopwatch.
#pragma once

#include <mutex>

// startMs and running are guarded by mutex for writers and for Elapsed(); `running` may
// be read without it. The mutex is never held together with another lock.
class Timer {
 public:
  Timer() = default;
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Sets running and startMs = now.
  void Start();
  // Milliseconds since the last Start() (meaningless while not running).
  double Elapsed();

  // The clock: system_clock nanoseconds since the epoch, as a double. Every Timer and the
  // client's receive stamp read time through it.
  static double NowNs();
  // Test seam: replaces the clock for the whole process (nullptr restores the system
  // clock). The source must be callable from any thread.
  using ClockSource = double (*)();
  static void SetClockSourceForTesting(ClockSource source);

  std::mutex mutex;
  double startMs = 0.0;
  bool running = false;
};
