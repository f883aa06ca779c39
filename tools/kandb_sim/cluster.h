// The simulated cluster as its stores know it, with which the server's answers are compared.
// Regions split and merge, stores fail and return, commands are carried out. Changes are collected
// as the requests that report them to the server. Thread-compatible.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kandb_sim/options.h"
#include "pdpb/messages.h"

namespace kandb::sim {

using Random = std::mt19937_64;

// A number from 0 to end - 1, the same on every platform for the same seed, which the library's
// distributions do not guarantee. Slightly uneven, which does not matter here.
inline std::uint64_t Below(std::uint64_t end, Random* random) { return (*random)() % end; }

struct SimStore {
  pdpb::Store record;  // as registered; the address is empty while the store is down
  bool up = true;
  std::uint64_t return_round = 0;  // when it is down
  // Regions of which the store has a replica that their records do not list.
  std::set<std::uint64_t> stale;
};

struct SimRegion {
  pdpb::Region record;                // as reported by its leader, the first peer
  bool led = true;                    // false while too few of the voters are up to have a leader
  std::uint64_t caught_up_round = 0;  // when its learners have caught up
};

// Removes and returns the last one; there must be one.
std::uint64_t TakeId(std::vector<std::uint64_t>* ids);

std::string AddressOf(std::uint64_t store_id);

using RegionMap = std::map<std::string, SimRegion, std::less<>>;  // by start key

class Cluster {
 public:
  // `first_store` is the id of the first store, the others follow. The key space is divided evenly
  // among StartRegions regions, each with 1 to target + 1 members. Some stores lead many of them,
  // some none. Identifiers are taken from the end of `ids`, here and below, at most IdsPerRegion
  // for each new region.
  Cluster(const Options& run_options, std::uint64_t first_store, Random* random,
          std::vector<std::uint64_t>* ids);
  static std::size_t StartRegions(const Options& options);
  static std::size_t IdsPerRegion(const Options& options);

  // --- State ---

  const std::vector<SimStore>& all_stores() const { return stores; }
  const RegionMap& all_regions() const { return regions; }
  std::uint64_t round() const { return present_round; }
  std::uint32_t target_replicas() const { return options.target_replicas; }

  const SimStore& StoreOf(std::uint64_t store_id) const { return stores[NumberOf(store_id)]; }
  std::size_t NumberOf(std::uint64_t store_id) const { return store_id - first_store_id; }
  bool IsUp(std::uint64_t store_id) const { return StoreOf(store_id).up; }
  const SimRegion* Find(std::uint64_t region_id) const;  // null when there is none
  const SimRegion& Covering(std::string_view key) const;

  // Led, with the target number of members, all of them voters on stores that are up.
  bool IsComplete(const SimRegion& region) const;
  std::size_t CountComplete() const;
  // All regions are complete, all stores up, no stale replica is left.
  bool IsSettled() const;
  std::vector<std::size_t> LeadersPerStore() const;

  // The heartbeats of this round, for each store; `store_id` is 0 for one that is down.
  std::vector<pdpb::RegionHeartbeatRequest> Heartbeats() const;

  // --- Changes ---

  void BeginRound() { ++present_round; }

  // Divides the regions evenly, until there are as many as the options say.
  void Grow(std::vector<std::uint64_t>* ids);

  // Splits a region, or merges two neighbours that have the same stores, all up; may find none.
  void SplitOne(Random* random, std::vector<std::uint64_t>* ids);
  void MergeTwo(Random* random);

  // FailOne takes down a store, unless it is the last one up; ReturnStores brings back those whose
  // time has come. Both append the numbers of the stores. ElectLeaders must follow, once for both.
  void FailOne(Random* random, std::vector<std::size_t>* stores_changed);
  void ReturnStores(std::vector<std::size_t>* stores_changed);
  void ElectLeaders(Random* random);

  // Carries out a command for `reporter`. False when a change since the report has made it
  // impossible. `peer_id` is for a new peer.
  bool CarryOut(const pdpb::ScheduleCommand& command, std::uint64_t reporter,
                std::uint64_t peer_id);

  // The changes that have not been reported yet: a request for each store that leads a changed
  // region, by the store's number. Each change is returned once.
  std::map<std::size_t, pdpb::UpsertRegionRequest> TakeChanges();

 private:
  pdpb::RegionHeartbeatEntry Report(const SimRegion& region) const;
  void Add(SimRegion region);
  void SplitEvenly(SimRegion* region, std::uint64_t pieces, std::vector<std::uint64_t>* ids);
  bool CanMerge(const SimRegion& left, const SimRegion& right) const;
  const SimRegion& RandomRegion(Random* random) const;
  void Lead(SimRegion* region, std::size_t peer);

  const Options options;
  const std::uint64_t first_store_id;
  std::uint64_t present_round = 0;
  std::vector<SimStore> stores;
  RegionMap regions;  // their addresses are stable
  std::unordered_map<std::uint64_t, SimRegion*> by_id;
  std::set<std::uint64_t> changed;                 // regions
  std::map<std::uint64_t, std::uint64_t> removed;  // a region, and the one that has its keys now
};

}  // namespace kandb::sim
