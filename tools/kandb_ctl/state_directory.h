// What a stopped server's state directory says about the cluster. Nothing here changes a byte of
// it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/status.h"
#include "pdpb/messages.h"
#include "store/value_envelope.h"

namespace kandb::ctl {

// The live records, in the order of their keys. What cannot be opened or decoded, or has an unknown
// key, is left out and named in `oddities`.
struct ClusterState {
  bool bootstrapped = false;
  std::optional<std::uint64_t> id_mark;
  std::vector<pdpb::Store> stores;
  std::vector<pdpb::Region> regions;
  std::vector<std::string> oddities;
};

// Reads what the server would hold after its next start. Fails where the server would fail to open
// it.
Status LoadCluster(const std::string& dir, const store::StoreCrypto& crypto, ClusterState* cluster);

// Something wrong with the directory or the records in it.
struct Finding {
  std::string where;  // a file with an offset, or a key
  std::string text;
};

// Checks every file and record on its own and the records against one another; see `kandb-ctl state
// verify
// --help` for what is checked. `progress` is called now and then with the share of the bytes done,
// 0 to 1.
std::vector<Finding> VerifyDirectory(const std::string& dir, const store::StoreCrypto& crypto,
                                     const std::function<void(double)>& progress);

}  // namespace kandb::ctl
