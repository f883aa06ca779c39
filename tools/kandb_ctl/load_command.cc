#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kandb_ctl/command.h"
#include "kandb_ctl/connection.h"
#include "kandb_ctl/interrupt.h"
#include "kandb_ctl/load_methods.h"
#include "kandb_ctl/row_writer.h"
#include "tools/common/latency_histogram.h"
#include "tools/common/remote_failure.h"

namespace kandb::ctl {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPauseAfterError{10};
constexpr std::uint32_t kMaxRegions = 100'000;
constexpr std::string_view kRemoveMethod = "remove-regions";  // measures nothing

struct LoadArguments {
  std::string method;
  std::uint32_t connection_count = 4;
  std::uint32_t seconds = 10;
  std::uint32_t region_count = 100;
  bool agreed_to_write = false;
  bool keep = false;
};

// Counted by all connections and read while they run. Relaxed: the counts order no other memory.
struct Progress {
  std::atomic<std::uint64_t> requests = 0;
  std::atomic<std::uint64_t> errors = 0;
  std::atomic<bool> server_gone = false;
};

struct Result {
  tools::LatencyHistogram latencies;  // of what succeeded
  std::uint64_t errors = 0;
  Status last_error;  // the one that ended the load, if one did
  bool server_gone = false;

  void Merge(const Result& other) {
    latencies.Merge(other.latencies);
    errors += other.errors;
    if (other.errors > 0 && (other.server_gone || !server_gone)) last_error = other.last_error;
    server_gone = server_gone || other.server_gone;
  }
};

// Sends requests in sequence over a connection of its own, until the time is up or the server has
// gone away. A refusal by the server counts as an error and the load goes on.
Result RunConnection(const Context& context, const LoadArguments& arguments, std::uint32_t index,
                     SteadyClock::time_point deadline, Progress* progress) {
  Connection connection(context);
  const LoadMethod& method = LoadMethodNamed(arguments.method);
  Result result;
  const auto fail = [&](const Status& status) {
    ++result.errors;
    progress->errors.fetch_add(1, std::memory_order_relaxed);
    result.last_error = status;
    if (tools::RemoteFailureOf(status) != tools::RemoteFailure::kNone) return;
    result.server_gone = true;
    progress->server_gone.store(true, std::memory_order_relaxed);
  };
  // Connects; the measurement begins after it.
  pdpb::TsoResponse answer;
  if (Status s = connection.pd.Tso({1}, &answer); !s.ok()) fail(s);
  const auto goes_on = [&] {
    return !Interrupted() && !progress->server_gone.load(std::memory_order_relaxed);
  };
  for (std::uint64_t n = index; goes_on(); n += arguments.connection_count) {
    const SteadyClock::time_point start = SteadyClock::now();
    if (start >= deadline) break;
    const Status status = method.send(&connection.pd, n % arguments.region_count);
    if (!status.ok()) {
      fail(status);
      // The client connects again after every error; without a pause that would use up the ports.
      std::this_thread::sleep_for(kPauseAfterError);
      continue;
    }
    const std::chrono::nanoseconds latency = SteadyClock::now() - start;
    result.latencies.Add(static_cast<std::uint64_t>(latency.count()));
    progress->requests.fetch_add(1, std::memory_order_relaxed);
  }
  return result;
}

Result RunConnections(const Context& context, const LoadArguments& arguments) {
  constexpr std::chrono::seconds kProgressInterval{1};
  Progress progress;
  const SteadyClock::time_point start = SteadyClock::now();
  const SteadyClock::time_point deadline = start + std::chrono::seconds(arguments.seconds);
  std::vector<std::future<Result>> running;
  for (std::uint32_t i = 0; i < arguments.connection_count; ++i) {
    running.push_back(std::async(std::launch::async, [&, i] {
      return RunConnection(context, arguments, i, deadline, &progress);
    }));
  }
  const bool show = ::isatty(STDERR_FILENO) == 1;
  SteadyClock::time_point next_line = start + kProgressInterval;
  Result result;
  for (std::future<Result>& one : running) {
    for (; one.wait_until(next_line) != std::future_status::ready; next_line += kProgressInterval) {
      if (!show) continue;
      std::fprintf(stderr, "\r%.0f s: %" PRIu64 " requests, %" PRIu64 " errors ",
                   std::chrono::duration<double>(SteadyClock::now() - start).count(),
                   progress.requests.load(std::memory_order_relaxed),
                   progress.errors.load(std::memory_order_relaxed));
    }
    result.Merge(one.get());
  }
  if (show) std::fprintf(stderr, "\n");
  return result;
}

void PrintResult(const Context& context, const LoadArguments& arguments, double seconds,
                 const Result& result) {
  const tools::LatencyHistogram& latencies = result.latencies;
  const auto us = [](std::uint64_t ns) { return static_cast<double>(ns) / 1000; };
  PrintRow({{"method", arguments.method},
            {"connections", arguments.connection_count},
            {"requests", latencies.count()},
            {"errors", result.errors},
            {"requests_per_s", static_cast<double>(latencies.count()) / seconds},
            {"p50_us", us(latencies.PercentileNs(0.5))},
            {"p99_us", us(latencies.PercentileNs(0.99))},
            {"p99.9_us", us(latencies.PercentileNs(0.999))},
            {"max_us", us(latencies.max_ns())}},
           context.json);
  // The numbers come before the errors, even where both streams are one.
  (void)std::fflush(stdout);
}

int RemoveRegions(const Context& context, const LoadArguments& arguments) {
  Connection connection(context);
  std::size_t removed = 0;
  Status status = RemoveLoadRegions(&connection.pd, kMaxRegions, &removed);
  if (!status.ok()) return FailCall(context, status);
  PrintRow({{"method", arguments.method}, {"removed", removed}}, context.json);
  return kExitYes;
}

int RunLoad(Context context, const LoadArguments& arguments) {
  // A call that is tried again counts as an error here, not as a slow success.
  context.client_options.attempts = 1;
  if (arguments.method == kRemoveMethod) return RemoveRegions(context, arguments);
  {
    Connection connection(context);
    pdpb::TsoResponse answer;
    const Status status = connection.pd.Tso({1}, &answer);
    const bool answered = tools::RemoteFailureOf(status) != tools::RemoteFailure::kNone;
    if (!status.ok() && !answered) return FailCall(context, status);
  }
  CatchInterrupts();
  const SteadyClock::time_point start = SteadyClock::now();
  const Result result = RunConnections(context, arguments);
  const std::chrono::duration<double> elapsed = SteadyClock::now() - start;
  PrintResult(context, arguments, elapsed.count(), result);
  int exit_status = kExitYes;
  if (result.errors > 0) {
    (void)Fail(Status::Corruption(
        std::to_string(result.errors) + " errors, the last one: " + result.last_error.message() +
        (result.server_gone ? "; the server does not answer, so the load ended early" : "")));
    exit_status = result.server_gone ? kExitUnreachable : kExitNo;
  }
  if (arguments.method == kUpsertRegionMethod && !arguments.keep) {
    Connection connection(context);
    std::size_t removed = 0;
    if (Status s = RemoveLoadRegions(&connection.pd, arguments.region_count, &removed); !s.ok()) {
      exit_status =
          FailCall(context, {s.code(), "the regions were not removed (kandb-ctl load " +
                                           std::string(kRemoveMethod) + "): " + s.message()});
    }
  }
  return exit_status;
}

}  // namespace

void AddLoadCommand(CLI::App* app, Context* context) {
  auto arguments = std::make_shared<LoadArguments>();
  CLI::App* command = app->add_subcommand(
      "load",
      "Sends requests as fast as the answers arrive and shows the rate and the latencies, after "
      "Ctrl-C too");
  std::vector<std::string> names;
  for (const LoadMethod& method : LoadMethods()) names.emplace_back(method.name);
  names.emplace_back(kRemoveMethod);
  command->add_option("METHOD", arguments->method, "what to send")
      ->required()
      ->check(CLI::IsMember(names));
  const auto add_number = [&](const char* name, std::uint32_t* number, std::uint32_t max,
                              const char* help) {
    command->add_option(name, *number, help)
        ->check(CLI::Range(std::uint32_t{1}, max))
        ->capture_default_str();
  };
  add_number("--connections", &arguments->connection_count, 1024,
             "connections, each with one request at a time");
  add_number("--seconds", &arguments->seconds, 86400, "how long");
  add_number("--regions", &arguments->region_count, kMaxRegions,
             "number of regions or keys that the requests cycle through");
  command->add_flag(
      "--yes", arguments->agreed_to_write,
      "write to the server; without it alloc-id, upsert-region and remove-regions are refused");
  command->add_flag("--keep", arguments->keep, "leave the regions of upsert-region on the server");
  command->footer(
      "alloc-id uses identifiers up for good. upsert-region writes real records, of regions from\n"
      "id " +
      std::to_string(kFirstLoadId) +
      " on, which cover keys from \"kandb-ctl-load/\" on and no\n"
      "others; they are removed at the end, after Ctrl-C too, unless --keep is given. What a "
      "killed run\n"
      "leaves is removed by the method remove-regions.\n"
      "get-region looks up the same keys. heartbeat reports the same regions from a store of that\n"
      "id; the server remembers them until it is restarted.");
  command->callback([=] {
    const bool writes =
        arguments->method == kRemoveMethod || LoadMethodNamed(arguments->method).writes;
    if (writes && !arguments->agreed_to_write) {
      throw CLI::ValidationError(arguments->method, "writes to the server; say --yes");
    }
    if (context->client_options.timeout_ms < 0) {
      throw CLI::ValidationError("--timeout-ms", "a load is bounded in time: 0 or more");
    }
    context->run = [=] { return RunLoad(*context, *arguments); };
  });
}

}  // namespace kandb::ctl
