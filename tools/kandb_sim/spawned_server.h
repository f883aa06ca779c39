// The simulator's own server: a child process on a free port, with a temporary state directory.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "common/status.h"
#include "tools/common/child_process.h"

namespace kandb::sim {

class SpawnedServer {
 public:
  // Starts `binary` and waits until it listens. Corruption when it ends instead; it has then said
  // why on standard error.
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
  std::optional<tools::ChildProcess> process;
};

}  // namespace kandb::sim
