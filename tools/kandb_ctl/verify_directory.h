// Checks of a whole state directory: file by file, then the live records against one another.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kandb_ctl/finding.h"
#include "kandb_ctl/state_directory.h"
#include "store/value_envelope.h"

namespace kandb::ctl {

struct Verified {
  std::vector<Finding> findings;  // files first
  std::uint64_t files = 0;        // that are part of the state
  std::uint64_t bytes = 0;        // in them
  ClusterState cluster;           // without its `warnings`, which are among the findings
  std::uint64_t records = 0;      // live ones
  bool has_records = false;       // else they could not be read, and a finding says why
};

// Checks everything; `kandb-ctl state verify --help` lists the checks. Calls `progress` now and
// then with the fraction of the bytes done, 0 to 1.
Verified VerifyDirectory(const std::string& dir, const store::StoreCrypto& crypto,
                         const std::function<void(double)>& progress);

}  // namespace kandb::ctl
