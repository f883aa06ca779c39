#include <algorithm>

#include "meta/keys.h"
#include "meta/pd_service.h"
#include "rpc/frame.h"

namespace kandb::meta {

// The commands of an answer. Each may carry an address of any length: what does not fit a frame is
// not kept, and the heartbeat fails, though it counts as a report.
class CommandList {
 public:
  void Add(pdpb::ScheduleKind kind, std::uint64_t region_id, std::uint64_t store_id,
           const std::string& address = {}) {
    size += kFixedSize + address.size();
    if (!too_large()) commands.push_back({kind, region_id, store_id, address});
  }
  bool too_large() const { return size > kanrpc::kMaxPayloadSize; }
  std::vector<pdpb::ScheduleCommand> Take() { return std::move(commands); }

 private:
  static inline const std::size_t kFixedSize = pdpb::FieldSize(pdpb::ScheduleCommand());

  std::vector<pdpb::ScheduleCommand> commands;
  std::size_t size = 0;  // bytes in the answer
};

namespace {

using pdpb::RegionHeartbeatEntry;
using pdpb::ScheduleKind;
using pdpb::Store;

// Answers which ids a list holds in little time even for a list that a hostile peer made long.
// Reused from list to list, so that short ones cost no allocation.
class IdSet {
 public:
  void Assign(const std::vector<std::uint64_t>& list) {
    ids = list;
    std::sort(ids.begin(), ids.end());
  }
  bool Contains(std::uint64_t id) const { return std::binary_search(ids.begin(), ids.end(), id); }

 private:
  std::vector<std::uint64_t> ids;
};

// One replica more: on the first store that has none yet and can be reached.
void AddMissingPeer(const RegionHeartbeatEntry& entry, const std::vector<Store>& stores,
                    IdSet* members, CommandList* commands) {
  members->Assign(entry.member_store_ids);
  const auto chosen = std::find_if(stores.begin(), stores.end(), [&](const Store& store) {
    return !store.address.empty() && !members->Contains(store.id);
  });
  if (chosen == stores.end()) return;
  commands->Add(ScheduleKind::kAddPeer, entry.region_id, chosen->id, chosen->address);
}

// One replica less: the first candidate among the members or else the first member, but never that
// of the reporting store.
void RemoveSurplusPeer(const RegionHeartbeatEntry& entry, std::uint64_t reporter, IdSet* candidates,
                       CommandList* commands) {
  candidates->Assign(entry.candidate_store_ids);
  const std::vector<std::uint64_t>& members = entry.member_store_ids;
  auto chosen = std::find_if(members.begin(), members.end(), [&](std::uint64_t id) {
    return id != reporter && candidates->Contains(id);
  });
  if (chosen == members.end()) {
    chosen = std::find_if(members.begin(), members.end(),
                          [&](std::uint64_t id) { return id != reporter; });
  }
  if (chosen == members.end() || *chosen == 0) return;
  commands->Add(ScheduleKind::kRemovePeer, entry.region_id, *chosen);
}

}  // namespace

Status PdService::RegionHeartbeat(const pdpb::RegionHeartbeatRequest& request,
                                  pdpb::RegionHeartbeatResponse* response) {
  std::vector<Store> stores;
  if (Status s = ReadStores(&stores); !s.ok()) return s;
  CommandList commands;
  IdSet ids;
  for (const RegionHeartbeatEntry& entry : request.regions) {
    if (commands.too_large()) break;
    for (const std::uint64_t store_id : entry.caught_up_learner_store_ids) {
      commands.Add(ScheduleKind::kPromoteLearner, entry.region_id, store_id);
    }
    if (target_replicas == 0) continue;
    const std::size_t member_count = entry.member_store_ids.size();
    if (member_count < target_replicas) AddMissingPeer(entry, stores, &ids, &commands);
    if (member_count > target_replicas) {
      RemoveSurplusPeer(entry, request.store_id, &ids, &commands);
    }
  }

  for (const std::uint64_t region_id : request.region_ids) {
    if (commands.too_large()) break;
    if (!IsStaleReplica(region_id, request.store_id)) continue;
    commands.Add(ScheduleKind::kDestroyStaleReplica, region_id, request.store_id);
  }

  MutexLock lock(&heartbeat_mutex);
  for (const RegionHeartbeatEntry& entry : request.regions) {
    MarkReporter(entry.region_id, request.store_id);
  }
  if (stores.size() >= 2) TransferLeaders(request, &commands);
  if (commands.too_large()) return kanrpc::PayloadTooLarge();
  response->commands = commands.Take();
  return {};
}

// All that decode, in the order of their keys, which is the order of preference.
Status PdService::ReadStores(std::vector<Store>* stores) const {
  const auto collect = [&](std::string_view, std::string_view record) {
    Store decoded;
    if (Decode(record, &decoded)) stores->push_back(std::move(decoded));
    return true;
  };
  return store->ForEach(kStoreKeys.begin, kStoreKeys.end, kStoreKeys.max_records, collect);
}

// A replica is destroyed only on the evidence of a record that does not list it.
bool PdService::IsStaleReplica(std::uint64_t region_id, std::uint64_t store_id) const {
  std::string record;
  bool found = false;
  if (!store->Get(RegionKey(region_id), &record, &found).ok() || !found) return false;
  pdpb::Region region;
  if (!Decode(record, &region)) return false;
  return std::none_of(region.peers.begin(), region.peers.end(),
                      [&](const pdpb::Peer& peer) { return peer.store_id == store_id; });
}

void PdService::MarkReporter(std::uint64_t region_id, std::uint64_t store_id) {
  // Both may need memory: had before anything changes, so that marks and counts always agree.
  std::uint64_t& reported = marks_per_store[store_id];
  const auto [mark, inserted] = heartbeat_marks.try_emplace(region_id, store_id);
  ++reported;
  if (inserted) return;
  const auto previous = marks_per_store.find(mark->second);
  mark->second = store_id;
  if (--previous->second == 0) marks_per_store.erase(previous);
}

std::uint64_t PdService::ReportedRegions(std::uint64_t store_id) const {
  const auto found = marks_per_store.find(store_id);
  return found == marks_per_store.end() ? 0 : found->second;
}

// Moves leadership to the candidate whose store leads least, where that is clearly less than here.
void PdService::TransferLeaders(const pdpb::RegionHeartbeatRequest& request,
                                CommandList* commands) {
  const std::uint64_t own = ReportedRegions(request.store_id);
  if (own < 2) return;
  IdSet candidates;
  for (const RegionHeartbeatEntry& entry : request.regions) {
    candidates.Assign(entry.candidate_store_ids);
    std::uint64_t least = own - 1;  // to be chosen, a store must lead fewer
    const std::uint64_t* chosen = nullptr;
    for (const std::uint64_t& member : entry.member_store_ids) {
      if (member == request.store_id || !candidates.Contains(member)) continue;
      const std::uint64_t count = ReportedRegions(member);
      if (count >= least) continue;
      least = count;
      chosen = &member;
    }
    if (chosen == nullptr) continue;
    commands->Add(ScheduleKind::kTransferLeader, entry.region_id, *chosen);
  }
}

}  // namespace kandb::meta
