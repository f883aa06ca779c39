#include "kandb_ctl/metrics_text.h"

#include <cstdio>
#include <map>

namespace kandb::ctl {

namespace {

class MetricsText {
 public:
  void Begin(const std::string& name, const std::string& help) {
    family = "kandb_" + name;
    text += "# HELP " + family + " " + help + "\n# TYPE " + family + " gauge\n";
  }
  void Add(double value) { AddSample("", value); }
  // `label` needs no escapes.
  void Add(const std::string& label, const std::string& label_value, double value) {
    AddSample("{" + label + "=\"" + label_value + "\"}", value);
  }
  void AddOne(const std::string& name, const std::string& help, double value) {
    Begin(name, help);
    Add(value);
  }
  const std::string& Text() const { return text; }

 private:
  void AddSample(const std::string& labels, double value) {
    char number[64];
    (void)std::snprintf(number, sizeof(number), " %.17g\n", value);
    text += family + labels + number;
  }

  std::string family;
  std::string text;
};

}  // namespace

std::string MetricsOf(const HealthReport& report) {
  MetricsText text;
  text.AddOne("up", "Whether the server answers.", report.unreachable.ok() ? 1 : 0);
  text.AddOne("healthy", "Whether every check of kandb-ctl health is good.", report.healthy());
  for (const HealthCheck& check : report.checks) {
    if (!check.known) continue;
    text.AddOne(check.name + (check.unit.empty() ? "" : "_" + check.unit),
                "The check '" + check.name + "' of kandb-ctl health.", check.value);
  }
  text.Begin("check_ok", "Whether a check of kandb-ctl health is good.");
  for (const HealthCheck& check : report.checks) {
    if (check.made()) text.Add("check", check.name, check.bad ? 0 : 1);
  }
  return text.Text();
}

std::string MetricsOf(const StateCounts& counts, const Status& failure) {
  MetricsText text;
  text.AddOne("state_readable", "Whether the state could be read.", failure.ok());
  if (!failure.ok()) return text.Text();
  text.AddOne("state_read_seconds", "How long it took to read the state.",
              counts.read_time.count());
  text.AddOne("state_findings", "What kandb-ctl state verify finds.",
              static_cast<double>(counts.findings));
  text.AddOne("id_mark", "The mark above all ids handed out.", static_cast<double>(counts.id_mark));

  text.Begin("regions", "Regions by what their records say; each counts once.");
  for (const auto& [condition, name] : kRegionConditions) {
    text.Add("condition", name, static_cast<double>(counts.by_condition.at(condition)));
  }
  std::map<std::uint8_t, std::uint64_t> by_state;
  std::uint64_t without_address = 0;
  for (const auto& [store, replicas, leaders] : counts.stores) {
    ++by_state[store.state];
    without_address += store.address.empty();
  }
  text.Begin("stores", "Stores by the state that they reported.");
  for (const auto& [state, count] : by_state) {
    text.Add("state", std::to_string(state), static_cast<double>(count));
  }
  text.AddOne("stores_without_address", "Stores that get no new replica.",
              static_cast<double>(without_address));

  const auto add_for_each_store = [&](const char* name, const char* help, auto count) {
    text.Begin(name, help);
    std::size_t listed = 0;
    for (const StateCounts::OnStore& at : counts.stores) {
      if (listed++ == kMaxStoresListed) break;
      text.Add("store", std::to_string(at.store.id), static_cast<double>(at.*count));
    }
  };
  add_for_each_store("store_replicas", "Replicas on a store.", &StateCounts::OnStore::replicas);
  add_for_each_store("store_leaders", "Regions whose first peer is on a store.",
                     &StateCounts::OnStore::leaders);
  return text.Text();
}

}  // namespace kandb::ctl
