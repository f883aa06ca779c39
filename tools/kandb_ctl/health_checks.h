// What tells a healthy server from one in trouble: probes over its port, and its state directory
// and process as seen from outside. Nothing here changes a record.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "kandb_ctl/command.h"

namespace kandb::ctl {

struct HealthLimits {
  double call_ms = 1000;   // longest time of a probe
  double clock_ms = 1000;  // largest distance of the timestamps from this machine's clock
  double free_mib = 0;     // 0: 64 MiB and the size of the tables, which is what a compaction needs
  double wal_mib = 192;    // three memtables: one in use, one that is flushed, one to spare
  double wal_count = 32;   // every start leaves one until the next flush
  double table_count = 12;  // more than 8 are compacted into one
  double leftover_count = 3;
  double descriptor_share = 0.9;  // of the process's limit
};

struct HealthCheck {
  std::string name;
  std::string unit;  // "seconds", "bytes" or empty for a count
  double value = 0;
  bool known = false;  // `value` was measured
  bool bad = false;
  std::string text;  // for people

  bool made() const { return known || bad; }  // else `text` says why it was not
};

struct HealthReport {
  std::vector<HealthCheck> checks;
  Status unreachable;  // when the server could not be reached

  bool healthy() const;
};

// `data_dir` may be empty: then only the port is probed, and a check "disk" that was not made says
// so.
HealthReport CheckHealth(const Context& context, const std::string& data_dir,
                         const HealthLimits& limits);

}  // namespace kandb::ctl
