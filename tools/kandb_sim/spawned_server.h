// A server of the simulator's own: a child process on a free port, with a temporary state
// directory.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "common/posix_file.h"
#include "common/status.h"

namespace kandb::sim {

class SpawnedServer {
 public:
  // Starts `binary` and waits until it listens. Fails when it ends instead; what it had to say is
  // then on standard error.
  static Status Start(const std::string& binary, std::uint32_t target_replicas,
                      std::unique_ptr<SpawnedServer>* out);

  // Kills the process and removes its directory.
  ~SpawnedServer();
  SpawnedServer(const SpawnedServer&) = delete;
  SpawnedServer& operator=(const SpawnedServer&) = delete;

  const std::string& address() const { return listen_address; }  // HOST:PORT

  // Processor time used so far, user and system, of all its threads.
  double CpuSeconds() const;

 private:
  SpawnedServer() = default;

  std::string directory;
  std::string listen_address;
  pid_t process = -1;
  UniqueFd output;  // its standard output
};

}  // namespace kandb::sim
