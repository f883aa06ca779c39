// A run: rounds in which the simulated stores report to the server and carry out its commands.
// Between the steps of a round no request is under way, so that the server's answers can be
// compared exactly with the reports.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/status.h"
#include "kandb_sim/callers.h"
#include "kandb_sim/cluster.h"
#include "kandb_sim/invariants.h"
#include "kandb_sim/options.h"
#include "kandb_sim/report.h"
#include "kandb_sim/spawned_server.h"

namespace kandb::sim {

class Simulation {
 public:
  // `own_server` is borrowed, null when the server is not the simulator's own.
  Simulation(const Options& run_options, const std::string& server,
             const SpawnedServer* own_server);

  // The whole run, once. Fails when a call fails or an invariant breaks.
  Status Run();

  const Results& results() const { return seen; }

 private:
  using SteadyClock = std::chrono::steady_clock;

  // The phases: simulation.cc, and the last two in server_checks.cc and measure_costs.cc.
  Status SetUp();
  Status RunPhase(Phase* phase, bool disturbed);
  Status Walk();
  Status MeasureCosts();

  // Rounds: rounds.cc.
  Status RunRound(Phase* phase, bool disturbed);
  Status ChangeStores(bool disturbed);
  Status ChangeRanges();
  Status SendHeartbeats();
  Status CarryOut(const std::vector<pdpb::RegionHeartbeatRequest>& reports,
                  const std::vector<pdpb::RegionHeartbeatResponse>& answers);
  // Reports the changes, with lookups in parallel.
  Status SendChanges();
  Status RegisterStores(const std::vector<std::size_t>& numbers);
  // Gets identifiers until `ids` has at least `wanted`.
  Status GetIds(std::size_t wanted);
  std::size_t RandomUpStore();

  // Checks of the server's answers while nothing else is under way: server_checks.cc.
  Status CheckServer();
  Status CheckTimestamps();
  void AddLookup(bool at_rest);
  std::string RandomKey();

  void ShowProgress(std::size_t done, std::size_t all);

  const Options options;
  const SpawnedServer* const spawned;
  Random random;
  Callers callers;
  std::optional<Cluster> cluster;  // from SetUp on
  std::vector<std::uint64_t> ids;  // from the server, not used yet
  tools::DisjointRanges all_ids;
  std::uint64_t timestamps_end = 0;  // above all timestamps of earlier rounds
  std::uint64_t walked_after = 0;    // interrupted calls
  const char* phase_name = "";
  SteadyClock::time_point next_progress;
  Results seen;
};

}  // namespace kandb::sim
