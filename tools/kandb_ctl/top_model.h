// What `kandb-ctl top` knows about a server. Drawn by top_screen.h.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "kandb_ctl/health_checks.h"
#include "kandb_ctl/state_counts.h"

namespace kandb::ctl {

struct TopModel {
  using Time = std::chrono::steady_clock::time_point;

  struct Sample {
    Time at;
    HealthReport report;
  };
  static constexpr std::size_t kMaxHistory = 300;

  std::string server;    // HOST:PORT
  std::string data_dir;  // empty while it is unknown
  std::chrono::milliseconds interval{};

  std::deque<Sample> history;        // at most kMaxHistory, oldest first
  std::optional<Time> asked_at;      // the measurement in progress began
  std::optional<Time> silent_since;  // the server does not answer
  std::optional<StateCounts> state;  // the last that could be read
  Status state_failure;              // of the last attempt to read it

  void Add(HealthReport report, Time at);

  // A check in each sample: NaN where it was not measured, and in one without an answer.
  std::vector<double> Series(const std::string& check_name) const;
  // In the last sample; null when it is not there.
  const HealthCheck* Last(const std::string& check_name) const;
};

}  // namespace kandb::ctl
