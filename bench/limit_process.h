// Servers that do less than the real one and are therefore its limits, each in a process of its
// own, with a thread for each connection.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "cluster_load.h"
#include "common/posix_file.h"

namespace kandb::bench {

class LimitProcess {
 public:
  using Serve = std::function<void(UniqueFd connection)>;

  // `start` runs in the new process and returns what serves a connection. Before this process
  // starts its first thread.
  explicit LimitProcess(const std::function<Serve()>& start);
  ~LimitProcess();
  LimitProcess(const LimitProcess&) = delete;
  LimitProcess& operator=(const LimitProcess&) = delete;

  int port() const { return listen_port; }
  pid_t pid() const { return child; }

 private:
  int listen_port = 0;
  pid_t child = -1;
};

// Receives messages of one size and answers with messages of another, with one recv and one send
// each: the limit of every method.
struct EchoProcess : LimitProcess {
  // A client sends this first.
  struct Sizes {
    std::uint32_t request;   // bytes, at least 1
    std::uint32_t response;  // bytes
  };

  EchoProcess();

  // What moves as many bytes as a request and its answer.
  Exchange MakeExchange(const Sizes& sizes) const;
};

// Reads the server's frames, appends the payload of each to a log, with one write a record and one
// fdatasync a group, and answers: the limit of a durable change. It knows no messages, and has no
// store: the group forms under a mutex with a condition variable (see raw_log_contestant.cc).
class GroupCommitProcess {
 public:
  int port() const { return process.port(); }
  pid_t pid() const { return process.pid(); }

 private:
  LimitProcess::Serve Start() const;

  const testing::TempDir directory;
  const LimitProcess process{[this] { return Start(); }};
};

}  // namespace kandb::bench
