// Tools run as child processes, and the scratch directory their files go to.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace testlib {

// A directory of its own for one test, removed with everything in it at the end.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// The whole content of a file ("" when it cannot be read).
std::string ReadFile(const std::filesystem::path& path);
// `text` split at its line ends.
std::vector<std::string> Lines(const std::string& text);
// A built tool beside the running test executable (bin/<name>).
std::string ToolPath(const std::string& name);

// A child process whose output and error go to files in `dir`, named after `tag`; the
// destructor kills it if still running. Threads: one test thread.
class ChildProcess {
 public:
  ChildProcess(const std::string& program, const std::vector<std::string>& args,
               const ScratchDir& dir, const std::string& tag = "child");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool Exited();
  // The exit status (128 + signal when killed by one), or -1 when the child had not exited
  // after `timeoutMs`: it is then killed, and the caller's check fails on the -1.
  int Wait(int timeoutMs = 30000);
  void Signal(int signal) { kill(pid_, signal); }
  std::string Stdout() const { return ReadFile(out_); }
  std::string Stderr() const { return ReadFile(err_); }

 private:
  std::filesystem::path out_, err_;
  pid_t pid_ = -1;
  bool done_ = false;
  int status_ = -1;
};

}  // namespace testlib
