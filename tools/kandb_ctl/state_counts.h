// The state of a running server in numbers: its regions by condition, and what lies on each store.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "common/status.h"
#include "kandb_ctl/state_directory.h"

namespace kandb::ctl {

// What the records say of a region: the first of these that holds.
enum class RegionCondition : std::uint8_t {
  kNoPeers,       // and so no leader
  kUnknownStore,  // a peer is on a store without a record
  kLearner,       // a replica is being added
  kFewerVoters,   // than wanted
  kMoreVoters,
  kHealthy,
};
inline constexpr std::array<std::pair<RegionCondition, const char*>, 6> kRegionConditions = {
    {{RegionCondition::kNoPeers, "no_peers"},
     {RegionCondition::kUnknownStore, "unknown_store"},
     {RegionCondition::kLearner, "learner"},
     {RegionCondition::kFewerVoters, "fewer_voters"},
     {RegionCondition::kMoreVoters, "more_voters"},
     {RegionCondition::kHealthy, "healthy"}}};

struct StateCounts {
  struct OnStore {
    pdpb::Store store;
    std::uint64_t replicas = 0;
    std::uint64_t leaders = 0;  // regions whose first peer is on it, which counts as the leader
  };

  std::chrono::steady_clock::time_point read_at;  // when that began
  std::chrono::duration<double> read_time{};
  std::size_t findings = 0;  // how many `state verify` has
  std::uint64_t id_mark = 0;
  std::size_t regions = 0;
  std::map<RegionCondition, std::uint64_t> by_condition;  // all of them
  std::vector<OnStore> stores;                            // by id
};

// How many stores are listed one by one, where each would be a line or a series of measurements.
inline constexpr std::size_t kMaxStoresListed = 1000;

// `wanted_voters` is how many a region must have; 0 for as many as most regions without another
// fault have.
StateCounts CountState(const ClusterState& cluster, std::size_t wanted_voters);

// Reads and verifies the whole directory, of a running server or of a stopped one. A million
// regions take a second and 100 MB. Fails when records cannot be read.
Status ReadStateCounts(const std::string& data_dir, std::size_t wanted_voters, StateCounts* counts);

}  // namespace kandb::ctl
