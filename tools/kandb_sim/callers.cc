#include "kandb_sim/callers.h"

#include <chrono>
#include <future>
#include <utility>

namespace kandb::sim {

namespace {

constexpr std::int32_t kTimeoutMs = 60000;

}  // namespace

Callers::Connection::Connection(const std::string& server)
    : rpc(server, {.timeout_ms = kTimeoutMs, .attempts = 1}), pd(&rpc) {}

Callers::Callers(const std::string& server, std::size_t connection_count, std::size_t threads,
                 std::chrono::milliseconds reconnect_time, Tick tick)
    : on_tick(std::move(tick)), reconnect(reconnect_time), latencies(threads) {
  for (std::size_t i = 0; i < connection_count; ++i) {
    connections.push_back(std::make_unique<Connection>(server));
  }
}

void Callers::Add(std::size_t store, Task task) {
  connections[store % connections.size()]->tasks.push_back(std::move(task));
  ++task_count;
}

Status Callers::RunAll() {
  std::atomic<std::size_t> next = 0;
  std::vector<std::future<Status>> running;
  for (Latencies& measured : latencies) {
    running.push_back(std::async(std::launch::async, [&] { return RunThread(&measured, &next); }));
  }
  Status first_failure;
  for (std::future<Status>& one : running) {
    while (one.wait_for(std::chrono::seconds(1)) != std::future_status::ready) {
      on_tick(done_count.load(std::memory_order_relaxed), task_count);
    }
    if (Status s = one.get(); !s.ok() && first_failure.ok()) first_failure = std::move(s);
  }
  for (const auto& connection : connections) connection->tasks.clear();
  task_count = 0;
  done_count.store(0, std::memory_order_relaxed);
  return first_failure;
}

Status Callers::RunThread(Latencies* measured, std::atomic<std::size_t>* next) {
  for (;;) {
    const std::size_t index = next->fetch_add(1, std::memory_order_relaxed);
    if (index >= connections.size()) return {};
    Session session(&connections[index]->pd, measured, reconnect);
    for (const Task& task : connections[index]->tasks) {
      if (Status s = task(&session); !s.ok()) {
        next->store(connections.size(), std::memory_order_relaxed);  // nothing left for others
        return s;
      }
      done_count.fetch_add(1, std::memory_order_relaxed);
    }
    interrupted_count.fetch_add(session.interrupted_calls(), std::memory_order_relaxed);
  }
}

Latencies Callers::TotalLatencies() const {
  Latencies total;
  for (const Latencies& of_thread : latencies) {
    for (std::size_t i = 0; i < total.size(); ++i) total[i].Merge(of_thread[i]);
  }
  return total;
}

}  // namespace kandb::sim
