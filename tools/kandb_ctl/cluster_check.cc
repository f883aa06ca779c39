#include "kandb_ctl/cluster_check.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "kandb_ctl/key_text.h"
#include "meta/keys.h"

namespace kandb::ctl {

namespace {

void Add(std::vector<Finding>* findings, std::string where, std::string text) {
  findings->push_back({std::move(where), std::move(text)});
}

// The service passes over the records beyond its limit.
void CheckCount(std::size_t count, const meta::KeyRange& range, std::vector<Finding>* findings) {
  if (count <= range.max_records) return;
  Add(findings, std::string(range.begin),
      std::to_string(count) + " records, of which the server looks at " +
          std::to_string(range.max_records));
}

void CheckRanges(const ClusterState& cluster, std::vector<Finding>* findings) {
  std::vector<RegionList::Range> order = cluster.regions.SortedRanges();
  std::erase_if(order, [&](const RegionList::Range& region) {
    if (region.empty()) {
      Add(findings, meta::RegionKey(region.id),
          "an empty range: it ends where it starts, or before");
    }
    return region.empty();
  });
  if (order.empty() && !cluster.bootstrapped) return;

  const RegionList::Range* furthest = nullptr;  // of those passed, the one that reaches furthest
  std::string_view reach;                       // its end
  bool reaches_end = false;                     // which is no bound
  const auto add_gap = [&](std::string_view end) {
    const std::string_view regions = meta::kRegionKeys.begin;
    Add(findings, furthest == nullptr ? std::string(regions) : meta::RegionKey(furthest->id),
        "no region from " + (reach.empty() ? "the first key" : KeyText(reach)) + " to " +
            (end.empty() ? "the last key" : KeyText(end)));
  };
  for (const RegionList::Range& region : order) {
    if (!reaches_end && region.start_key > reach) {
      add_gap(region.start_key);
    } else if (reaches_end || region.start_key < reach) {
      Add(findings, meta::RegionKey(region.id),
          "overlaps region " + std::to_string(furthest->id) + " from " + KeyText(region.start_key));
    }
    if (reaches_end || !region.ReachesBeyond(reach)) continue;
    furthest = &region;
    reach = region.end_key;
    reaches_end = reach.empty();
  }
  if (!reaches_end) add_gap("");
}

void CheckPeers(const ClusterState& cluster, std::vector<Finding>* findings) {
  std::unordered_set<std::uint64_t> known;
  for (const pdpb::Store& store : cluster.stores) known.insert(store.id);
  std::unordered_set<std::uint64_t> taken;
  for (const pdpb::Region& region : cluster.regions) {
    const auto add = [&](const pdpb::Peer& peer, const char* text) {
      Add(findings, meta::RegionKey(region.id),
          "peer " + std::to_string(peer.id) + text + std::to_string(peer.store_id));
    };
    if (region.peers.empty()) Add(findings, meta::RegionKey(region.id), "no peers");
    taken.clear();
    for (const pdpb::Peer& peer : region.peers) {
      if (!known.contains(peer.store_id)) add(peer, " is on unknown store ");
      if (!taken.insert(peer.store_id).second) add(peer, " shares store ");
    }
  }
}

void CheckStores(const ClusterState& cluster, std::vector<Finding>* findings) {
  std::unordered_map<std::uint64_t, std::uint64_t> replicas;
  for (const pdpb::Region& region : cluster.regions) {
    for (const pdpb::Peer& peer : region.peers) ++replicas[peer.store_id];
  }
  std::unordered_map<std::string_view, std::uint64_t> owners;
  for (const pdpb::Store& store : cluster.stores) {
    if (store.address.empty()) {
      if (const auto found = replicas.find(store.id); found != replicas.end()) {
        Add(findings, meta::StoreKey(store.id),
            "no address, but " + std::to_string(found->second) + " replicas");
      }
    } else if (const auto [other, added] = owners.emplace(store.address, store.id); !added) {
      Add(findings, meta::StoreKey(store.id),
          "has the address " + KeyText(store.address) + " of store " +
              std::to_string(other->second));
    }
  }
}

// Restored records that are newer than the mark, say: the server would hand out their ids again.
void CheckIds(const ClusterState& cluster, std::vector<Finding>* findings) {
  const std::uint64_t highest = HighestId(cluster);
  if (highest < NextId(cluster)) return;
  Add(findings, std::string(meta::kIdAllocKey),
      (cluster.id_mark ? "ids from " : "no mark: ids from ") + std::to_string(NextId(cluster)) +
          " on are handed out, but " + std::to_string(highest) + " is in use");
}

}  // namespace

std::uint64_t HighestId(const ClusterState& cluster) {
  std::uint64_t highest = 0;
  for (const pdpb::Store& store : cluster.stores) highest = std::max(highest, store.id);
  for (const pdpb::Region& region : cluster.regions) {
    highest = std::max(highest, region.id);
    for (const pdpb::Peer& peer : region.peers) highest = std::max(highest, peer.id);
  }
  return highest;
}

std::uint64_t NextId(const ClusterState& cluster) {
  return cluster.id_mark.value_or(meta::kFirstId);
}

void CheckCluster(const ClusterState& cluster, std::vector<Finding>* findings) {
  CheckCount(cluster.stores.size(), meta::kStoreKeys, findings);
  CheckCount(cluster.regions.size(), meta::kRegionKeys, findings);
  CheckRanges(cluster, findings);
  CheckPeers(cluster, findings);
  CheckStores(cluster, findings);
  CheckIds(cluster, findings);
}

}  // namespace kandb::ctl
