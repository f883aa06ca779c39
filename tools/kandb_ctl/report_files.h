// The files of the state directory on the report page, and what the next start makes of them.
#pragma once

#include <string>

#include "kandb_ctl/json_message.h"
#include "kandb_ctl/report_page.h"
#include "kandb_ctl/state_directory.h"

namespace kandb::ctl {

// `files` as for ReportPage.
std::string NextStartSection(const ReportSource& source, const Json& files,
                             const ClusterState& cluster);
std::string FilesSection(const Json& files);

}  // namespace kandb::ctl
