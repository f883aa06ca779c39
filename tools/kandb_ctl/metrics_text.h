// Measurements in the text format of Prometheus.
#pragma once

#include <string>

#include "common/status.h"
#include "kandb_ctl/health_checks.h"
#include "kandb_ctl/state_counts.h"

namespace kandb::ctl {

// What `health` measures. A check that was not made has no series.
std::string MetricsOf(const HealthReport& report);

// The counts of the state; `failure` when it could not be read.
std::string MetricsOf(const StateCounts& counts, const Status& failure);

}  // namespace kandb::ctl
