// Programs of this build as child processes.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/posix_file.h"

namespace kandb::testing {

class ChildProcess {
 public:
  // `in_child` runs in the new process before the program does: system calls only.
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
               const std::string& cwd = ".", const std::function<void()>& in_child = {}) {
    int out_pipe[2];
    int err_pipe[2];
    if (::pipe2(out_pipe, O_CLOEXEC) != 0 || ::pipe2(err_pipe, O_CLOEXEC) != 0) {
      throw std::runtime_error("pipe2");
    }
    out = UniqueFd(out_pipe[0]);
    err = UniqueFd(err_pipe[0]);
    const UniqueFd out_end(out_pipe[1]);
    const UniqueFd err_end(err_pipe[1]);
    const std::string name = std::filesystem::path(program).filename();
    std::vector<char*> argv = {const_cast<char*>(name.c_str())};
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    child = ::fork();
    if (child == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // nothing stays behind when the test itself is killed
      if (::chdir(cwd.c_str()) != 0) ::_exit(126);
      ::dup2(out_end.get(), STDOUT_FILENO);
      ::dup2(err_end.get(), STDERR_FILENO);
      if (in_child) in_child();
      ::execv(program.c_str(), argv.data());
      ::_exit(127);
    }
  }
  ~ChildProcess() { Kill(); }

  pid_t pid() const { return child; }

  // The first line on standard output, once it is there; less when the process ends without one.
  std::string ReadBanner() {
    std::string line;
    char next = 0;
    while (line.find('\n') == std::string::npos && ::read(out.get(), &next, 1) == 1) line += next;
    return line;
  }

  // Waits for the process to end by itself; its exit status, and all it wrote on standard error.
  int WaitForExit(std::string* error_text) {
    char chunk[4096];
    ssize_t count = 0;
    while ((count = ::read(err.get(), chunk, sizeof(chunk))) > 0) {
      error_text->append(chunk, static_cast<std::size_t>(count));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    child = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  void Kill() {
    if (child <= 0) return;
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    child = -1;
  }

 private:
  pid_t child = -1;
  UniqueFd out;
  UniqueFd err;
};

}  // namespace kandb::testing
