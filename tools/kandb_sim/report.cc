#include "kandb_sim/report.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "tools/common/message_names.h"
#include "tools/common/text_table.h"

namespace kandb::sim {

namespace {

using Cells = std::vector<std::string>;

std::string Text(std::uint64_t number) { return std::to_string(number); }

std::string Text(double number, int digits) {
  char text[64];
  (void)std::snprintf(text, sizeof(text), "%.*f", digits, number);
  return text;
}

std::string Rate(std::uint64_t count, double seconds) {
  return seconds > 0 ? Text(static_cast<double>(count) / seconds, 0) : "-";
}

void PrintTable(Cells names, std::vector<Cells> rows) {
  tools::TextTable table(std::move(names));
  for (Cells& row : rows) table.AddRow(std::move(row));
  table.Print();
  std::printf("\n");
}

Cells PhaseRow(const char* name, const Phase& phase) {
  return {name, Text(phase.rounds), Text(phase.late_rounds), Text(phase.seconds, 2)};
}

Cells LeadersRow(const char* name, std::vector<std::size_t> counts) {
  std::ranges::sort(counts);
  return {name, Text(counts.front()), Text(counts[counts.size() / 2]), Text(counts.back())};
}

void PrintCommands(const Results& results) {
  std::vector<Cells> rows;
  for (const auto& [known, name] : tools::kEnumNames<pdpb::ScheduleKind>) {
    const auto kind = static_cast<std::size_t>(known);
    rows.push_back({name, Text(results.commands_given[kind]), Text(results.commands_done[kind])});
  }
  PrintTable({"command", "given", "carried out"}, std::move(rows));
}

void PrintLatencies(const Results& results) {
  std::vector<Cells> rows;
  const auto us = [](std::uint64_t ns) { return Text(static_cast<double>(ns) / 1000, 1); };
  for (std::size_t i = 0; i < results.latencies.size(); ++i) {
    const tools::LatencyHistogram& latencies = results.latencies[i];
    rows.push_back({kMethodNames[i], Text(latencies.count()), us(latencies.PercentileNs(0.5)),
                    us(latencies.PercentileNs(0.99)), us(latencies.max_ns())});
  }
  PrintTable({"method", "calls", "p50_us", "p99_us", "max_us"}, std::move(rows));
}

void PrintCosts(const Results& results) {
  constexpr const char* kReported[] = {"nothing", "its regions", "its replicas too"};
  // The items that a row has in addition to the one before.
  constexpr const char* kItems[] = {"heartbeat", "region", "replica"};
  const std::uint64_t items[] = {results.leaders_after.size(), results.rest_entries,
                                 results.rest_replica_ids};
  std::vector<Cells> rows;
  double last_cpu = 0;
  for (std::size_t i = 0; i < results.costs.size(); ++i) {
    const Cost& cost = results.costs[i];
    const double cpu = cost.server_cpu_seconds.value_or(0) / static_cast<double>(cost.rounds);
    const double count = static_cast<double>(std::max(items[i], std::uint64_t{1}));
    const bool known = cost.server_cpu_seconds.has_value();
    rows.push_back({kReported[i], Text(cost.rounds), Rate(cost.rounds * items[0], cost.seconds),
                    Rate(i == 0 ? 0 : cost.rounds * items[1], cost.seconds),
                    known ? Text(cpu * 1000, 3) : "-",
                    known ? Text((cpu - last_cpu) * 1e6 / count, 2) : "-", kItems[i],
                    known ? Text(cpu / 60 * 100, 4) : "-"});
    last_cpu = cpu;
  }
  PrintTable({"reported at rest", "rounds", "heartbeats/s", "regions/s", "server CPU ms/round",
              "us", "per", "% of a core, a round a minute"},
             std::move(rows));
}

}  // namespace

void PrintReport(const Options& options, const Results& results) {
  PrintTable({"stores", "regions", "at the end", "replicas", "seed"},
             {{Text(options.store_count), Text(options.region_count), Text(results.region_count),
               Text(options.target_replicas), Text(options.seed)}});
  PrintTable({"phase", "rounds", "late", "seconds"},
             {PhaseRow("set up", results.set_up),
              PhaseRow("until all regions have their members", results.first_complete),
              PhaseRow("disturbed", results.disturbed),
              PhaseRow("until all have them again", results.complete_again)});
  PrintTable({"heartbeats", "regions", "replicas", "heartbeats/s", "regions/s"},
             {{Text(results.heartbeats), Text(results.entries), Text(results.replica_ids),
               Rate(results.heartbeats, results.heartbeat_seconds),
               Rate(results.entries, results.heartbeat_seconds)}});
  PrintCommands(results);
  PrintTable(
      {"leaders of a store", "min", "median", "max"},
      {LeadersRow("before", results.leaders_before), LeadersRow("after", results.leaders_after)});
  PrintLatencies(results);
  if (options.reconnect_ms > 0) {
    PrintTable({"calls tried again"}, {{Text(results.interrupted_calls)}});
  }
  PrintCosts(results);
  PrintTable(
      {"checked: lookups", "walked", "during changes", "found nothing", "ids", "timestamps"},
      {{Text(results.lookups), Text(results.regions_walked), Text(results.lookups_during_changes),
        Text(results.missed_during_changes.load(std::memory_order_relaxed)), Text(results.ids),
        Text(results.timestamps)}});
}

}  // namespace kandb::sim
