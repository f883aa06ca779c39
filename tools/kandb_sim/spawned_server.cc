#include "kandb_sim/spawned_server.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "common/posix_file.h"

namespace kandb::sim {

Status SpawnedServer::Start(const std::string& binary, std::uint32_t target_replicas,
                            std::unique_ptr<SpawnedServer>* out) {
  std::string directory = (std::filesystem::temp_directory_path() / "kandb-sim-XXXXXX").string();
  if (::mkdtemp(directory.data()) == nullptr) {
    const int error = errno;
    return Status::Corruption("mkdtemp " + directory + ": " + ErrnoText(error));
  }
  std::unique_ptr<SpawnedServer> server(new SpawnedServer);
  server->directory = directory;
  const std::string port = std::to_string(tools::FreePort());
  server->listen_address = "127.0.0.1:" + port;
  const std::vector<std::string> arguments = {
      "--bind_addr=127.0.0.1", "--port=" + port, "--data_dir=" + directory + "/state",
      "--target_replicas=" + std::to_string(target_replicas)};
  server->process.emplace(binary, arguments, tools::ChildProcess::Options());
  if (!server->process->ReadBanner().ends_with('\n')) {
    return Status::Corruption(binary + " did not start");
  }
  *out = std::move(server);
  return {};
}

SpawnedServer::~SpawnedServer() {
  process.reset();          // it writes to the directory
  std::error_code ignored;  // a temporary directory that is left is in nobody's way
  std::filesystem::remove_all(directory, ignored);
}

double SpawnedServer::CpuSeconds() const {
  std::ifstream file("/proc/" + std::to_string(process->pid()) + "/stat");
  std::string text{std::istreambuf_iterator<char>(file), {}};
  // The program's name, in parentheses, may contain any byte. After it come the fields from the
  // third on; the 14th and 15th are user and system time in clock ticks.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  const std::vector<std::string> values(std::istream_iterator<std::string>(fields), {});
  constexpr std::size_t kUserTime = 14 - 3;
  if (values.size() <= kUserTime + 1) return 0;
  const double ticks = std::stod(values[kUserTime]) + std::stod(values[kUserTime + 1]);
  return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

}  // namespace kandb::sim
