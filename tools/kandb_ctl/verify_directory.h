// Checks of a whole state directory: file by file, then the live records against one another.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "kandb_ctl/finding.h"
#include "store/value_envelope.h"

namespace kandb::ctl {

// Returns what is wrong, files first; `kandb-ctl state verify --help` lists the checks. Calls
// `progress` now and then with the fraction of the bytes done, 0 to 1.
std::vector<Finding> VerifyDirectory(const std::string& dir, const store::StoreCrypto& crypto,
                                     const std::function<void(double)>& progress);

}  // namespace kandb::ctl
