// The report of a state directory as one HTML page that needs nothing but itself: style, script and
// data are in it, and its content policy forbids everything else.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "kandb_ctl/finding.h"
#include "kandb_ctl/state_directory.h"

namespace kandb::ctl {

// Counts are plain HTML in the page. The regions, which may be many, are JSON that its scripts
// draw:
//
//   bounds    key texts in key order, the first one empty; piece i is bounds[i] to bounds[i + 1]
//   pieces    for each piece the positions in `regions` of those that cover it
//   regions   [id, first piece, piece after the last, conf_version, version, peers], by start key,
//             with peers as [id, store id, role unless voter], the leader first; for a bin
//             ["", first piece, piece after the last, regions, gaps, overlaps]
//   stores    [id, address]
//
// Identifiers are texts: a script's numbers are exact to 53 bits only.
std::string ReportPage(const std::string& dir, std::chrono::system_clock::time_point made_at,
                       const ClusterState& cluster, const std::vector<Finding>& findings);

}  // namespace kandb::ctl
