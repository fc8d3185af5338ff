#include "common/OutputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <stdexcept>

namespace tools {
namespace {

[[noreturn]] void Fail(const std::string& path, int error) {
  throw std::runtime_error("cannot write " + path + ": " + std::strerror(error));
}

}  // namespace

void CheckWritable(const std::string& path) {
  if (path == "-") return;
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) Fail(path, errno);
  ::close(fd);
}

void WriteText(const std::string& path, const std::string& text) {
  if (path == "-") {
    std::cout << text << std::flush;
    if (!std::cout) throw std::runtime_error("cannot write to standard output");
    return;
  }
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) Fail(path, errno);
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int error = errno;
      ::close(fd);
      Fail(path, error);
    }
    done += static_cast<size_t>(n);
  }
  if (::close(fd) != 0) Fail(path, errno);
}

}  // namespace tools
