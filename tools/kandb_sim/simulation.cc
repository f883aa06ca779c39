#include "kandb_sim/simulation.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tools/common/remote_failure.h"

namespace kandb::sim {

using client::PdClient;
using tools::RemoteFailure;
using tools::RemoteFailureOf;

namespace {

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

Simulation::Simulation(const Options& run_options, const std::string& server,
                       const SpawnedServer* own_server)
    : options(run_options),
      spawned(own_server),
      random(options.seed),
      callers(server, std::min(options.connection_count, options.store_count), options.thread_count,
              std::chrono::milliseconds(options.reconnect_ms),
              [this](std::size_t done, std::size_t all) { ShowProgress(done, all); }) {}

Status Simulation::Run() {
  phase_name = "setting up";
  const SteadyClock::time_point start = SteadyClock::now();
  if (Status s = SetUp(); !s.ok()) return s;
  seen.set_up.seconds = SecondsSince(start);
  seen.leaders_before = cluster->LeadersPerStore();
  phase_name = "completing regions";
  if (Status s = RunPhase(&seen.first_complete, false); !s.ok()) return s;
  phase_name = "disturbed";
  if (Status s = RunPhase(&seen.disturbed, true); !s.ok()) return s;
  phase_name = "completing regions again";
  if (Status s = RunPhase(&seen.complete_again, false); !s.ok()) return s;
  seen.leaders_after = cluster->LeadersPerStore();
  seen.region_count = cluster->all_regions().size();
  phase_name = "walking the key space";
  if (Status s = Walk(); !s.ok()) return s;
  seen.latencies = callers.TotalLatencies();
  seen.interrupted_calls = callers.interrupted_calls();
  phase_name = "measuring";
  return MeasureCosts();
}

Status Simulation::SetUp() {
  // A cluster that is in use must never be written to.
  const Status in_use = Status::InvalidArgument("the server has a cluster already");
  callers.Add(0, [&](Session* session) -> Status {
    pdpb::GetRegionResponse answer;
    const Status status = session->Call(&PdClient::GetRegion, {}, &answer);
    if (RemoteFailureOf(status) == RemoteFailure::kNotBootstrapped) return {};
    return status.ok() ? in_use : status;
  });
  if (Status s = callers.RunAll(); !s.ok()) return s;
  pdpb::AllocIdResponse store_ids;
  callers.Add(0, [&](Session* session) {
    return session->Call(&PdClient::AllocId, {options.store_count}, &store_ids);
  });
  if (Status s = callers.RunAll(); !s.ok()) return s;
  if (Status s = AddDisjoint("ids", store_ids.first_id, store_ids.count, &all_ids); !s.ok())
    return s;
  const std::size_t ids_per_region = Cluster::IdsPerRegion(options);
  if (Status s = GetIds(Cluster::StartRegions(options) * ids_per_region); !s.ok()) return s;
  cluster.emplace(options, store_ids.first_id, &random, &ids);

  pdpb::BootstrapRequest request;
  request.store = cluster->all_stores()[0].record;
  for (const auto& [start_key, region] : cluster->all_regions()) {
    request.extra_regions.push_back(region.record);
  }
  request.region = std::move(request.extra_regions.back());
  request.extra_regions.pop_back();
  callers.Add(0, [&](Session* session) -> Status {
    pdpb::BootstrapResponse answer;
    if (Status s = session->Call(&PdClient::Bootstrap, request, &answer); !s.ok()) return s;
    // A try without an answer may have made the cluster. The lookups tell whether it is another.
    return answer.already_bootstrapped && !session->was_interrupted() ? in_use : Status();
  });
  if (Status s = callers.RunAll(); !s.ok()) return s;
  std::vector<std::size_t> others;
  for (std::size_t i = 1; i < options.store_count; ++i) others.push_back(i);
  if (Status s = RegisterStores(others); !s.ok()) return s;

  if (Status s = GetIds((options.region_count - Cluster::StartRegions(options)) * ids_per_region);
      !s.ok()) {
    return s;
  }
  cluster->Grow(&ids);
  ids.clear();
  if (Status s = SendChanges(); !s.ok()) return s;
  return CheckServer();
}

// Disturbed rounds, or quiet ones until all is settled.
Status Simulation::RunPhase(Phase* phase, bool disturbed) {
  const SteadyClock::time_point start = SteadyClock::now();
  for (; disturbed ? phase->rounds < options.disturbed_rounds : !cluster->IsSettled();
       ++phase->rounds) {
    if (!disturbed && phase->rounds == options.quiet_rounds) {
      return Status::Corruption(std::to_string(cluster->CountComplete()) + " of " +
                                std::to_string(cluster->all_regions().size()) +
                                " regions are complete after " + std::to_string(phase->rounds) +
                                " quiet rounds, or else stale replicas are left");
    }
    if (Status s = RunRound(phase, disturbed); !s.ok()) return s;
  }
  phase->seconds = SecondsSince(start);
  return {};
}

void Simulation::ShowProgress(std::size_t done, std::size_t all) {
  const SteadyClock::time_point now = SteadyClock::now();
  if (now < next_progress) return;
  next_progress = now + std::chrono::seconds(1);
  std::string line = phase_name;
  if (cluster) {
    const auto& stores = cluster->all_stores();
    line += ": round " + std::to_string(cluster->round()) + ", " +
            std::to_string(std::ranges::count(stores, true, &SimStore::up)) + " of " +
            std::to_string(stores.size()) + " stores up, " +
            std::to_string(cluster->CountComplete()) + " of " +
            std::to_string(cluster->all_regions().size()) + " regions complete, " +
            std::to_string(seen.heartbeats) + " heartbeats";
  }
  if (all > 0) line += "; " + std::to_string(done) + " of " + std::to_string(all) + " tasks";
  // On a terminal each line replaces the one before.
  const bool terminal = ::isatty(STDERR_FILENO) == 1;
  std::fprintf(stderr, terminal ? "\r%s\033[K" : "%s\n", line.c_str());
}

}  // namespace kandb::sim
