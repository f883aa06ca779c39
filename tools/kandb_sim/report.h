// The results of a run, and their report.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

#include "kandb_sim/callers.h"
#include "kandb_sim/options.h"

namespace kandb::sim {

struct Phase {
  std::uint64_t rounds = 0;
  std::uint64_t late_rounds = 0;  // took longer than the interval
  double seconds = 0;
};

// Rounds of heartbeats that followed one another without a pause.
struct Cost {
  std::uint64_t rounds = 0;
  double seconds = 0;
  std::optional<double> server_cpu_seconds;  // when it is the simulator's own server
};

struct Results {
  Phase set_up;  // the bootstrap, and the splits that make the regions
  Phase first_complete;
  Phase disturbed;
  Phase complete_again;

  std::vector<std::size_t> leaders_before;  // by store
  std::vector<std::size_t> leaders_after;

  // Of the three phases of rounds. Commands by kind.
  std::uint64_t heartbeats = 0;
  std::uint64_t entries = 0;
  std::uint64_t replica_ids = 0;  // asked about
  double heartbeat_seconds = 0;   // while heartbeats were being sent
  std::array<std::uint64_t, 6> commands_given{};
  std::array<std::uint64_t, 6> commands_done{};

  std::uint64_t interrupted_calls = 0;  // answered after more than one try

  // Checks.
  std::uint64_t lookups = 0;  // at rest, those of the walk included
  std::uint64_t lookups_during_changes = 0;
  std::atomic<std::uint64_t> missed_during_changes = 0;  // of these: "no region covers key"
  std::uint64_t timestamps = 0;
  std::uint64_t ids = 0;
  std::size_t regions_walked = 0;
  std::size_t region_count = 0;  // at the end

  // The cost of the cluster at rest: heartbeats that report nothing, then regions, then regions and
  // replicas; and the number of these in a round.
  std::array<Cost, 3> costs;
  std::uint64_t rest_entries = 0;
  std::uint64_t rest_replica_ids = 0;

  Latencies latencies;
};

// On standard output.
void PrintReport(const Options& options, const Results& results);

}  // namespace kandb::sim
