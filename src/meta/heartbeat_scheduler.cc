#include "meta/heartbeat_scheduler.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>

#include "meta/keys.h"
#include "rpc/frame.h"

namespace kandb::meta {

namespace {

using pdpb::RegionHeartbeatEntryView;
using pdpb::RegionHeartbeatRequestView;
using pdpb::ScheduleKind;
using pdpb::Store;

// The commands of a response. Each may carry an address of any length: those that do not fit a
// frame are dropped, and the heartbeat fails.
class CommandList {
 public:
  void Add(ScheduleKind kind, std::uint64_t region_id, std::uint64_t store_id,
           const std::string& address = {}) {
    size += fixed_size + address.size();
    if (!too_large()) commands.push_back({kind, region_id, store_id, address});
  }
  bool too_large() const { return size > kanrpc::kMaxPayloadSize; }
  std::vector<pdpb::ScheduleCommand> Take() { return std::move(commands); }

 private:
  const std::size_t fixed_size = pdpb::FieldSize(pdpb::ScheduleCommand());

  std::vector<pdpb::ScheduleCommand> commands;
  std::size_t size = 0;  // bytes in the response
};

// Looks ids up in a list in little time, even if a hostile peer made the list long. Reused from
// list to list, so that short ones cost no allocation.
class IdSet {
 public:
  void Assign(const pdpb::IntegersView& list) {
    ids.assign(list.begin(), list.end());
    std::sort(ids.begin(), ids.end());
  }
  bool Contains(std::uint64_t id) const { return std::binary_search(ids.begin(), ids.end(), id); }

 private:
  std::vector<std::uint64_t> ids;
};

// What the policies need of the stores' records, of those that decode.
struct StoreSummary {
  std::size_t count = 0;
  // The first with an address, in the order of their keys, which is the order of preference. A
  // region below the target has fewer members than the target: of that many stores, one is free.
  std::vector<Store> candidates;
};

Status ReadStores(const store::MetaView& metadata, std::uint32_t target_replicas,
                  StoreSummary* stores) {
  std::uint32_t distinct = 0;  // candidates under their own key: no two have the same id
  const auto collect = [&](std::string_view key, std::string_view record) {
    pdpb::StoreView store;
    if (!Decode(record, &store)) return true;
    ++stores->count;
    if (distinct == target_replicas || store.address.empty()) return true;
    if (key == StoreKey(store.id)) ++distinct;
    stores->candidates.push_back({store.id, std::string(store.address), store.state});
    return true;
  };
  return metadata.ForEach(kStoreKeys.begin, kStoreKeys.end, kStoreKeys.max_records, collect);
}

// --- Policy: promote learners ---

void PromoteLearners(const RegionHeartbeatEntryView& entry, CommandList* commands) {
  for (const std::uint64_t store_id : entry.caught_up_learner_store_ids) {
    commands->Add(ScheduleKind::kPromoteLearner, entry.region_id, store_id);
  }
}

// --- Policy: keep replica count ---

// On the first store that has no replica yet and can be reached.
void AddPeer(const RegionHeartbeatEntryView& entry, const std::vector<Store>& stores,
             IdSet* members, CommandList* commands) {
  members->Assign(entry.member_store_ids);
  const auto chosen = std::find_if(stores.begin(), stores.end(), [&](const Store& store) {
    return !members->Contains(store.id);
  });
  if (chosen == stores.end()) return;
  commands->Add(ScheduleKind::kAddPeer, entry.region_id, chosen->id, chosen->address);
}

// Of the first candidate among the members, else the first member; never that of the reporting
// store.
void RemovePeer(const RegionHeartbeatEntryView& entry, std::uint64_t reporter, IdSet* candidates,
                CommandList* commands) {
  candidates->Assign(entry.candidate_store_ids);
  const pdpb::IntegersView& members = entry.member_store_ids;
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

// `ids` is working memory.
void KeepReplicaCount(const RegionHeartbeatEntryView& entry, std::uint64_t reporter,
                      std::uint32_t target_replicas, const std::vector<Store>& stores, IdSet* ids,
                      CommandList* commands) {
  if (target_replicas == 0) return;
  const std::size_t member_count = entry.member_store_ids.size();
  if (member_count < target_replicas) AddPeer(entry, stores, ids, commands);
  if (member_count > target_replicas) RemovePeer(entry, reporter, ids, commands);
}

// --- Policy: destroy stale ---

// A replica is stale only on the evidence of a record that does not list it.
bool IsStaleReplica(const store::MetaView& metadata, std::uint64_t region_id,
                    std::uint64_t store_id) {
  std::string record;
  bool found = false;
  if (!metadata.Get(RegionKey(region_id), &record, &found).ok() || !found) return false;
  pdpb::Region region;
  if (!Decode(record, &region)) return false;
  return std::none_of(region.peers.begin(), region.peers.end(),
                      [&](const pdpb::Peer& peer) { return peer.store_id == store_id; });
}

void DestroyStaleReplicas(const RegionHeartbeatRequestView& request,
                          const store::MetaView& metadata, CommandList* commands) {
  for (const std::uint64_t region_id : request.region_ids) {
    if (commands->too_large()) return;
    if (!IsStaleReplica(metadata, region_id, request.store_id)) continue;
    commands->Add(ScheduleKind::kDestroyStaleReplica, region_id, request.store_id);
  }
}

// --- Policy: balance leaders ---

// Moves leadership to the candidate whose store leads fewest regions, if these are at least two
// fewer than the reporting store leads.
void BalanceLeaders(const RegionHeartbeatRequestView& request, std::size_t store_count,
                    const HeartbeatMarks& marks, CommandList* commands) {
  const std::uint64_t own = marks.RegionCount(request.store_id);
  if (store_count < 2 || own < 2) return;
  IdSet candidates;
  for (const RegionHeartbeatEntryView& entry : request.regions) {
    candidates.Assign(entry.candidate_store_ids);
    std::uint64_t least = own - 1;  // to be chosen, a store must lead fewer
    std::optional<std::uint64_t> chosen;
    for (const std::uint64_t member : entry.member_store_ids) {
      if (member == request.store_id || !candidates.Contains(member)) continue;
      const std::uint64_t count = marks.RegionCount(member);
      if (count >= least) continue;
      least = count;
      chosen = member;
    }
    if (!chosen) continue;
    commands->Add(ScheduleKind::kTransferLeader, entry.region_id, *chosen);
  }
}

}  // namespace

Status HeartbeatScheduler::Schedule(const RegionHeartbeatRequestView& request,
                                    std::vector<pdpb::ScheduleCommand>* commands) {
  const store::MetaView view = metadata->CaptureView();
  StoreSummary stores;
  if (Status s = ReadStores(view, target_replicas, &stores); !s.ok()) return s;
  CommandList list;
  IdSet ids;
  for (const RegionHeartbeatEntryView& entry : request.regions) {
    if (list.too_large()) break;
    PromoteLearners(entry, &list);
    KeepReplicaCount(entry, request.store_id, target_replicas, stores.candidates, &ids, &list);
  }
  DestroyStaleReplicas(request, view, &list);
  {
    MutexLock lock(&heartbeat_mutex);
    for (const RegionHeartbeatEntryView& entry : request.regions) {
      heartbeat_marks.Mark(entry.region_id, request.store_id);
    }
    BalanceLeaders(request, stores.count, heartbeat_marks, &list);
  }
  if (list.too_large()) return kanrpc::PayloadTooLarge();
  *commands = list.Take();
  return {};
}

}  // namespace kandb::meta
