// kandb-sim: simulates a cluster against a real server, checks the answers and shows latencies and
// costs.

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
      "members of a region; as the server of --server was started with");
  add("--stores", &options->store_count, 1, 1000, "stores");
  add("--regions", &options->region_count, 1, 100000, "regions at the start");
  add("--interval-ms", &options->interval_ms, 0, 60000,
      "milliseconds between two heartbeats of a store");
  add("--rounds", &options->disturbed_rounds, 1, 1000000, "disturbed rounds");
  add("--splits", &options->splits_per_round, 0, 1000, "regions split in each disturbed round");
  add("--merges", &options->merges_per_round, 0, 1000, "regions merged in each disturbed round");
  add("--failures", &options->failures, 0, 1000, "stores that fail during the disturbed rounds");
  add("--down-rounds", &options->down_rounds, 1, 1000000, "rounds until a failed store returns");
  add("--catch-up-rounds", &options->catch_up_rounds, 0, 1000, "rounds until a learner can vote");
  add("--transfers", &options->transfers_per_round, 0, 1000000,
      "most leaderships that a store transfers in a round");
  add("--quiet-rounds", &options->quiet_rounds, 1, 1000000,
      "most rounds of each quiet phase; the run fails if it takes more");
  add("--lookups", &options->lookups_per_round, 0, 100000, "lookups checked after each step");
  add("--walk", &options->walk_limit, 1, 100000, "most regions that the walk looks up");
  add("--measure-ms", &options->measure_ms, 0, 600000, "milliseconds for each measurement");
  add("--reconnect-ms", &options->reconnect_ms, 0, 600000,
      "milliseconds for which a call that is not answered is tried again");
  add("--connections", &options->connection_count, 1, 1000,
      "connections, at most one for each store");
  add("--threads", &options->thread_count, 1, 64, "threads that drive the connections");
  app->add_option("--seed", options->seed, "seed of all random choices")->capture_default_str();
}

int Run(int argc, char** argv) {
  CLI::App app(
      "Simulates a cluster against a kandb-meta server: stores send heartbeats and carry out the\n"
      "commands, regions split and merge, stores fail and return. Checks every answer, and shows\n"
      "counts, latencies and costs at the end.\n"
      "The phases: bootstrap and first splits; quiet rounds until every region has its members;\n"
      "disturbed rounds; quiet rounds again; a walk through the key space; measurements. A round "
      "is\n"
      "one heartbeat of every store.",
      "kandb-sim");
  Options options;
  AddOptions(&app, &options);
  app.footer(
      "The exit status is 1 when a call failed or an answer was wrong. With --threads 1 a seed\n"
      "repeats the whole run. With more, neither the order of heartbeats is fixed nor, in\n"
      "consequence, the choice of leaders to transfer.");
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
