// The invariants of a run. Each check returns Corruption with a description of the violation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/status.h"
#include "kandb_sim/cluster.h"
#include "pdpb/messages.h"
#include "tools/common/disjoint_ranges.h"

namespace kandb::sim {

// The regions cover every key exactly once, in order; no two peers of a region are on one store; no
// two regions or peers share an id.
Status CheckModel(const Cluster& cluster);

// Every command fits the heartbeat that it answers: a promoted learner was reported as caught up; a
// peer is added where one is missing, on a store that is up and has none, at its address; a removed
// member is surplus and not the reporter's; a destroyed replica was asked about and is not in the
// region's record; leadership goes to a candidate. Must be called before any command of the round
// is carried out.
Status CheckCommands(const Cluster& cluster, const pdpb::RegionHeartbeatRequest& request,
                     const std::vector<pdpb::ScheduleCommand>& commands);

// The answer to a lookup matches the reports: the region's record, its first peer as the leader,
// the records of its stores. While reports are under way, not `at_rest`, it only covers the key and
// has no newer epoch than the reports.
Status CheckLookup(const Cluster& cluster, const std::string& key,
                   const pdpb::GetRegionResponse& answer, bool at_rest);

// Adds a range that the server has handed out; fails when it shares a number with an earlier one.
// `what` names the numbers in the failure.
Status AddDisjoint(const std::string& what, std::uint64_t first, std::uint64_t count,
                   tools::DisjointRanges* ranges);

}  // namespace kandb::sim
