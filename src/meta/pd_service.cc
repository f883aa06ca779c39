#include "meta/pd_service.h"

#include <algorithm>
#include <string>

namespace kandb::meta {

PdService::PdService(store::MetaStore* metadata, std::uint32_t target_replicas, Clock clock)
    : timestamp_oracle(clock),
      id_allocator(metadata),
      cluster_bootstrap(metadata),
      region_router(metadata),
      heartbeat_scheduler(metadata, target_replicas) {}

Status PdService::Tso(const pdpb::TsoRequest& request, pdpb::TsoResponse* response) {
  response->count = std::max(request.count, std::uint32_t{1});
  response->timestamp = timestamp_oracle.Allocate(response->count);
  return {};
}

Status PdService::AllocId(const pdpb::AllocIdRequest& request, pdpb::AllocIdResponse* response) {
  const std::uint32_t count = std::max(request.count, std::uint32_t{1});
  if (Status s = id_allocator.Allocate(count, &response->first_id); !s.ok()) return s;
  response->count = count;
  return {};
}

Status PdService::Bootstrap(const pdpb::BootstrapRequest& request,
                            pdpb::BootstrapResponse* response) {
  return cluster_bootstrap.Bootstrap(request, &response->already_bootstrapped);
}

Status PdService::GetRegion(const pdpb::GetRegionRequest& request,
                            pdpb::GetRegionResponse* response) {
  return region_router.Find(request.key, response);
}

Status PdService::UpsertRegion(const pdpb::UpsertRegionRequest& request,
                               pdpb::UpsertRegionResponse*) {
  return region_router.Upsert(request);
}

Status PdService::RegionHeartbeat(const pdpb::RegionHeartbeatRequestView& request,
                                  pdpb::RegionHeartbeatResponse* response) {
  return heartbeat_scheduler.Schedule(request, &response->commands);
}

void PdService::RegisterTo(kanrpc::RpcServer* server) {
  const auto register_method = [&]<class Req, class Resp>(
                                   const std::string& method,
                                   Status (PdService::*handler)(const Req&, Resp*)) {
    server->Register<Req, Resp>(method, [this, handler](const Req& request, Resp* response) {
      return (this->*handler)(request, response);
    });
  };
  register_method("Pd.Tso", &PdService::Tso);
  register_method("Pd.AllocId", &PdService::AllocId);
  register_method("Pd.Bootstrap", &PdService::Bootstrap);
  register_method("Pd.GetRegion", &PdService::GetRegion);
  register_method("Pd.UpsertRegion", &PdService::UpsertRegion);
  register_method("Pd.RegionHeartbeat", &PdService::RegionHeartbeat);
}

}  // namespace kandb::meta
