// The regions of the report page, which may be many: JSON that its scripts search and draw.
#pragma once

#include <string>
#include <vector>

#include "kandb_ctl/replica_count.h"
#include "kandb_ctl/report_key_space.h"
#include "kandb_ctl/report_regions.h"
#include "kandb_ctl/state_directory.h"

namespace kandb::ctl {

//   arguments  with which kandb-ctl reads the directory
//   bounds     key texts in key order, the first one empty; piece i is bounds[i] to bounds[i + 1]
//   pieces     for each piece the positions in `regions` of those that cover it
//   max_regions_per_piece  beyond which a piece lists no more
//   regions    [id, first piece, piece after the last, conf_version, version, peers], by start key,
//              with peers as [id, store id, role unless voter], the leader first; for a bin
//              ["", first piece, piece after the last, regions, gaps, overlaps]
//   replicas   [voters, learners, regions with so many, those in bins included]
//   stores     [id, address]
//
// Identifiers are texts: a script's numbers are exact to 53 bits only. Safe inside a script
// element. `space` is that of `shown`.
std::string ReportData(const std::vector<std::string>& arguments, const ClusterState& cluster,
                       const ReplicaCounts& replica_counts, const ShownRegions& shown,
                       const KeySpace& space);

}  // namespace kandb::ctl
