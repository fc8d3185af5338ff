// Captures what is written to std::cerr while the object lives, from any thread. The
// client writes its diagnostics on the receiving thread and on the datagram delivery
// thread, so the captured text is guarded by a mutex and a test can wait for a line.
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
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

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
      const char ch = traits_type::to_char_type(c);
      xsputn(&ch, 1);
      return c;
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override {
      std::lock_guard<std::mutex> lock(mutex);
      text.append(s, static_cast<size_t>(n));
      grown.notify_all();
      return n;
    }

    mutable std::mutex mutex;
    mutable std::condition_variable grown;
    std::string text;
  };

  Buffer buffer_;
  std::streambuf* previous_;
};

}  // namespace testlib
