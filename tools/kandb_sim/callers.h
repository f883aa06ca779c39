// The connections of the simulated stores. Each store has its own, or shares one when there are
// fewer; a few threads drive them all.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

#include "client/pd_client.h"
#include "tools/common/latency_histogram.h"
#include "tools/common/remote_failure.h"

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
  Session(client::PdClient* client, Latencies* measured, std::chrono::milliseconds reconnect_time)
      : pd(client), latencies(measured), reconnect(reconnect_time) {}

  // Calls the method of PdClient. A failure begins with the method's name.
  //
  // While no answer comes the call is tried again, for the reconnect time from its start on. Every
  // method allows that: numbers that were handed out by a lost answer stay unused, and a record is
  // written twice. Records of a change may be overtaken by newer ones, but not here: no region is
  // in two requests of a step, a step ends before the next begins, and a server that was killed
  // carries out nothing later.
  template <class Request, class Response>
  Status Call(Status (client::PdClient::*method)(const Request&, Response*),
              const std::type_identity_t<Request>& request, Response* answer) {
    constexpr std::size_t kMethod = IndexOf<Request>();
    const auto start = std::chrono::steady_clock::now();
    Status status = (pd->*method)(request, answer);
    interrupted = tools::IsUnanswered(status);
    while (tools::IsUnanswered(status) && std::chrono::steady_clock::now() - start < reconnect) {
      std::this_thread::sleep_for(kPause);
      status = (pd->*method)(request, answer);
    }
    const std::chrono::nanoseconds latency = std::chrono::steady_clock::now() - start;
    if (!status.ok()) {
      return {status.code(), std::string(kMethodNames[kMethod]) + ": " + status.message()};
    }
    (*latencies)[kMethod].Add(static_cast<std::uint64_t>(latency.count()));
    interrupted_count += interrupted ? 1 : 0;
    return {};
  }

  // Whether the last call was tried more than once: then an earlier try may have had its effect.
  bool was_interrupted() const { return interrupted; }
  std::uint64_t interrupted_calls() const { return interrupted_count; }

 private:
  static constexpr std::chrono::milliseconds kPause{20};

  template <class Request, std::size_t kIndex = 0>
  static constexpr std::size_t IndexOf() {
    if constexpr (std::is_same_v<Request, std::tuple_element_t<kIndex, Requests>>)
      return kIndex;
    else
      return IndexOf<Request, kIndex + 1>();
  }

  client::PdClient* pd;
  Latencies* latencies;
  const std::chrono::milliseconds reconnect;
  bool interrupted = false;
  std::uint64_t interrupted_count = 0;
};

class Callers {
 public:
  using Task = std::function<Status(Session*)>;

  // `tick` is called about once a second while calls run, with the tasks done and all tasks.
  using Tick = std::function<void(std::size_t done, std::size_t all)>;

  // Connects with the first calls. Without a reconnect time each call is tried once, so that no
  // failure is hidden.
  Callers(const std::string& server, std::size_t connection_count, std::size_t threads,
          std::chrono::milliseconds reconnect_time, Tick tick);

  // A task for the connection of store number `store`. Not while tasks run.
  void Add(std::size_t store, Task task);

  // Runs all tasks that were added: those of one connection in order, connections in parallel. When
  // one fails, those that have not begun are dropped and its failure is returned.
  Status RunAll();

  Latencies TotalLatencies() const;

  // Calls that were tried more than once before they were answered. Not while tasks run.
  std::uint64_t interrupted_calls() const { return interrupted_count; }

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
  const std::chrono::milliseconds reconnect;
  std::vector<std::unique_ptr<Connection>> connections;
  std::vector<Latencies> latencies;  // of each thread
  std::size_t task_count = 0;
  // Relaxed: the counts order no other memory.
  std::atomic<std::size_t> done_count = 0;
  std::atomic<std::uint64_t> interrupted_count = 0;
};

}  // namespace kandb::sim
