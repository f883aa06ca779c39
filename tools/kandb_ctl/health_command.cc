// kandb-ctl health and metrics: the same measurements for people and probes, and for Prometheus.

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

namespace kandb::ctl {

namespace {

struct Arguments {
  std::string data_dir;
  HealthLimits limits;
  double wait_s = 0;
  std::string textfile;
};

void Print(const HealthReport& report, bool json) {
  if (!json) {
    for (const HealthCheck& check : report.checks) {
      std::printf("%-4s  %-12s  %s\n", check.bad ? "BAD" : "ok", check.name.c_str(),
                  check.text.c_str());
    }
    return;
  }
  Json checks = Json::array();
  for (const HealthCheck& check : report.checks) {
    Json row = {{"name", check.name}, {"ok", !check.bad}, {"text", check.text}};
    if (check.known) row["value"] = check.value;
    if (!check.unit.empty()) row["unit"] = check.unit;
    checks.push_back(std::move(row));
  }
  PrintJson({{"healthy", report.healthy()}, {"checks", std::move(checks)}});
}

int RunHealth(const Context& context, const Arguments& arguments) {
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

std::string MetricsText(const HealthReport& report) {
  std::string text;
  const auto add = [&](const std::string& name, const std::string& help, double value) {
    char number[64];
    (void)std::snprintf(number, sizeof(number), "%.17g", value);
    text += "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n" + name + " " + number +
            "\n";
  };
  add("kandb_up", "Whether the server answers.", report.unreachable.ok() ? 1 : 0);
  add("kandb_healthy", "Whether every check of kandb-ctl health is good.", report.healthy());
  for (const HealthCheck& check : report.checks) {
    if (!check.known) continue;
    add("kandb_" + check.name + (check.unit.empty() ? "" : "_" + check.unit),
        "The check '" + check.name + "' of kandb-ctl health.", check.value);
  }
  text +=
      "# HELP kandb_check_ok Whether a check of kandb-ctl health is good.\n"
      "# TYPE kandb_check_ok gauge\n";
  for (const HealthCheck& check : report.checks) {
    text += "kandb_check_ok{check=\"" + check.name + "\"} " + (check.bad ? "0" : "1") + "\n";
  }
  return text;
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

// A server that is down is a measurement, not a failure of this command.
int RunMetrics(const Context& context, const Arguments& arguments) {
  const std::string text = MetricsText(CheckHealth(context, arguments.data_dir, arguments.limits));
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

void AddLimits(CLI::App* command, Arguments* arguments) {
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
  const auto health = std::make_shared<Arguments>();
  CLI::App* command = app->add_subcommand(
      "health",
      "Checks that a server works: one line a check, status 1 when one is bad, 3 when there is no\n"
      "server. Takes two timestamps, looks a key up, and makes a durable write that changes "
      "nothing.");
  AddLimits(command, health.get());
  command->add_option("--wait", health->wait_s, "seconds to wait for all checks to be good")
      ->check(CLI::NonNegativeNumber);
  command->callback([=] { context->run = [=] { return RunHealth(*context, *health); }; });

  const auto metrics = std::make_shared<Arguments>();
  command = app->add_subcommand(
      "metrics", "Prints the measurements of health in the text format of Prometheus");
  AddLimits(command, metrics.get());
  command->add_option("--textfile", metrics->textfile,
                      "file to replace, for the node exporter's textfile collector");
  command->callback([=] { context->run = [=] { return RunMetrics(*context, *metrics); }; });
}

}  // namespace kandb::ctl
