// Checks of the records of a cluster against one another.
#pragma once

#include <vector>

#include "kandb_ctl/finding.h"
#include "kandb_ctl/state_directory.h"

namespace kandb::ctl {

// Appends what is wrong: gaps and overlaps between the regions, empty ranges, regions without
// peers, peers on unknown stores, two peers of a region on one store, more records than the server
// looks at. Without regions only a bootstrapped cluster has a gap.
void CheckCluster(const ClusterState& cluster, std::vector<Finding>* findings);

}  // namespace kandb::ctl
