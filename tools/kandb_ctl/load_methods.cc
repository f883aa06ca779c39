#include "kandb_ctl/load_methods.h"

#include <algorithm>
#include <cassert>
#include <cinttypes>
#include <cstdio>
#include <utility>
#include <vector>

#include "kandb_ctl/connection.h"

namespace kandb::ctl {

namespace {

constexpr std::uint32_t kReplicas = 3;

std::string LoadKey(std::uint64_t n) {
  char key[64];
  (void)std::snprintf(key, sizeof(key), "%s%08" PRIu64, kLoadKeyPrefix, n);
  return key;
}

Status SendTso(client::PdClient* pd, std::uint64_t) {
  pdpb::TsoResponse answer;
  return pd->Tso({1}, &answer);
}

Status SendAllocId(client::PdClient* pd, std::uint64_t) {
  pdpb::AllocIdResponse answer;
  return pd->AllocId({1}, &answer);
}

Status SendGetRegion(client::PdClient* pd, std::uint64_t n) {
  pdpb::GetRegionResponse answer;
  return pd->GetRegion({LoadKey(n)}, &answer);
}

Status SendUpsertRegion(client::PdClient* pd, std::uint64_t n) {
  pdpb::Region region{kFirstLoadId + n, LoadKey(n), LoadKey(n + 1), {1, 1}, {}};
  for (std::uint64_t i = 0; i < kReplicas; ++i) {
    region.peers.push_back({kFirstLoadId + n * kReplicas + i, kFirstLoadId + i});
  }
  pdpb::UpsertRegionResponse answer;
  return pd->UpsertRegion({{std::move(region)}, {}}, &answer);
}

Status SendHeartbeat(client::PdClient* pd, std::uint64_t n) {
  pdpb::RegionHeartbeatEntry entry;
  entry.region_id = kFirstLoadId + n;
  for (std::uint64_t i = 0; i < kReplicas; ++i) entry.member_store_ids.push_back(kFirstLoadId + i);
  entry.candidate_store_ids = entry.member_store_ids;
  pdpb::RegionHeartbeatResponse answer;
  return pd->RegionHeartbeat({kFirstLoadId, {entry}, {entry.region_id}}, &answer);
}

constexpr LoadMethod kMethods[] = {{"tso", SendTso, false},
                                   {"alloc-id", SendAllocId, true},
                                   {"get-region", SendGetRegion, false},
                                   {kUpsertRegionMethod, SendUpsertRegion, true},
                                   {"heartbeat", SendHeartbeat, false}};

}  // namespace

std::span<const LoadMethod> LoadMethods() { return kMethods; }

const LoadMethod& LoadMethodNamed(std::string_view name) {
  const auto method = std::ranges::find(kMethods, name, &LoadMethod::name);
  assert(method != std::end(kMethods));
  return *method;
}

Status RemoveLoadRegions(client::PdClient* pd, std::uint64_t count, std::size_t* removed) {
  std::vector<std::uint64_t> ids;
  for (std::uint64_t n = 0; n < count; ++n) ids.push_back(kFirstLoadId + n);
  pdpb::UpsertRegionRequest request;
  std::vector<std::uint64_t> missing;
  if (Status s = FindRegionRecords(pd, ids, &request.removed_region_ids, &missing); !s.ok()) {
    return s;
  }
  *removed = request.removed_region_ids.size();
  if (*removed == 0) return {};
  pdpb::UpsertRegionResponse answer;
  return pd->UpsertRegion(request, &answer);
}

}  // namespace kandb::ctl
