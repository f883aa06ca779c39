#include "kandb_ctl/top_screen.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>
#include <span>

#include "kandb_ctl/key_text.h"
#include "kandb_ctl/sparkline.h"

namespace kandb::ctl {

namespace {

using Style = ScreenLine::Style;

template <class... Values>
std::string Format(const char* format, Values... values) {
  char text[256];
  (void)std::snprintf(text, sizeof(text), format, values...);
  return text;
}

double Seconds(TopModel::Time from, TopModel::Time to) {
  return std::max(0.0, std::chrono::duration<double>(to - from).count());
}

std::string MilliSeconds(double seconds) { return Format("%.1f ms", seconds * 1000); }

std::string ByteChange(double bytes) {
  constexpr double kKiB = 1024;
  if (std::abs(bytes) < kKiB) return Format("%+.0f B", bytes);
  if (std::abs(bytes) < kKiB * kKiB) return Format("%+.1f KiB", bytes / kKiB);
  if (std::abs(bytes) < kKiB * kKiB * kKiB) return Format("%+.1f MiB", bytes / kKiB / kKiB);
  return Format("%+.1f GiB", bytes / kKiB / kKiB / kKiB);
}

// Everything between the first line and the last.
class Body {
 public:
  Body(const TopModel& top_model, TopModel::Time time, std::size_t column_count, bool utf8)
      : model(top_model), now(time), columns(column_count), unicode(utf8) {}

  std::vector<ScreenLine> Lines() {
    if (model.history.empty()) return lines;
    for (const HealthCheck& check : model.history.back().report.checks) {
      if (check.bad) Add("BAD " + check.name + ": " + check.text, Style::kBad);
    }
    AddProbes();
    AddFiles();
    if (!model.data_dir.empty()) AddState();
    return lines;
  }

 private:
  // Answers of a server and names of files may have any bytes.
  void Add(const std::string& text, Style style = Style::kPlain) {
    lines.push_back({KeyText(text).substr(0, columns), style});
  }
  void AddRow(const std::string& name, const std::string& latest, const std::string& summary,
              std::span<const double> series, double low, double high);
  void AddProbes();
  void AddFiles();
  void AddState();
  void AddConditions();
  void AddStores();

  const TopModel& model;
  const TopModel::Time now;
  const std::size_t columns;
  const bool unicode;
  std::vector<ScreenLine> lines;
};

constexpr const char* kRow = "%-11s %-14s %-12s ";

void Body::AddRow(const std::string& name, const std::string& latest, const std::string& summary,
                  std::span<const double> series, double low, double high) {
  Add(Format(kRow, name.c_str(), latest.c_str(), summary.c_str()));
  const std::size_t used = lines.back().text.size();
  series = series.last(std::min(series.size(), columns - used));
  lines.back().text += Sparkline(series, low, high, unicode);
}

void Body::AddProbes() {
  Add(Format(kRow, "probe", "now", "max") +
          Format("last %zu, every %.1f s", model.history.size(),
                 std::chrono::duration<double>(model.interval).count()),
      Style::kBold);
  for (const char* name : {"connect", "timestamp", "lookup", "write"}) {
    const std::vector<double> series = model.Series(name);
    double max = 0;
    for (const double value : series) max = std::max(max, std::isnan(value) ? 0 : value);
    const double latest = series.back();
    AddRow(name, std::isnan(latest) ? "-" : MilliSeconds(latest), MilliSeconds(max), series, 0,
           max);
  }
  if (const HealthCheck* clock = model.Last("clock")) Add(Format("%-11s ", "clock") + clock->text);
}

void Body::AddFiles() {
  if (model.data_dir.empty()) {
    return Add("without --data-dir unknown: free space, files, memory, regions, stores");
  }
  const double seconds = Seconds(model.history.front().at, model.history.back().at);
  Add(Format(kRow, "directory", "now", Format("in %.0f s", seconds).c_str()) + model.data_dir,
      Style::kBold);
  for (const char* name : {"free_space", "wal_size", "table_size", "memory"}) {
    std::vector<double> series = model.Series(name);
    std::vector<double> known = series;
    std::erase_if(known, [](double value) { return std::isnan(value); });
    if (known.empty()) continue;
    const auto [low, high] = std::ranges::minmax(known);
    const HealthCheck* check = model.Last(name);
    const bool measured = check != nullptr && check->known;
    AddRow(name, measured ? check->text.substr(0, check->text.find(" in ")) : "-",
           ByteChange(known.back() - known.front()), series, low, high);
  }
  std::string counts;
  for (const char* name : {"wals", "tables", "leftovers", "descriptors"}) {
    const HealthCheck* check = model.Last(name);
    if (check != nullptr && check->known) counts += Format("%s %.0f  ", name, check->value);
  }
  if (!counts.empty()) Add(Format("%-11s ", "counts") + counts);
}

void Body::AddState() {
  if (!model.state_failure.ok()) {
    Add("the state cannot be read: " + model.state_failure.message(), Style::kBad);
  }
  if (!model.state) {
    if (model.state_failure.ok()) Add("the state is being read for the first time");
    return;
  }
  const StateCounts& state = *model.state;
  Add(Format("regions %zu, read %.0f s ago in %.1f s", state.regions, Seconds(state.read_at, now),
             state.read_time.count()),
      Style::kBold);
  if (state.findings > 0) {
    Add(Format("BAD %zu findings: kandb-ctl state verify --live names them", state.findings),
        Style::kBad);
  }
  AddConditions();
  AddStores();
}

// As many on a line as fit.
void Body::AddConditions() {
  std::string line;
  for (const auto& [condition, name] : kRegionConditions) {
    const auto count = static_cast<unsigned long long>(model.state->by_condition.at(condition));
    if (count == 0) continue;
    std::string item = Format("  %s %llu", name, count);
    std::ranges::replace(item, '_', ' ');
    if (!line.empty() && line.size() + item.size() > columns) {
      Add(line);
      line.clear();
    }
    line += item;
  }
  if (!line.empty()) Add(line);
}

void Body::AddStores() {
  const std::vector<StateCounts::OnStore>& stores = model.state->stores;
  Add(Format("%-20s %8s %8s %5s  address", Format("stores %zu", stores.size()).c_str(), "replicas",
             "leaders", "state"),
      Style::kBold);
  const std::size_t listed = std::min(stores.size(), kMaxStoresListed);
  for (std::size_t i = 0; i < listed; ++i) {
    const auto& [store, replicas, leaders] = stores[i];
    Add(Format("%-20llu %8llu %8llu %5d  ", static_cast<unsigned long long>(store.id),
               static_cast<unsigned long long>(replicas), static_cast<unsigned long long>(leaders),
               store.state) +
        (store.address.empty() ? "none" : store.address));
  }
  if (listed < stores.size()) Add(Format("and %zu more stores", stores.size() - listed));
}

// Since when the server has not answered, of one that hangs too. None for less than a second.
std::optional<TopModel::Time> SilentSince(const TopModel& model, TopModel::Time now) {
  if (model.silent_since) return model.silent_since;
  const bool hangs = model.asked_at && now - *model.asked_at >= std::chrono::seconds(1);
  return hangs ? model.asked_at : std::nullopt;
}

ScreenLine Title(const TopModel& model, TopModel::Time now) {
  const std::string server = "kandb-meta " + KeyText(model.server) + "  ";
  if (const auto since = SilentSince(model, now)) {
    return {server + Format("NO ANSWER for %.0f s", Seconds(*since, now)), Style::kBad};
  }
  if (model.history.empty()) return {server + "is asked for the first time", Style::kBold};
  const auto bad = std::ranges::count_if(model.history.back().report.checks, &HealthCheck::bad);
  if (bad == 0) return {server + "answers, every check is good", Style::kBold};
  return {server + Format("answers, BAD checks: %td", bad), Style::kBad};
}

}  // namespace

std::vector<ScreenLine> DrawTop(const TopModel& model, TopModel::Time now, ScreenSize size,
                                bool unicode, std::size_t* first_line) {
  std::vector<ScreenLine> body = Body(model, now, size.columns, unicode).Lines();
  const std::size_t visible = size.rows > 2 ? size.rows - 2 : 0;
  *first_line = std::min(*first_line, body.size() - std::min(body.size(), visible));
  const std::size_t end = std::min(body.size(), *first_line + visible);

  std::vector<ScreenLine> screen = {Title(model, now)};
  for (std::size_t i = *first_line; i < end; ++i) screen.push_back(std::move(body[i]));
  if (size.rows > 1) {
    const std::string part =
        Format("  lines %zu to %zu of %zu", std::min(*first_line + 1, end), end, body.size());
    screen.push_back({"q quits" + (end - *first_line < body.size() ? part + ", arrows scroll" : ""),
                      Style::kBold});
  }
  for (ScreenLine* line : {&screen.front(), &screen.back()}) {
    if (line->text.size() > size.columns) line->text.resize(size.columns);
  }
  return screen;
}

}  // namespace kandb::ctl
