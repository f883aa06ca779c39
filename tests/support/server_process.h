// The real executable as a child process.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "common/posix_file.h"
#include "rpc/rpc_server.h"

namespace kandb::testing {

class ServerProcess {
 public:
  explicit ServerProcess(const std::vector<std::string>& arguments, const std::string& cwd = ".") {
    int out_pipe[2];
    int err_pipe[2];
    if (::pipe2(out_pipe, O_CLOEXEC) != 0 || ::pipe2(err_pipe, O_CLOEXEC) != 0) {
      throw std::runtime_error("pipe2");
    }
    out = UniqueFd(out_pipe[0]);
    err = UniqueFd(err_pipe[0]);
    const UniqueFd out_end(out_pipe[1]);
    const UniqueFd err_end(err_pipe[1]);
    std::vector<char*> argv = {const_cast<char*>("kandb-meta")};
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    child = ::fork();
    if (child == 0) {
      if (::chdir(cwd.c_str()) != 0) ::_exit(126);
      ::dup2(out_end.get(), STDOUT_FILENO);
      ::dup2(err_end.get(), STDERR_FILENO);
      ::execv(KANDB_META_BINARY, argv.data());
      ::_exit(127);
    }
  }
  ~ServerProcess() { Kill(); }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

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

// A port that was free a moment ago.
inline int FreePort() {
  kanrpc::RpcServer probe;
  return probe.Start(0, "127.0.0.1").ok() ? probe.port() : 0;
}

}  // namespace kandb::testing
