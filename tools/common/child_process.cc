#include "tools/common/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "rpc/rpc_server.h"

namespace kandb::tools {

namespace {

struct Pipe {
  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe: " + ErrnoText(errno));
    read_end = UniqueFd(ends[0]);
    write_end = UniqueFd(ends[1]);
  }

  UniqueFd read_end;
  UniqueFd write_end;
};

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const Options& options) {
  Pipe out_pipe;
  Pipe err_pipe;
  const std::string name = std::filesystem::path(program).filename();
  std::vector<char*> argv = {const_cast<char*>(name.c_str())};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  child = ::fork();
  // Nothing between fork and exec allocates: another thread may have held the allocator's lock.
  if (child == 0) {
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::chdir(options.directory.c_str()) != 0) ::_exit(126);
    ::dup2(out_pipe.write_end.get(), STDOUT_FILENO);
    if (options.capture_errors) ::dup2(err_pipe.write_end.get(), STDERR_FILENO);
    if (options.in_child) options.in_child();
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
  }
  out = std::move(out_pipe.read_end);
  err = std::move(err_pipe.read_end);
}

std::string ChildProcess::ReadBanner() {
  std::string line;
  char next = 0;
  int error = 0;
  while (!line.ends_with('\n') && ReadFully(out.get(), &next, 1, &error) == 1) line += next;
  return line;
}

int ChildProcess::WaitForExit(std::string* error_text) {
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

void ChildProcess::Kill() {
  if (child <= 0) return;
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  child = -1;
}

int FreePort() {
  kanrpc::RpcServer probe;
  return probe.Start(0, "127.0.0.1").ok() ? probe.port() : 0;
}

}  // namespace kandb::tools
