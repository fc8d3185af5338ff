// Captures what is written to std::cerr while the object lives, from any thread (the client
// writes on its receiving and datagram delivery threads); a test can wait for a line.
#pragma once

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <streambuf>
#include <string>

namespace testlib {

class StderrCapture {
 public:
  StderrCapture() : previous_(std::cerr.rdbuf(&buffer_)) {}
  ~StderrCapture() { std::cerr.rdbuf(previous_); }

  std::string Text() const {
    std::lock_guard<std::mutex> lock(buffer_.mutex);
    return buffer_.text;
  }

  // Waits until the captured text contains `needle`; false on time-out.
  bool WaitFor(const std::string& needle, int timeoutMs = 10000) const {
    std::unique_lock<std::mutex> lock(buffer_.mutex);
    return buffer_.grown.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return buffer_.text.find(needle) != std::string::npos; });
  }

 private:
  // Unbuffered: every character reaches `text` under the mutex as it is written.
  struct Buffer : std::streambuf {
    int_type overflow(int_type c) override {
      if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
      std::lock_guard<std::mutex> lock(mutex);
      text += traits_type::to_char_type(c);
      grown.notify_all();
      return c;
    }

    mutable std::mutex mutex;
    mutable std::condition_variable grown;
    std::string text;
  };

  Buffer buffer_;
  std::streambuf* previous_;
};

}  // namespace testlib
