// The server (KANDB_META_BINARY) as a child process.
#pragma once

#include <memory>

#include "client/pd_client.h"
#include "rpc/rpc_server.h"
#include "support/child_process.h"

namespace kandb::testing {

struct ServerProcess : ChildProcess {
  explicit ServerProcess(const std::vector<std::string>& arguments, const std::string& cwd = ".",
                         const std::function<void()>& in_child = {})
      : ChildProcess(KANDB_META_BINARY, arguments, cwd, in_child) {}
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
  explicit Caller(int port, const std::string& host = "127.0.0.1")
      : Caller(std::make_unique<kanrpc::RpcClient>(host + ":" + std::to_string(port),
                                                   kanrpc::RpcClientOptions{60000, 1})) {}

 private:
  explicit Caller(std::unique_ptr<kanrpc::RpcClient> client)
      : client::PdClient(client.get()), rpc(std::move(client)) {}
  std::unique_ptr<kanrpc::RpcClient> rpc;
};

}  // namespace kandb::testing
