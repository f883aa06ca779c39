// The simulated cluster as its stores know it: the truth that the server's answers are compared
// with. Regions split and merge, stores fail and return, commands are carried out; what has changed
// is collected as the requests that report it to the server. Thread-compatible.
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

// A number from 0 to end - 1, the same everywhere for the same seed, which the library's
// distributions do not promise. Slightly uneven, which does not matter here.
inline std::uint64_t Below(std::uint64_t end, Random* random) { return (*random)() % end; }

struct SimStore {
  pdpb::Store record;  // as registered; the address is empty while the store is down
  bool up = true;
  std::uint64_t return_round = 0;  // when it is down
  // Regions of which it still holds a replica that their records do not list.
  std::set<std::uint64_t> stale;
};

struct SimRegion {
  pdpb::Region record;                // as its leader reports it, who stands first among the peers
  bool led = true;                    // false while too few of the voters are up to have a leader
  std::uint64_t caught_up_round = 0;  // when its learners have caught up
};

// Takes one from the end, where there is one.
std::uint64_t TakeId(std::vector<std::uint64_t>* ids);

std::string AddressOf(std::uint64_t store_id);

using RegionMap = std::map<std::string, SimRegion, std::less<>>;  // by start key

class Cluster {
 public:
  // `first_store` is the id of the first store, the others follow. The key space is divided evenly
  // among StartRegions regions, each with one member to one more than the target. Some stores lead
  // many of them, some none. Identifiers are taken from the end of `ids`, here and below, for each
  // new region at most IdsPerRegion.
  Cluster(const Options& run_options, std::uint64_t first_store, Random* random,
          std::vector<std::uint64_t>* ids);
  static std::size_t StartRegions(const Options& options);
  static std::size_t IdsPerRegion(const Options& options);

  // --- What it is like ---

  const std::vector<SimStore>& all_stores() const { return stores; }
  const RegionMap& all_regions() const { return regions; }
  std::uint64_t round() const { return present_round; }
  std::uint32_t target_replicas() const { return options.target_replicas; }

  const SimStore& StoreOf(std::uint64_t store_id) const { return stores[NumberOf(store_id)]; }
  std::size_t NumberOf(std::uint64_t store_id) const { return store_id - first_store_id; }
  bool IsUp(std::uint64_t store_id) const { return StoreOf(store_id).up; }
  const SimRegion* Find(std::uint64_t region_id) const;  // null when there is none
  const SimRegion& Covering(std::string_view key) const;

  // Led, with as many members as the server aims for, all of them voters on stores that are up.
  bool IsComplete(const SimRegion& region) const;
  std::size_t CountComplete() const;
  // All regions are complete, all stores up, no stale replica is left.
  bool IsSettled() const;
  std::vector<std::size_t> LeadersPerStore() const;

  // The heartbeats of this round, for each store; `store_id` is 0 for one that is down.
  std::vector<pdpb::RegionHeartbeatRequest> Heartbeats() const;

  // --- What happens ---

  void BeginRound() { ++present_round; }

  // Divides every region evenly, until there are as many as the options say.
  void Grow(std::vector<std::uint64_t>* ids);

  // Splits a region, or merges two neighbours that have the same stores, all up; may find none.
  void SplitOne(Random* random, std::vector<std::uint64_t>* ids);
  void MergeTwo(Random* random);

  // Takes down a store, unless it is the last one up, or brings back those whose time has come; to
  // be followed by ElectLeaders, once. They add the numbers of the stores.
  void FailOne(Random* random, std::vector<std::size_t>* stores_changed);
  void ReturnStores(std::vector<std::size_t>* stores_changed);
  void ElectLeaders(Random* random);

  // Carries out a command for `reporter`. False when it cannot be any more, because of what
  // happened since the report. `peer_id` is for a new peer.
  bool CarryOut(const pdpb::ScheduleCommand& command, std::uint64_t reporter,
                std::uint64_t peer_id);

  // What the server has not been told: a request for each store that leads a changed region, by
  // the store's number. Taken once.
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
  RegionMap regions;  // which stay where they are
  std::unordered_map<std::uint64_t, SimRegion*> by_id;
  std::set<std::uint64_t> changed;                 // regions
  std::map<std::uint64_t, std::uint64_t> removed;  // a region, and the one that it was merged into
};

}  // namespace kandb::sim
