// Captures what is written to std::cerr while the object lives. Writers on other threads
// must be done (joined) before Text() is read or the capture ends.
#pragma once

#include <iostream>
#include <sstream>
#include <string>

namespace testing_support {

class CaptureStderr {
 public:
  CaptureStderr() : previous_(std::cerr.rdbuf(captured_.rdbuf())) {}
  ~CaptureStderr() { std::cerr.rdbuf(previous_); }
  CaptureStderr(const CaptureStderr&) = delete;
  CaptureStderr& operator=(const CaptureStderr&) = delete;

  std::string Text() const { return captured_.str(); }

 private:
  std::ostringstream captured_;
  std::streambuf* previous_;
};

}  // namespace testing_support
