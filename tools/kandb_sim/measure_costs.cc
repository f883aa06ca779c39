// Measures what the heartbeats of the cluster at rest cost the server, in three kinds of rounds,
// which separate the cost of a heartbeat, of a region and of a replica in it.

#include "kandb_sim/simulation.h"

namespace kandb::sim {

using client::PdClient;

Status Simulation::MeasureCosts() {
  const std::vector<pdpb::RegionHeartbeatRequest> full = cluster->Heartbeats();
  std::vector<pdpb::RegionHeartbeatRequest> requests = full;
  for (pdpb::RegionHeartbeatRequest& request : requests) {
    seen.rest_entries += request.regions.size();
    seen.rest_replica_ids += request.region_ids.size();
    request.regions.clear();
    request.region_ids.clear();
  }
  for (std::size_t kind = 0; kind < seen.costs.size(); ++kind) {
    for (std::size_t i = 0; i < requests.size(); ++i) {
      if (kind == 1) requests[i].regions = full[i].regions;
      if (kind == 2) requests[i].region_ids = full[i].region_ids;
    }
    Cost* cost = &seen.costs[kind];
    const double cpu_before = spawned == nullptr ? 0 : spawned->CpuSeconds();
    const SteadyClock::time_point start = SteadyClock::now();
    const SteadyClock::time_point deadline = start + std::chrono::milliseconds(options.measure_ms);
    for (; cost->rounds == 0 || SteadyClock::now() < deadline; ++cost->rounds) {
      for (std::size_t i = 0; i < requests.size(); ++i) {
        callers.Add(i, [&request = requests[i]](Session* session) {
          pdpb::RegionHeartbeatResponse answer;  // nothing is carried out: the cluster is at rest
          return session->Call(&PdClient::RegionHeartbeat, request, &answer);
        });
      }
      if (Status s = callers.RunAll(); !s.ok()) return s;
    }
    cost->seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
    if (spawned != nullptr) cost->server_cpu_seconds = spawned->CpuSeconds() - cpu_before;
  }
  return {};
}

}  // namespace kandb::sim
