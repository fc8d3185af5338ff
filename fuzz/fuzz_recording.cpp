// A player's recording: the reader gives back the session's traffic, never more bytes than the
// file holds and in time order, or fails with one line that names the file.
#include <cstring>
#include <stdexcept>

#include "FuzzSupport.h"
#include "common/Recording.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  recording::Recording read;
  try {
    read = recording::LoadRecording(recording::Bytes(data, data + size), "input");
  } catch (const std::runtime_error& failure) {
    if (std::strncmp(failure.what(), "input: ", 7) != 0 || std::strchr(failure.what(), '\n')) {
      fuzz::Fail(std::string("an error is not one line about the file: ") + failure.what());
    }
    return 0;
  }
  size_t kept = read.parameters.size() + read.ending.size();
  uint64_t last = 0;
  for (const recording::Item& item : read.items) {
    kept += item.bytes.size();
    if (item.time < last) fuzz::Fail("items out of time order");
    if (last != 0 && item.time - last > recording::kLongestGapMicroseconds) {
      fuzz::Fail("a gap over the longest a session survives");
    }
    last = item.time;
  }
  if (kept > size) fuzz::Fail("the reader kept more bytes than the file holds");
  return 0;
}
