// The report of a state directory as one HTML page that needs nothing but itself: style, scripts
// and data are in it, and its content policy forbids everything else.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "kandb_ctl/finding.h"
#include "kandb_ctl/json_message.h"
#include "kandb_ctl/state_directory.h"

namespace kandb::ctl {

// What the page is about, and where it was made.
struct ReportSource {
  std::string dir;
  std::string live_at;                 // in UTC; empty for a stopped server
  std::vector<std::string> arguments;  // with which kandb-ctl reads the directory again
  std::string host;
  std::string version;  // of kandb-ctl
  std::chrono::system_clock::time_point made_at;
};

// `files` is what SummarizeFiles says.
std::string ReportPage(const ReportSource& source, const Json& files, const ClusterState& cluster,
                       const std::vector<Finding>& findings);

}  // namespace kandb::ctl
