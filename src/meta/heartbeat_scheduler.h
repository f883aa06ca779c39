// Answers the heartbeats of stores with scheduling commands, by four policies:
//
//   promote learners    every learner that has caught up becomes a voter
//   keep replica count  a region below the target gets one more replica, above it loses one
//   destroy stale       a replica that its region's record does not list is destroyed
//   balance leaders     leadership moves to stores that lead clearly fewer regions
//
// A heartbeat adds or removes at most one replica of a region. Between heartbeats nothing is kept
// but the marks: which store reported each region last. Thread-safe.
#pragma once

#include <cstdint>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "meta/heartbeat_marks.h"
#include "pdpb/messages.h"
#include "store/meta_store.h"

namespace kandb::meta {

class HeartbeatScheduler {
 public:
  // `metadata_store` is borrowed and must outlive the scheduler. `target` is the number of replicas
  // per region; 0 leaves the number of replicas alone.
  HeartbeatScheduler(store::MetaStore* metadata_store, std::uint32_t target)
      : metadata(metadata_store), target_replicas(target) {}

  // Marks the reported regions and gives the commands for the store that reports: promotions and
  // replica counts region by region, then stale replicas, then leaders. `*commands` is written only
  // on success. Fails as reading the stores' records does, or with Corruption "kanrpc: payload too
  // large" when the commands do not fit a frame; the regions are marked then all the same.
  Status Schedule(const pdpb::RegionHeartbeatRequestView& request,
                  std::vector<pdpb::ScheduleCommand>* commands) EXCLUDES(heartbeat_mutex);

 private:
  // Never change after construction.
  store::MetaStore* const metadata;
  const std::uint32_t target_replicas;

  // Guards the marks. Held for a time in proportion to one heartbeat.
  Mutex heartbeat_mutex;
  HeartbeatMarks heartbeat_marks GUARDED_BY(heartbeat_mutex);
};

}  // namespace kandb::meta
