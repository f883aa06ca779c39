// The placement driver: timestamps and identifiers, the bootstrap of the cluster, the records of
// stores and regions, the routing of keys, and the scheduling of replicas. It caches no record:
// every handler reads what it needs from the store, and every change is durable before it is
// answered. Thread-safe.
//
// The handlers: timestamps_and_ids.cc, bootstrap.cc, routing.cc, heartbeat.cc.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "pdpb/messages.h"
#include "rpc/rpc_server.h"
#include "store/meta_store.h"

namespace kandb::meta {

// The wall clock: nanoseconds since the Unix epoch.
using Clock = std::uint64_t (*)();
std::uint64_t SystemClock();

class CommandList;

class PdService {
 public:
  // `metadata` is borrowed and must outlive the service. `target` is the number of members that
  // every region shall have; 0 leaves the numbers alone. Reads the mark of the identifiers.
  PdService(store::MetaStore* metadata, std::uint32_t target, Clock wall_clock = SystemClock);

  // Hands out a run of timestamps: milliseconds since the Unix epoch << 18 | a counter. They grow
  // whatever the clock does, but live in memory only: after a restart they start from the clock. A
  // run longer than 2^18 - 1 is accepted, but runs over into the milliseconds that come next.
  Status Tso(const pdpb::TsoRequest& request, pdpb::TsoResponse* response) EXCLUDES(tso_mutex);

  // Hands out a run of identifiers, none of them ever again, across restarts too. Fails as the
  // store's write does, having handed out nothing.
  Status AllocId(const pdpb::AllocIdRequest& request, pdpb::AllocIdResponse* response)
      EXCLUDES(id_mutex);

  // Records the first store and regions, all or nothing. Once a cluster exists, only registers the
  // calling store, says that the cluster existed, and succeeds even when the store's record could
  // not be written. The request is trusted as it is; of two first calls at once the later one wins.
  Status Bootstrap(const pdpb::BootstrapRequest& request, pdpb::BootstrapResponse* response);

  // Finds the first region, in the order of the keys, that covers the key, and the stores of its
  // peers. NotFound "cluster not bootstrapped" or "no region covers key", either true of one
  // moment; Corruption "bad store record" for the leader's, "bad region record" when the region
  // sought may be one that does not decode, or "kanrpc: payload too large" when the stores do not
  // fit a frame.
  Status GetRegion(const pdpb::GetRegionRequest& request, pdpb::GetRegionResponse* response);

  // Writes and deletes region records as they are given, all or nothing, comparing no epochs.
  Status UpsertRegion(const pdpb::UpsertRegionRequest& request,
                      pdpb::UpsertRegionResponse* response);

  // Answers a store's report of the regions that it leads with what the store is to do. Fails as
  // reading the stores does, or with Corruption "kanrpc: payload too large" when the commands do
  // not fit a frame.
  Status RegionHeartbeat(const pdpb::RegionHeartbeatRequest& request,
                         pdpb::RegionHeartbeatResponse* response) EXCLUDES(heartbeat_mutex);

  // Registers the six methods, "Pd.Tso" to "Pd.RegionHeartbeat". The server must be stopped before
  // the service is destroyed.
  void RegisterTo(kanrpc::RpcServer* server);

 private:
  // routing.cc
  // Fails as GetRegion does without a region.
  Status FindRegion(std::string_view key, pdpb::Region* region) const;

  // heartbeat.cc
  Status ReadStores(std::vector<pdpb::Store>* stores) const;
  bool IsStaleReplica(std::uint64_t region_id, std::uint64_t store_id) const;
  void MarkReporter(std::uint64_t region_id, std::uint64_t store_id) REQUIRES(heartbeat_mutex);
  std::uint64_t ReportedRegions(std::uint64_t store_id) const REQUIRES(heartbeat_mutex);
  void TransferLeaders(const pdpb::RegionHeartbeatRequest& request, CommandList* commands)
      REQUIRES(heartbeat_mutex);

  // Never change after construction.
  store::MetaStore* const store;
  const std::uint32_t target_replicas;
  const Clock clock;

  // Guards the identifiers, and the mark in the store while it is read and written.
  Mutex id_mutex;
  std::uint64_t next_id GUARDED_BY(id_mutex) = 0;

  // Guards the timestamps.
  Mutex tso_mutex;
  std::uint64_t tso_physical GUARDED_BY(tso_mutex) = 0;  // ms, of the last batch handed out
  std::uint64_t tso_logical GUARDED_BY(tso_mutex) = 0;   // the next one free within that

  // Guards the marks of the heartbeats.
  Mutex heartbeat_mutex;
  // Which store reported a region last; and for each store how many regions that gives it, kept as
  // the marks change, so that a heartbeat's cost does not grow with the number of regions.
  std::map<std::uint64_t, std::uint64_t> heartbeat_marks GUARDED_BY(heartbeat_mutex);
  std::unordered_map<std::uint64_t, std::uint64_t> marks_per_store GUARDED_BY(heartbeat_mutex);
};

}  // namespace kandb::meta
