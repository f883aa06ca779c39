// The real executable as a child process.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "client/pd_client.h"
#include "common/posix_file.h"
#include "rpc/rpc_server.h"

namespace kandb::testing {

class ServerProcess {
 public:
  // `in_child` runs in the new process before the program does: system calls only.
  explicit ServerProcess(const std::vector<std::string>& arguments, const std::string& cwd = ".",
                         const std::function<void()>& in_child = {}) {
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
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // nothing stays behind when the test itself is killed
      if (::chdir(cwd.c_str()) != 0) ::_exit(126);
      ::dup2(out_end.get(), STDOUT_FILENO);
      ::dup2(err_end.get(), STDERR_FILENO);
      if (in_child) in_child();
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

// A server that listens on 127.0.0.1, with its state in `dir`/pd-data.
class ListeningServer {
 public:
  explicit ListeningServer(const std::string& dir, const std::function<void()>& in_child = {}) {
    // Another process may take a port that was free a moment ago.
    for (int attempt = 0; attempt < 10; ++attempt) {
      bound_port = FreePort();
      process = std::make_unique<ServerProcess>(
          std::vector<std::string>{"--port=" + std::to_string(bound_port), "--bind_addr=127.0.0.1"},
          dir, in_child);
      if (!process->ReadBanner().empty()) return;
    }
    throw std::runtime_error("the server does not start");
  }

  int port() const { return bound_port; }
  pid_t pid() const { return process->pid(); }
  void Kill() { process->Kill(); }

 private:
  int bound_port = 0;
  std::unique_ptr<ServerProcess> process;
};

// A connection of its own to a server on this machine. One attempt, and a time-out that only a
// server that hangs passes.
class Caller : public client::PdClient {
 public:
  explicit Caller(int port)
      : Caller(std::make_unique<kanrpc::RpcClient>("127.0.0.1:" + std::to_string(port),
                                                   kanrpc::RpcClientOptions{60000, 1})) {}

 private:
  explicit Caller(std::unique_ptr<kanrpc::RpcClient> client)
      : client::PdClient(client.get()), rpc(std::move(client)) {}
  std::unique_ptr<kanrpc::RpcClient> rpc;
};

}  // namespace kandb::testing
