#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "Wait.h"

extern char** environ;

namespace testlib {

ScratchDir::ScratchDir() {
  static std::atomic<int> counter{0};
  path_ = std::filesystem::temp_directory_path() /
          ("orvex-test-" + std::to_string(getpid()) + "-" + std::to_string(++counter));
  std::filesystem::create_directories(path_);
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string ToolPath(const std::string& name) {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const ScratchDir& dir, const std::string& tag)
    : out_(dir / (tag + ".stdout")), err_(dir / (tag + ".stderr")) {
  std::vector<char*> argv{const_cast<char*>(program.c_str())};  // posix_spawn only reads them
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  const int failed = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start " + program + ": " + std::strerror(failed));
  }
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) Wait(0);
}

bool ChildProcess::Exited() {
  if (done_) return true;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
  done_ = true, status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return true;
}

int ChildProcess::Wait(int timeoutMs) {
  if (WaitUntil([this] { return Exited(); }, timeoutMs)) return status_;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  done_ = true, status_ = -1;
  return -1;
}

}  // namespace testlib
