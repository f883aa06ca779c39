// kandb-sim: a cluster of simulated stores against a real server. Shows how the server fares, and
// checks what it says.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <memory>

#include "kandb_sim/options.h"
#include "kandb_sim/report.h"
#include "kandb_sim/simulation.h"
#include "kandb_sim/spawned_server.h"

namespace kandb::sim {

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // a call failed or an invariant broke
constexpr int kExitUsage = 2;

int Fail(const Status& status) {
  std::fprintf(stderr, "kandb-sim: %s\n", status.message().c_str());
  return kExitFailed;
}

void AddOptions(CLI::App* app, Options* options) {
  CLI::Option_group* which = app->add_option_group("Server");
  which->require_option(1);
  which->add_option("--server", options->server,
                    "server to use, HOST:PORT; it must have no cluster yet");
  which
      ->add_option("--spawn", options->server_binary,
                   "kandb-meta program to start, with a temporary state directory")
      ->check(CLI::ExistingFile);
  const auto add = [&](const char* name, std::uint32_t* number, std::uint32_t min,
                       std::uint32_t max, const char* help) {
    app->add_option(name, *number, help)->check(CLI::Range(min, max))->capture_default_str();
  };
  add("--target-replicas", &options->target_replicas, 1, 16,
      "members of a region; what the server of --server was started with");
  add("--stores", &options->store_count, 1, 1000, "stores");
  add("--regions", &options->region_count, 1, 100000, "regions at the start");
  add("--interval-ms", &options->interval_ms, 0, 60000, "between two heartbeats of a store");
  add("--rounds", &options->disturbed_rounds, 1, 1000000, "heartbeats with disturbances");
  add("--splits", &options->splits_per_round, 0, 1000, "regions split in each such round");
  add("--merges", &options->merges_per_round, 0, 1000, "regions merged in each such round");
  add("--failures", &options->failures, 0, 1000, "stores that fail, in all rounds together");
  add("--down-rounds", &options->down_rounds, 1, 1000000, "rounds until a store returns");
  add("--catch-up-rounds", &options->catch_up_rounds, 0, 1000, "rounds until a learner can vote");
  add("--transfers", &options->transfers_per_round, 0, 1000000,
      "leaderships that a store gives away in a round, at most");
  add("--quiet-rounds", &options->quiet_rounds, 1, 1000000,
      "rounds without disturbances, at most, until all regions must be complete");
  add("--lookups", &options->lookups_per_round, 0, 100000, "lookups checked after each step");
  add("--walk", &options->walk_limit, 1, 100000, "regions looked up one by one at the end");
  add("--measure-ms", &options->measure_ms, 0, 600000, "time for each measurement at the end");
  add("--connections", &options->connection_count, 1, 1000,
      "connections, at most one for each store");
  add("--threads", &options->thread_count, 1, 64, "threads that drive the connections");
  app->add_option("--seed", options->seed, "of all that happens by chance")->capture_default_str();
}

int Run(int argc, char** argv) {
  CLI::App app(
      "Plays a cluster against a kandb-meta server: stores that send heartbeats and do what they\n"
      "are told, regions that split and merge, stores that fail and return. Checks all along that\n"
      "the server's answers are right, and shows at the end how it fared.",
      "kandb-sim");
  Options options;
  AddOptions(&app, &options);
  app.footer(
      "The exit status is 1 when a call failed or an answer was wrong. With --threads 1 a seed\n"
      "repeats the whole run; with more the order of heartbeats, and so the choice of leaders to\n"
      "transfer, is left to chance.");
  try {
    app.parse(argc, argv);
    if (options.target_replicas > options.store_count) {
      throw CLI::ValidationError("--target-replicas", "more than there are stores");
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kExitOk : kExitUsage;
  }
  std::unique_ptr<SpawnedServer> spawned;
  if (!options.server_binary.empty()) {
    if (Status s = SpawnedServer::Start(options.server_binary, options.target_replicas, &spawned);
        !s.ok()) {
      return Fail(s);
    }
  }
  Simulation simulation(options, spawned ? spawned->address() : options.server, spawned.get());
  const Status status = simulation.Run();
  if (::isatty(STDERR_FILENO) == 1) std::fprintf(stderr, "\n");  // ends the line of progress
  if (!status.ok()) return Fail(status);
  PrintReport(options, simulation.results());
  return kExitOk;
}

}  // namespace
}  // namespace kandb::sim

int main(int argc, char** argv) {
  try {
    return kandb::sim::Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kandb-sim: %s\n", error.what());
    return kandb::sim::kExitFailed;
  }
}
