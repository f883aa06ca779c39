// What must hold all along. Each check fails with Corruption and a text that says what was found.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/status.h"
#include "kandb_sim/cluster.h"
#include "pdpb/messages.h"
#include "tools/common/disjoint_ranges.h"

namespace kandb::sim {

// The regions cover every key exactly once, one behind the other; no two peers of a region are on
// one store; no two regions and no two peers have one id.
Status CheckModel(const Cluster& cluster);

// Every command fits what was reported with the heartbeat that it answers: a learner is promoted
// that was reported as caught up; a peer is added where one is missing, on a store that is up and
// holds none, at its address; a surplus member is removed, not that of the reporter; a replica is
// destroyed that was asked about and that the region's record does not list; leadership goes to a
// candidate. To be called before any of the commands of the round is carried out.
Status CheckCommands(const Cluster& cluster, const pdpb::RegionHeartbeatRequest& request,
                     const std::vector<pdpb::ScheduleCommand>& commands);

// The answer to a lookup is what the stores have reported: the region's record, its first peer as
// the leader, the records of its stores. While reports are on their way, not at rest, it covers the
// key and is not ahead of them.
Status CheckLookup(const Cluster& cluster, const std::string& key,
                   const pdpb::GetRegionResponse& answer, bool at_rest);

// Adds a range that the server has handed out; fails when it shares a number with an earlier one.
// `what` names the numbers in a failure.
Status AddDisjoint(const std::string& what, std::uint64_t first, std::uint64_t count,
                   tools::DisjointRanges* ranges);

}  // namespace kandb::sim
