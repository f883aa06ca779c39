#include "kandb_sim/cluster.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "kandb_sim/key_space.h"

namespace kandb::sim {

using pdpb::Peer;
using pdpb::PeerRole;

std::uint64_t TakeId(std::vector<std::uint64_t>* ids) {
  assert(!ids->empty());
  const std::uint64_t id = ids->back();
  ids->pop_back();
  return id;
}

std::string AddressOf(std::uint64_t store_id) {
  return "store-" + std::to_string(store_id) + ".example:20160";
}

std::size_t Cluster::StartRegions(const Options& options) {
  return std::min(options.store_count, options.region_count);
}

// The ids of a region and its members: at the start one member more than the target, later the
// target and one for each store that is down.
std::size_t Cluster::IdsPerRegion(const Options& options) {
  return 1 + options.target_replicas + 1 + options.failures;
}

Cluster::Cluster(const Options& run_options, std::uint64_t first_store, Random* random,
                 std::vector<std::uint64_t>* ids)
    : options(run_options), first_store_id(first_store) {
  const std::uint64_t store_count = options.store_count;
  for (std::uint64_t id = first_store; id < first_store + store_count; ++id) {
    stores.push_back({.record = {id, AddressOf(id), 0}, .stale = {}});
  }
  const std::uint64_t start_count = StartRegions(options);
  for (std::uint64_t i = 0; i < start_count; ++i) {
    pdpb::Region record = {TakeId(ids), KeyAt(kPositionEnd / start_count * i), "", {1, 1}, {}};
    if (i + 1 < start_count) record.end_key = KeyAt(kPositionEnd / start_count * (i + 1));
    // The smaller of two numbers: the first stores lead more regions.
    const std::uint64_t leader = std::min(Below(store_count, random), Below(store_count, random));
    record.peers.push_back({TakeId(ids), first_store + leader, PeerRole::kVoter});
    const std::uint64_t wanted = 1 + Below(options.target_replicas + 1, random);
    while (record.peers.size() < std::min(wanted, store_count)) {
      const std::uint64_t store_id = first_store + Below(store_count, random);
      if (std::ranges::find(record.peers, store_id, &Peer::store_id) != record.peers.end())
        continue;
      record.peers.push_back({TakeId(ids), store_id, PeerRole::kVoter});
    }
    Add({.record = std::move(record)});
  }
  changed.clear();  // the bootstrap reports these
}

const SimRegion* Cluster::Find(std::uint64_t region_id) const {
  const auto found = by_id.find(region_id);
  return found == by_id.end() ? nullptr : found->second;
}

const SimRegion& Cluster::Covering(std::string_view key) const {
  return std::prev(regions.upper_bound(key))->second;
}

const SimRegion& Cluster::RandomRegion(Random* random) const {
  return Covering(KeyAt(Below(kPositionEnd, random)));
}

bool Cluster::IsComplete(const SimRegion& region) const {
  return region.led && region.record.peers.size() == options.target_replicas &&
         std::ranges::all_of(region.record.peers, [&](const Peer& peer) {
           return peer.role == PeerRole::kVoter && IsUp(peer.store_id);
         });
}

std::size_t Cluster::CountComplete() const {
  return static_cast<std::size_t>(
      std::ranges::count_if(regions, [&](const auto& entry) { return IsComplete(entry.second); }));
}

bool Cluster::IsSettled() const {
  return CountComplete() == regions.size() &&
         std::ranges::all_of(stores,
                             [](const SimStore& store) { return store.up && store.stale.empty(); });
}

std::vector<std::size_t> Cluster::LeadersPerStore() const {
  std::vector<std::size_t> counts(stores.size(), 0);
  for (const auto& [start_key, region] : regions) {
    if (region.led) ++counts[NumberOf(region.record.peers[0].store_id)];
  }
  return counts;
}

// Members on stores that are down are left out until the region has enough others, so that the
// server adds some. From then on they are the candidates, for removal. Otherwise every other live
// voter is a candidate, for leadership.
pdpb::RegionHeartbeatEntry Cluster::Report(const SimRegion& region) const {
  pdpb::RegionHeartbeatEntry entry;
  entry.region_id = region.record.id;
  const auto live = [&](const Peer& peer) { return IsUp(peer.store_id); };
  const std::vector<Peer>& peers = region.record.peers;
  const auto live_count = static_cast<std::size_t>(std::ranges::count_if(peers, live));
  const bool enough = live_count >= options.target_replicas;
  const bool remove_dead = enough && live_count < peers.size();
  for (const Peer& peer : peers) {
    if (live(peer) || enough) entry.member_store_ids.push_back(peer.store_id);
    const bool learner = peer.role == PeerRole::kLearner;
    if (learner && live(peer) && present_round >= region.caught_up_round) {
      entry.caught_up_learner_store_ids.push_back(peer.store_id);
    }
    const bool may_lead = live(peer) && !learner && &peer != &peers.front();
    if (remove_dead ? !live(peer) : may_lead) entry.candidate_store_ids.push_back(peer.store_id);
  }
  return entry;
}

std::vector<pdpb::RegionHeartbeatRequest> Cluster::Heartbeats() const {
  std::vector<pdpb::RegionHeartbeatRequest> requests(stores.size());
  for (const auto& [start_key, region] : regions) {
    for (const Peer& peer : region.record.peers) {
      pdpb::RegionHeartbeatRequest& request = requests[NumberOf(peer.store_id)];
      if (region.led && &peer == &region.record.peers.front()) {
        request.regions.push_back(Report(region));
      } else {
        request.region_ids.push_back(region.record.id);
      }
    }
  }
  for (std::size_t i = 0; i < stores.size(); ++i) {
    if (!stores[i].up) {
      requests[i] = {};
      continue;
    }
    requests[i].store_id = stores[i].record.id;
    requests[i].region_ids.insert(requests[i].region_ids.end(), stores[i].stale.begin(),
                                  stores[i].stale.end());
  }
  return requests;
}

std::map<std::size_t, pdpb::UpsertRegionRequest> Cluster::TakeChanges() {
  std::map<std::size_t, pdpb::UpsertRegionRequest> requests;
  const auto request_of_leader = [&](std::uint64_t region_id) {
    const SimRegion& region = *by_id.at(region_id);
    assert(region.led);  // only leaders change regions
    return &requests[NumberOf(region.record.peers[0].store_id)];
  };
  for (const std::uint64_t id : changed) {
    request_of_leader(id)->regions.push_back(by_id.at(id)->record);
  }
  // In one request with the region that it was merged into, so that every key always has a region.
  for (const auto& [id, merged_into] : removed) {
    request_of_leader(merged_into)->removed_region_ids.push_back(id);
  }
  changed.clear();
  removed.clear();
  return requests;
}

void Cluster::Add(SimRegion region) {
  const std::uint64_t id = region.record.id;
  SimRegion* added = &regions[region.record.start_key];
  *added = std::move(region);
  by_id[id] = added;
  changed.insert(id);
}

}  // namespace kandb::sim
