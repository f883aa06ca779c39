// The placement driver: one object for each of its subjects, and the methods by which clients and
// stores reach them. It caches no record: every call reads what it needs from the metadata store,
// and every change is durable before it is answered. Thread-safe.
#pragma once

#include <cstdint>

#include "common/status.h"
#include "meta/cluster_bootstrap.h"
#include "meta/heartbeat_scheduler.h"
#include "meta/id_allocator.h"
#include "meta/region_router.h"
#include "meta/timestamp_oracle.h"
#include "pdpb/messages.h"
#include "rpc/rpc_server.h"
#include "store/meta_store.h"

namespace kandb::meta {

class PdService {
 public:
  // `metadata` is borrowed and must outlive the service. `target_replicas` is the number of
  // replicas per region; heartbeat responses add or remove replicas until it is reached; 0 disables
  // that.
  PdService(store::MetaStore* metadata, std::uint32_t target_replicas, Clock clock = SystemClock);

  // The methods. Each fails as the object that it calls; a response is written only on success. A
  // count of 0 is read as 1.
  Status Tso(const pdpb::TsoRequest& request, pdpb::TsoResponse* response);
  Status AllocId(const pdpb::AllocIdRequest& request, pdpb::AllocIdResponse* response);
  Status Bootstrap(const pdpb::BootstrapRequest& request, pdpb::BootstrapResponse* response);
  Status GetRegion(const pdpb::GetRegionRequest& request, pdpb::GetRegionResponse* response);
  Status UpsertRegion(const pdpb::UpsertRegionRequest& request,
                      pdpb::UpsertRegionResponse* response);
  Status RegionHeartbeat(const pdpb::RegionHeartbeatRequestView& request,
                         pdpb::RegionHeartbeatResponse* response);

  // Registers the six methods, "Pd.Tso" to "Pd.RegionHeartbeat". The server must be stopped before
  // the service is destroyed.
  void RegisterTo(kanrpc::RpcServer* server);

 private:
  TimestampOracle timestamp_oracle;
  IdAllocator id_allocator;
  ClusterBootstrap cluster_bootstrap;
  RegionRouter region_router;
  HeartbeatScheduler heartbeat_scheduler;
};

}  // namespace kandb::meta
