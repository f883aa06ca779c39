#include "meta/keys.h"
#include "meta/pd_service.h"

namespace kandb::meta {

namespace {

bool Covers(const pdpb::RegionRange& range, std::string_view key) {
  return range.start_key <= key && (range.end_key.empty() || key < range.end_key);
}

}  // namespace

Status PdService::GetRegion(const pdpb::GetRegionRequest& request,
                            pdpb::GetRegionResponse* response) {
  // One pass that looks at ranges where they stand and decodes only the region that covers the key.
  bool any_record = false;
  bool bad_record = false;
  bool covered = false;
  pdpb::Region region;
  const auto look_at = [&](std::string_view, std::string_view record) {
    any_record = true;
    pdpb::RegionRange range;
    if (!Decode(record, &range)) {
      bad_record = true;
      return true;
    }
    if (!Covers(range, request.key)) return true;
    region = {};
    covered = Decode(record, &region);
    bad_record = bad_record || !covered;
    return !covered;
  };
  if (Status s =
          store->ForEach(kRegionKeys.begin, kRegionKeys.end, kRegionKeys.max_records, look_at);
      !s.ok()) {
    return s;
  }
  if (!any_record) return Status::NotFound("cluster not bootstrapped");
  // The region sought may be the one that does not decode: that is damage, not absence.
  if (!covered && bad_record) return Status::Corruption("bad region record");
  if (!covered) return Status::NotFound("no region covers key");

  pdpb::GetRegionResponse answer;
  for (const pdpb::Peer& peer : region.peers) {
    const bool is_leader = &peer == &region.peers.front();
    std::string record;
    bool found = false;
    if (Status s = store->Get(StoreKey(peer.store_id), &record, &found); !s.ok()) return s;
    pdpb::Store peer_store;
    const bool decodes = found && Decode(record, &peer_store);
    if (is_leader) {
      if (found && !decodes) return Status::Corruption("bad store record");
      // Who leads is not known here; the peer that is listed first stands for the leader.
      answer.leader = peer;
      answer.leader_store = peer_store;
    }
    if (decodes) answer.stores.push_back(std::move(peer_store));
  }
  answer.region = std::move(region);
  *response = std::move(answer);
  return {};
}

Status PdService::UpsertRegion(const pdpb::UpsertRegionRequest& request,
                               pdpb::UpsertRegionResponse*) {
  std::vector<store::KeyValue> puts;
  puts.reserve(request.regions.size());
  for (const pdpb::Region& region : request.regions) {
    puts.emplace_back(RegionKey(region.id), Encode(region));
  }
  std::vector<std::string> deletes;
  deletes.reserve(request.removed_region_ids.size());
  for (const std::uint64_t id : request.removed_region_ids) deletes.push_back(RegionKey(id));
  return store->Write(std::move(puts), std::move(deletes));
}

}  // namespace kandb::meta
