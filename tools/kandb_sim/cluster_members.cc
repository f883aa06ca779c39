// Stores that fail and return, leaders, and the commands of the server.

#include <algorithm>
#include <utility>

#include "kandb_sim/cluster.h"

namespace kandb::sim {

using pdpb::Peer;
using pdpb::PeerRole;
using pdpb::ScheduleKind;

// A record without an address keeps the server from choosing the store.
void Cluster::FailOne(Random* random, std::vector<std::size_t>* stores_changed) {
  std::vector<std::size_t> up;
  for (std::size_t i = 0; i < stores.size(); ++i) {
    if (stores[i].up) up.push_back(i);
  }
  if (up.size() < 2) return;
  const std::size_t number = up[Below(up.size(), random)];
  stores[number].up = false;
  stores[number].record.address.clear();
  stores[number].return_round = present_round + options.down_rounds;
  stores_changed->push_back(number);
}

void Cluster::ReturnStores(std::vector<std::size_t>* stores_changed) {
  for (std::size_t i = 0; i < stores.size(); ++i) {
    SimStore& store = stores[i];
    if (store.up || present_round < store.return_round) continue;
    store.up = true;
    store.record.address = AddressOf(store.record.id);
    stores_changed->push_back(i);
  }
}

void Cluster::ElectLeaders(Random* random) {
  for (auto& [start_key, region] : regions) {
    const std::vector<Peer>& peers = region.record.peers;
    std::size_t voter_count = 0;
    std::vector<std::size_t> live_voters;
    for (std::size_t i = 0; i < peers.size(); ++i) {
      if (peers[i].role != PeerRole::kVoter) continue;
      ++voter_count;
      if (IsUp(peers[i].store_id)) live_voters.push_back(i);
    }
    region.led = live_voters.size() * 2 > voter_count;
    if (!region.led || live_voters.front() == 0) continue;
    Lead(&region, live_voters[Below(live_voters.size(), random)]);
  }
}

// The leader is the first peer: clients of the server look for it there.
void Cluster::Lead(SimRegion* region, std::size_t peer) {
  std::swap(region->record.peers[0], region->record.peers[peer]);
  changed.insert(region->record.id);
}

bool Cluster::CarryOut(const pdpb::ScheduleCommand& command, std::uint64_t reporter,
                       std::uint64_t peer_id) {
  if (command.kind == ScheduleKind::kDestroyStaleReplica) {
    return stores[NumberOf(reporter)].stale.erase(command.region_id) == 1;
  }
  const auto found = by_id.find(command.region_id);
  if (found == by_id.end()) return false;
  SimRegion* region = found->second;
  pdpb::Region* record = &region->record;
  if (!region->led || record->peers[0].store_id != reporter) return false;
  const auto peer = std::ranges::find(record->peers, command.store_id, &Peer::store_id);
  const bool is_member = peer != record->peers.end();
  std::set<std::uint64_t>* stale = &stores[NumberOf(command.store_id)].stale;
  switch (command.kind) {
    case ScheduleKind::kAddPeer:
      if (is_member) return false;
      record->peers.push_back({peer_id, command.store_id, PeerRole::kLearner});
      region->caught_up_round = present_round + options.catch_up_rounds;
      stale->erase(record->id);  // the new replica replaces the old one
      break;
    case ScheduleKind::kPromoteLearner:
      if (!is_member || peer->role != PeerRole::kLearner) return false;
      peer->role = PeerRole::kVoter;
      break;
    case ScheduleKind::kRemovePeer:
      if (!is_member || peer == record->peers.begin()) return false;
      record->peers.erase(peer);
      // Its store finds out when it asks about the replica.
      stale->insert(record->id);
      break;
    case ScheduleKind::kTransferLeader:
      if (!is_member || peer->role != PeerRole::kVoter || !IsUp(command.store_id)) return false;
      Lead(region, static_cast<std::size_t>(peer - record->peers.begin()));
      return true;  // without a change of the epoch
    default:
      return false;
  }
  ++record->epoch.conf_version;
  changed.insert(record->id);
  return true;
}

}  // namespace kandb::sim
