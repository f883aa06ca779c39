// Answers the heartbeats of stores with scheduling commands, by four policies:
//
//   promote learners    every learner that has caught up becomes a voter
//   keep replica count  a region below the target gets one more replica, above it loses one
//   destroy stale       a replica that its region's record does not list is destroyed
//   balance leaders     leadership moves from a store that leads many regions to one that leads
//   fewer
//
// A heartbeat adds or removes at most one replica of a region. Thread-safe.
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

  // The commands for the store that reports. `*commands` is written only on success. Fails as
  // reading the stores' records does, or with Corruption "kanrpc: payload too large" when the
  // commands do not fit a frame; the report is still counted then.
  Status Schedule(const pdpb::RegionHeartbeatRequest& request,
                  std::vector<pdpb::ScheduleCommand>* commands) EXCLUDES(heartbeat_mutex);

 private:
  // Never change after construction.
  store::MetaStore* const metadata;
  const std::uint32_t target_replicas;

  Mutex heartbeat_mutex;
  HeartbeatMarks heartbeat_marks GUARDED_BY(heartbeat_mutex);
};

}  // namespace kandb::meta
