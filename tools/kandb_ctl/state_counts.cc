#include "kandb_ctl/state_counts.h"

#include <algorithm>

#include "kandb_ctl/cluster_check.h"
#include "kandb_ctl/state_capture.h"
#include "kandb_ctl/verify_directory.h"

namespace kandb::ctl {

namespace {

using OnStore = StateCounts::OnStore;

class Counter {
 public:
  explicit Counter(std::vector<OnStore>* on_stores) : stores(on_stores) {}

  // The condition as far as the number of voters does not matter: else kHealthy.
  RegionCondition Count(const pdpb::Region& region) {
    bool known = true;
    bool learner = false;
    for (const pdpb::Peer& peer : region.peers) {
      OnStore* store = Find(peer.store_id);
      learner = learner || peer.role != pdpb::PeerRole::kVoter;
      known = known && store != nullptr;
      if (store == nullptr) continue;
      ++store->replicas;
      if (&peer == &region.peers.front()) ++store->leaders;
    }
    if (region.peers.empty()) return RegionCondition::kNoPeers;
    if (!known) return RegionCondition::kUnknownStore;
    return learner ? RegionCondition::kLearner : RegionCondition::kHealthy;
  }

 private:
  OnStore* Find(std::uint64_t store_id) {
    const auto id_of = [](const OnStore& at) { return at.store.id; };
    const auto found = std::ranges::lower_bound(*stores, store_id, {}, id_of);
    return found != stores->end() && found->store.id == store_id ? &*found : nullptr;
  }

  std::vector<OnStore>* const stores;
};

}  // namespace

StateCounts CountState(const ClusterState& cluster, std::size_t wanted_voters) {
  StateCounts counts;
  counts.id_mark = NextId(cluster);
  counts.regions = cluster.regions.size();
  for (const pdpb::Store& store : cluster.stores) counts.stores.push_back({store, 0, 0});
  std::ranges::sort(counts.stores, {}, [](const OnStore& at) { return at.store.id; });

  for (const auto& [condition, name] : kRegionConditions) counts.by_condition[condition] = 0;
  std::map<std::size_t, std::uint64_t> by_voters;
  Counter counter(&counts.stores);
  for (const pdpb::Region& region : cluster.regions) {
    const RegionCondition condition = counter.Count(region);
    if (condition == RegionCondition::kHealthy) {
      ++by_voters[region.peers.size()];
    } else {
      ++counts.by_condition[condition];
    }
  }
  if (wanted_voters == 0 && !by_voters.empty()) {
    // Of numbers that are equally frequent the greater one.
    const auto rank = [](const auto& at) { return std::pair(at.second, at.first); };
    wanted_voters = std::ranges::max_element(by_voters, {}, rank)->first;
  }
  for (const auto& [voters, count] : by_voters) {
    counts.by_condition[voters < wanted_voters   ? RegionCondition::kFewerVoters
                        : voters > wanted_voters ? RegionCondition::kMoreVoters
                                                 : RegionCondition::kHealthy] += count;
  }
  return counts;
}

Status ReadStateCounts(const std::string& data_dir, std::size_t wanted_voters,
                       StateCounts* counts) {
  const auto start = std::chrono::steady_clock::now();
  if (Status s = RequireState(data_dir); !s.ok()) return s;
  ReadableDirectory dir;
  if (Status s = dir.Open(data_dir, true); !s.ok()) return s;
  // The server seals no values.
  const Verified verified = VerifyDirectory(dir.path(), {}, [](double) {});
  if (!verified.has_records) {
    return Status::Corruption("a server could not start on " + data_dir +
                              ": kandb-ctl state verify --live says why");
  }
  *counts = CountState(verified.cluster, wanted_voters);
  counts->findings = verified.findings.size();
  counts->read_at = start;
  counts->read_time = std::chrono::steady_clock::now() - start;
  return {};
}

}  // namespace kandb::ctl
