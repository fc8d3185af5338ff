// The module's clock: system_clock nanoseconds since the epoch, as a double. Every Timer and
// the client's receive stamp read time through it, so a test can move time for all of them.
#pragma once

namespace support {

double NowNs();

// Test seam: replaces the clock for the whole process (nullptr restores the system clock).
// The source must be callable from any thread.
using ClockSource = double (*)();
void SetClockSourceForTesting(ClockSource source);

}  // namespace support
