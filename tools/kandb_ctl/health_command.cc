// kandb-ctl health and metrics: measurements for people and probes, and the same with the counts of
// the state for Prometheus.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <thread>

#include "common/posix_file.h"
#include "kandb_ctl/command.h"
#include "kandb_ctl/connection.h"
#include "kandb_ctl/health_checks.h"
#include "kandb_ctl/interrupt.h"
#include "kandb_ctl/json_message.h"
#include "kandb_ctl/metrics_text.h"
#include "kandb_ctl/options.h"
#include "kandb_ctl/state_counts.h"

namespace kandb::ctl {

namespace {

struct HealthArguments {
  std::string data_dir;
  HealthLimits limits;
  double wait_s = 0;
  std::string textfile;
  std::size_t wanted_voters = 0;
};

void Print(const HealthReport& report, bool json) {
  if (!json) {
    for (const HealthCheck& check : report.checks) {
      std::printf("%-4s  %-12s  %s\n",
                  check.bad      ? "BAD"
                  : check.made() ? "ok"
                                 : "-",
                  check.name.c_str(), check.text.c_str());
    }
    return;
  }
  Json checks = Json::array();
  for (const HealthCheck& check : report.checks) {
    Json row = {{"name", check.name}, {"ok", !check.bad}, {"text", check.text}};
    if (!check.made()) row["checked"] = false;
    if (check.known) row["value"] = check.value;
    if (!check.unit.empty()) row["unit"] = check.unit;
    checks.push_back(std::move(row));
  }
  PrintJson({{"healthy", report.healthy()}, {"checks", std::move(checks)}});
}

int RunHealth(const Context& context, const HealthArguments& arguments) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kPause{100};
  const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(arguments.wait_s));
  CatchInterrupts();
  HealthReport report = CheckHealth(context, arguments.data_dir, arguments.limits);
  while (!report.healthy() && Clock::now() < deadline && !Interrupted()) {
    std::this_thread::sleep_for(kPause);
    report = CheckHealth(context, arguments.data_dir, arguments.limits);
  }
  Print(report, context.json);
  (void)std::fflush(stdout);
  if (!report.unreachable.ok()) return FailCall(context, report.unreachable);
  return report.healthy() ? kExitYes : kExitNo;
}

// Whole or not at all: a collector may read at any time.
Status ReplaceFile(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".tmp";
  UniqueFd file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  int error = file.valid() ? WriteFully(file.get(), text) : errno;
  if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error == 0) return {};
  if (file.valid()) (void)::unlink(temporary.c_str());
  return Status::Corruption("cannot write " + path + ": " + ErrnoText(error));
}

// A server that is down is a measurement, not a failure of this command; so is a state that cannot
// be read.
int RunMetrics(const Context& context, const HealthArguments& arguments) {
  std::string text = MetricsOf(CheckHealth(context, arguments.data_dir, arguments.limits));
  if (!arguments.data_dir.empty()) {
    StateCounts counts;
    const Status read = ReadStateCounts(arguments.data_dir, arguments.wanted_voters, &counts);
    if (!read.ok()) (void)Fail(read);
    text += MetricsOf(counts, read);
  }
  if (arguments.textfile.empty()) {
    std::printf("%s", text.c_str());
    return kExitYes;
  }
  if (Status s = ReplaceFile(arguments.textfile, text); !s.ok()) {
    (void)Fail(s);
    return kExitUnreachable;
  }
  return kExitYes;
}

void AddLimits(CLI::App* command, HealthArguments* arguments) {
  command->add_option("--data-dir", arguments->data_dir,
                      "the server's state directory: looks at its files and process too");
  const auto add = [&](const char* name, double* limit, const char* help) {
    command->add_option(name, *limit, help)
        ->check(CLI::NonNegativeNumber)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
        ->capture_default_str();
  };
  HealthLimits* limits = &arguments->limits;
  add("--max-call-ms", &limits->call_ms, "longest time of a probe");
  add("--max-clock-ms", &limits->clock_ms, "largest distance of timestamps and this clock");
  add("--min-free-mib", &limits->free_mib,
      "least free space; 0 for 64 MiB and as much as the tables take");
  add("--max-wal-mib", &limits->wal_mib, "largest size of the WALs: more, when flushes fail");
  add("--max-wals", &limits->wal_count, "most WALs");
  add("--max-tables", &limits->table_count, "most tables: more, when compactions fail");
  add("--max-leftovers", &limits->leftover_count, "most files that no start would keep");
  add("--max-descriptors", &limits->descriptor_share, "largest share of the descriptor limit");
}

}  // namespace

void AddHealthCommands(CLI::App* app, Context* context) {
  const auto health = std::make_shared<HealthArguments>();
  CLI::App* command = app->add_subcommand(
      "health",
      "Checks that a server works: one line a check, status 1 when one is bad, 3 when there is no\n"
      "server. Takes two timestamps, looks a key up, and makes a durable write that changes "
      "nothing.");
  AddLimits(command, health.get());
  command->add_option("--wait", health->wait_s, "seconds to wait for all checks to be good")
      ->check(CLI::NonNegativeNumber);
  command->callback([=] { context->run = [=] { return RunHealth(*context, *health); }; });

  const auto metrics = std::make_shared<HealthArguments>();
  command = app->add_subcommand(
      "metrics",
      "Prints the measurements of health in the text format of Prometheus, and with\n"
      "--data-dir the counts of the state. It is read as a whole for that: a second and\n"
      "100 MB for a million regions.");
  AddLimits(command, metrics.get());
  AddVotersOption(command, &metrics->wanted_voters);
  command->add_option("--textfile", metrics->textfile,
                      "file to replace, for the node exporter's textfile collector");
  command->callback([=] { context->run = [=] { return RunMetrics(*context, *metrics); }; });
}

}  // namespace kandb::ctl
