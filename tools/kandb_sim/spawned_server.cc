#include "kandb_sim/spawned_server.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "rpc/rpc_server.h"

namespace kandb::sim {

namespace {

// A port that was free a moment ago: the server cannot be asked which one it took.
int FreePort() {
  kanrpc::RpcServer probe;
  return probe.Start(0, "127.0.0.1").ok() ? probe.port() : 0;
}

// Only returns in the parent. Nothing between fork and exec allocates.
pid_t ForkAndExec(const std::string& binary, const std::vector<std::string>& arguments,
                  const UniqueFd& output_end) {
  std::vector<char*> argv = {const_cast<char*>(binary.c_str())};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  const pid_t child = ::fork();
  if (child != 0) return child;
  // However the simulator ends, the server ends with it.
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::dup2(output_end.get(), STDOUT_FILENO);
  ::execv(binary.c_str(), argv.data());
  ::_exit(127);
}

}  // namespace

Status SpawnedServer::Start(const std::string& binary, std::uint32_t target_replicas,
                            std::unique_ptr<SpawnedServer>* out) {
  std::string directory = (std::filesystem::temp_directory_path() / "kandb-sim-XXXXXX").string();
  if (::mkdtemp(directory.data()) == nullptr) {
    const int error = errno;
    return Status::Corruption("mkdtemp " + directory + ": " + ErrnoText(error));
  }
  std::unique_ptr<SpawnedServer> server(new SpawnedServer);
  server->directory = directory;
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    const int error = errno;
    return Status::Corruption("pipe: " + ErrnoText(error));
  }
  server->output = UniqueFd(ends[0]);
  UniqueFd output_end(ends[1]);
  const std::string port = std::to_string(FreePort());
  server->listen_address = "127.0.0.1:" + port;
  server->process =
      ForkAndExec(binary,
                  {"--bind_addr=127.0.0.1", "--port=" + port, "--data_dir=" + directory + "/state",
                   "--target_replicas=" + std::to_string(target_replicas)},
                  output_end);
  output_end.Reset();
  // The first line says that it listens.
  char byte = 0;
  int error = 0;
  while (server->process > 0 && byte != '\n') {
    if (ReadFully(server->output.get(), &byte, 1, &error) != 1) break;
  }
  if (byte != '\n') return Status::Corruption(binary + " did not start");
  *out = std::move(server);
  return {};
}

SpawnedServer::~SpawnedServer() {
  if (process > 0) {
    ::kill(process, SIGKILL);
    ::waitpid(process, nullptr, 0);
  }
  std::error_code ignored;  // a directory in the way of nobody
  std::filesystem::remove_all(directory, ignored);
}

double SpawnedServer::CpuSeconds() const {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text{std::istreambuf_iterator<char>(file), {}};
  // The name of the program stands in parentheses and may hold anything. Behind it come the fields
  // from the third on; the 14th and 15th are user and system time in clock ticks.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  const std::vector<std::string> values(std::istream_iterator<std::string>(fields), {});
  constexpr std::size_t kUserTime = 14 - 3;
  if (values.size() <= kUserTime + 1) return 0;
  const double ticks = std::stod(values[kUserTime]) + std::stod(values[kUserTime + 1]);
  return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

}  // namespace kandb::sim
