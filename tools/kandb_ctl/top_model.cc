#include "kandb_ctl/top_model.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kandb::ctl {

namespace {

const HealthCheck* Find(const HealthReport& report, const std::string& name) {
  const auto found = std::ranges::find(report.checks, name, &HealthCheck::name);
  return found == report.checks.end() ? nullptr : &*found;
}

// A probe that failed took a time too, which says nothing.
bool Failed(const HealthReport& report, const HealthCheck& check) {
  return !report.unreachable.ok() && check.unit == "seconds";
}

}  // namespace

void TopModel::Add(HealthReport report, Time at) {
  if (report.unreachable.ok()) {
    silent_since.reset();
  } else if (!silent_since) {
    silent_since = at;
  }
  history.push_back({at, std::move(report)});
  if (history.size() > kMaxHistory) history.pop_front();
}

std::vector<double> TopModel::Series(const std::string& check_name) const {
  std::vector<double> values;
  for (const Sample& sample : history) {
    const HealthCheck* check = Find(sample.report, check_name);
    const bool measured = check != nullptr && check->known && !Failed(sample.report, *check);
    values.push_back(measured ? check->value : std::numeric_limits<double>::quiet_NaN());
  }
  return values;
}

const HealthCheck* TopModel::Last(const std::string& check_name) const {
  return history.empty() ? nullptr : Find(history.back().report, check_name);
}

}  // namespace kandb::ctl
