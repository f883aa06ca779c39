#include "kandb_sim/invariants.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

namespace kandb::sim {

namespace {

using pdpb::Peer;
using pdpb::Region;
using pdpb::RegionHeartbeatEntry;
using pdpb::ScheduleCommand;
using pdpb::ScheduleKind;

std::string Describe(const Region& region) {
  std::string text = "region " + std::to_string(region.id) + " from " + region.start_key + " to " +
                     region.end_key + " epoch " + std::to_string(region.epoch.conf_version) + "." +
                     std::to_string(region.epoch.version) + " peers";
  for (const Peer& peer : region.peers) {
    text += " " + std::to_string(peer.id) + ":" + std::to_string(peer.store_id);
    if (peer.role == pdpb::PeerRole::kLearner) text += ":learner";
  }
  return text;
}

bool Contains(const std::vector<std::uint64_t>& ids, std::uint64_t id) {
  return std::ranges::find(ids, id) != ids.end();
}

// `entry` is the report on the region, empty when there was none. The reporter leads the region, so
// it is neither removed nor given leadership.
bool Fits(const Cluster& cluster, const RegionHeartbeatEntry& entry, std::uint64_t reporter,
          const ScheduleCommand& command) {
  const std::uint64_t store_id = command.store_id;
  const std::size_t member_count = entry.member_store_ids.size();
  const bool other_member = store_id != reporter && Contains(entry.member_store_ids, store_id);
  switch (command.kind) {
    case ScheduleKind::kPromoteLearner:
      return Contains(entry.caught_up_learner_store_ids, store_id);
    case ScheduleKind::kAddPeer:
      return member_count > 0 && member_count < cluster.target_replicas() &&
             !Contains(entry.member_store_ids, store_id) &&
             cluster.NumberOf(store_id) < cluster.all_stores().size() && cluster.IsUp(store_id) &&
             cluster.StoreOf(store_id).record.address == command.address;
    case ScheduleKind::kRemovePeer:
      return other_member && member_count > cluster.target_replicas();
    case ScheduleKind::kTransferLeader:
      return other_member && Contains(entry.candidate_store_ids, store_id);
    case ScheduleKind::kDestroyStaleReplica:
      return store_id == reporter && cluster.StoreOf(reporter).stale.contains(command.region_id);
    default:
      return false;
  }
}

}  // namespace

Status CheckModel(const Cluster& cluster) {
  std::unordered_set<std::uint64_t> ids;
  std::string expected_start;
  for (const auto& [start_key, region] : cluster.all_regions()) {
    const Region& record = region.record;
    const bool last = &region == &cluster.all_regions().rbegin()->second;
    if (record.start_key != expected_start || record.end_key.empty() != last) {
      return Status::Corruption("the regions do not cover every key once: " + Describe(record));
    }
    expected_start = record.end_key;
    bool unique = ids.insert(record.id).second;
    for (const Peer& peer : record.peers) unique = ids.insert(peer.id).second && unique;
    if (!unique) return Status::Corruption("an id is used twice: " + Describe(record));
    std::unordered_set<std::uint64_t> store_ids;
    for (const Peer& peer : record.peers) store_ids.insert(peer.store_id);
    if (store_ids.size() < record.peers.size()) {
      return Status::Corruption("two peers on one store: " + Describe(record));
    }
  }
  return {};
}

Status CheckCommands(const Cluster& cluster, const pdpb::RegionHeartbeatRequest& request,
                     const std::vector<ScheduleCommand>& commands) {
  if (commands.empty()) return {};
  std::unordered_map<std::uint64_t, const RegionHeartbeatEntry*> reported;
  for (const RegionHeartbeatEntry& entry : request.regions) reported[entry.region_id] = &entry;
  for (const ScheduleCommand& command : commands) {
    const auto found = reported.find(command.region_id);
    const RegionHeartbeatEntry entry =
        found == reported.end() ? RegionHeartbeatEntry() : *found->second;
    if (Fits(cluster, entry, request.store_id, command)) continue;
    return Status::Corruption("a command that does not fit the report of store " +
                              std::to_string(request.store_id) + ": kind " +
                              std::to_string(static_cast<int>(command.kind)) + ", region " +
                              std::to_string(command.region_id) + ", store " +
                              std::to_string(command.store_id) + ", address " + command.address);
  }
  return {};
}

Status CheckLookup(const Cluster& cluster, const std::string& key,
                   const pdpb::GetRegionResponse& answer, bool at_rest) {
  const Region& reported = cluster.Covering(key).record;
  const Region& found = answer.region;
  bool right = false;
  if (at_rest) {
    std::vector<pdpb::Store> stores;
    for (const Peer& peer : reported.peers) stores.push_back(cluster.StoreOf(peer.store_id).record);
    right = found == reported && answer.leader == reported.peers[0] &&
            answer.leader_store == stores[0] && answer.stores == stores;
  } else {
    right = found.start_key <= key && (found.end_key.empty() || key < found.end_key) &&
            found.epoch.version <= reported.epoch.version &&
            found.epoch.conf_version <= reported.epoch.conf_version;
  }
  if (right) return {};
  return Status::Corruption("lookup of " + key + ": the server says " + Describe(found) + " and " +
                            std::to_string(answer.stores.size()) + " stores; reported was " +
                            Describe(reported));
}

Status AddDisjoint(const std::string& what, std::uint64_t first, std::uint64_t count,
                   tools::DisjointRanges* ranges) {
  if (ranges->Add(first, count)) return {};
  return Status::Corruption(what + " " + std::to_string(first) + " to " +
                            std::to_string(first + count - 1) + ": some were handed out before");
}

}  // namespace kandb::sim
