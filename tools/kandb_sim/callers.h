// The connections of the simulated stores. Each store has its own, or shares one when there are
// fewer; a few threads drive them all.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "client/pd_client.h"
#include "tools/common/latency_histogram.h"

namespace kandb::sim {

// The request type of each method: latencies are kept by method.
using Requests =
    std::tuple<pdpb::TsoRequest, pdpb::AllocIdRequest, pdpb::BootstrapRequest,
               pdpb::GetRegionRequest, pdpb::UpsertRegionRequest, pdpb::RegionHeartbeatRequest>;
inline constexpr const char* kMethodNames[] = {"Tso",       "AllocId",      "Bootstrap",
                                               "GetRegion", "UpsertRegion", "RegionHeartbeat"};
using Latencies = std::array<tools::LatencyHistogram, std::tuple_size_v<Requests>>;

// Calls over one connection and measures the latencies. Used by one thread at a time.
class Session {
 public:
  Session(client::PdClient* client, Latencies* measured) : pd(client), latencies(measured) {}

  // Calls the method of PdClient. A failure begins with the method's name.
  template <class Request, class Response>
  Status Call(Status (client::PdClient::*method)(const Request&, Response*),
              const std::type_identity_t<Request>& request, Response* answer) {
    constexpr std::size_t kMethod = IndexOf<Request>();
    const auto start = std::chrono::steady_clock::now();
    const Status status = (pd->*method)(request, answer);
    const std::chrono::nanoseconds latency = std::chrono::steady_clock::now() - start;
    if (!status.ok()) {
      return {status.code(), std::string(kMethodNames[kMethod]) + ": " + status.message()};
    }
    (*latencies)[kMethod].Add(static_cast<std::uint64_t>(latency.count()));
    return {};
  }

 private:
  template <class Request, std::size_t kIndex = 0>
  static constexpr std::size_t IndexOf() {
    if constexpr (std::is_same_v<Request, std::tuple_element_t<kIndex, Requests>>)
      return kIndex;
    else
      return IndexOf<Request, kIndex + 1>();
  }

  client::PdClient* pd;
  Latencies* latencies;
};

class Callers {
 public:
  using Task = std::function<Status(Session*)>;

  // `tick` is called about once a second while calls run, with the tasks done and all tasks.
  using Tick = std::function<void(std::size_t done, std::size_t all)>;

  // Connects with the first calls. Each call is tried once, so that no failure is hidden.
  Callers(const std::string& server, std::size_t connection_count, std::size_t threads, Tick tick);

  // A task for the connection of store number `store`. Not while tasks run.
  void Add(std::size_t store, Task task);

  // Runs all tasks that were added: those of one connection in order, connections in parallel. When
  // one fails, those that have not begun are dropped and its failure is returned.
  Status RunAll();

  Latencies TotalLatencies() const;

 private:
  struct Connection {
    explicit Connection(const std::string& server);

    kanrpc::RpcClient rpc;
    client::PdClient pd;
    std::vector<Task> tasks;
  };

  // Works through the connections from `*next` on.
  Status RunThread(Latencies* measured, std::atomic<std::size_t>* next);

  const Tick on_tick;
  std::vector<std::unique_ptr<Connection>> connections;
  std::vector<Latencies> latencies;  // of each thread
  std::size_t task_count = 0;
  // Relaxed: the count orders no other memory.
  std::atomic<std::size_t> done_count = 0;
};

}  // namespace kandb::sim
