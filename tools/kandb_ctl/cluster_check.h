// Checks of the records of a cluster against one another.
#pragma once

#include <cstdint>
#include <vector>

#include "kandb_ctl/finding.h"
#include "kandb_ctl/state_directory.h"

namespace kandb::ctl {

// Appends what is wrong: gaps and overlaps between the regions, empty ranges, regions without
// peers, peers on unknown stores, two peers of a region on one store, stores that share an address
// or hold regions without having one, ids in use that a server would hand out again, more records
// than the server looks at. Without regions only a bootstrapped cluster has a gap.
void CheckCluster(const ClusterState& cluster, std::vector<Finding>* findings);

// The largest id of a store, region or peer; 0 when there is none.
std::uint64_t HighestId(const ClusterState& cluster);

// The first id that a server would hand out on these records, unless its mark is damaged.
std::uint64_t NextId(const ClusterState& cluster);

}  // namespace kandb::ctl
