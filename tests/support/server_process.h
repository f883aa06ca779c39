// The server (KANDB_META_BINARY) as a child process.
#pragma once

#include <memory>

#include "client/pd_client.h"
#include "rpc/rpc_server.h"
#include "tools/common/child_process.h"

namespace kandb::testing {

struct ServerProcess : tools::ChildProcess {
  explicit ServerProcess(const std::vector<std::string>& arguments, const std::string& cwd = ".",
                         const std::function<void()>& in_child = {},
                         const std::string& binary = KANDB_META_BINARY)
      : ChildProcess(binary, arguments, {cwd, true, in_child}) {}
};

// A server that listens on 127.0.0.1, with its state in `dir`/pd-data.
class ListeningServer {
 public:
  explicit ListeningServer(const std::string& dir, const std::function<void()>& in_child = {},
                           std::vector<std::string> arguments = {},
                           const std::string& binary = KANDB_META_BINARY) {
    arguments.insert(arguments.end(), {"--bind_addr=127.0.0.1", ""});
    // Another process may take the free port first.
    for (int attempt = 0; attempt < 10; ++attempt) {
      bound_port = tools::FreePort();
      arguments.back() = "--port=" + std::to_string(bound_port);
      process = std::make_unique<ServerProcess>(arguments, dir, in_child, binary);
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

// A connection of its own to a server on this machine: one attempt, with a time-out that only a
// server that hangs exceeds.
class Caller : public client::PdClient {
 public:
  explicit Caller(int port, const std::string& host = "127.0.0.1")
      : Caller(std::make_unique<kanrpc::RpcClient>(host + ":" + std::to_string(port),
                                                   kanrpc::RpcClientOptions{60000, 1})) {}

 private:
  explicit Caller(std::unique_ptr<kanrpc::RpcClient> client)
      : client::PdClient(client.get()), rpc(std::move(client)) {}
  std::unique_ptr<kanrpc::RpcClient> rpc;
};

}  // namespace kandb::testing
