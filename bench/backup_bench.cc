// What do backups of a running server cost those who write? Writers in closed loops change regions:
// by themselves, and while kandb-ctl backs the state directory up again and again, to the same file
// system: as it is, niced, and without reading each copy again. The contestants change places from
// round to round; `: none` is the median ratio within a round. Backups run on the server's cores.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "cluster_load.h"
#include "tools/common/child_process.h"

namespace kandb::bench {
namespace {

struct Options {
  int rounds = 5;
  double seconds = 3;  // of each measurement, at least one backup
  std::uint64_t regions = 100000;
  int writers = 64;
};

struct Contestant {
  const char* name;
  bool backs_up;
  int niceness;
  std::vector<std::string> flags;
  // A value of each round.
  std::vector<double> rates = {};
  std::vector<double> ratios = {};  // to the first contestant
  std::vector<double> p50s = {};
  std::vector<double> p99s = {};
  std::vector<double> backup_seconds = {};  // of each backup
};

void BackUp(const Server& server, const std::string& out, Contestant* contestant) {
  std::vector<std::string> arguments = {"backup", server.state_directory(), "--out", out};
  arguments.insert(arguments.end(), contestant->flags.begin(), contestant->flags.end());
  const auto start = Clock::now();
  const auto in_child = [niceness = contestant->niceness] { (void)::nice(niceness); };
  tools::ChildProcess backup(KANDB_CTL_BINARY, arguments,
                             {.capture_errors = true, .in_child = in_child});
  std::string errors;
  (void)backup.WaitForExit(&errors);  // 1 for what it finds in these records
  Check(std::filesystem::exists(out + "/SHA256SUMS"), "no backup: " + errors);
  contestant->backup_seconds.push_back(SecondsSince(start));
}

void Measure(const Options& options, const Server& server, Contestant* contestant) {
  const testing::TempDir backups;
  const ClusterSize size = {options.regions, 3};
  ClosedLoop writers(MakeExchanges(options.writers, [&](std::size_t i) {
    return MakeExchange(server.port(), MethodNamed("Pd.UpsertRegion"), size, i);
  }));
  const auto start = Clock::now();
  for (int n = 0; n == 0 || SecondsSince(start) < options.seconds; ++n) {
    if (contestant->backs_up) {
      BackUp(server, backups.File(std::to_string(n)), contestant);
    } else {
      SleepSeconds(options.seconds);
    }
  }
  const Figures figures = writers.Stop();
  contestant->rates.push_back(figures.requests_per_second);
  contestant->p50s.push_back(figures.p50_us);
  contestant->p99s.push_back(figures.p99_us);
}

std::uintmax_t StateBytes(const Server& server) {
  std::uintmax_t bytes = 0;
  for (const auto& file : std::filesystem::directory_iterator(server.state_directory())) {
    bytes += file.file_size();
  }
  return bytes;
}

int Main(int argc, char** argv) {
  CLI::App app("What backups of a running server cost those who write.");
  Options options;
  app.add_option("--rounds", options.rounds)->capture_default_str()->check(CLI::PositiveNumber);
  app.add_option("--seconds", options.seconds, "of each measurement, or one backup")
      ->capture_default_str();
  app.add_option("--regions", options.regions, "of the cluster")->capture_default_str();
  app.add_option("--writers", options.writers)->capture_default_str();
  CLI11_PARSE(app, argc, argv);

  const Server server;
  server.Fill({options.regions, 3}, FillOrder::kRandom);
  Contestant contestants[] = {{"none", false, 0, {}},
                              {"one after another", true, 0, {}},
                              {"niced by 10", true, 10, {}},
                              {"--no-verify", true, 0, {"--no-verify"}}};
  constexpr std::size_t kCount = std::size(contestants);
  std::printf("%llu regions, %d writers; the state was %.1f MB at first",
              static_cast<unsigned long long>(options.regions), options.writers,
              static_cast<double>(StateBytes(server)) / 1e6);
  for (int round = 0; round < options.rounds; ++round) {
    for (std::size_t place = 0; place < kCount; ++place) {
      Measure(options, server, &contestants[(place + static_cast<std::size_t>(round)) % kCount]);
    }
    for (Contestant& contestant : contestants) {
      contestant.ratios.push_back(contestant.rates.back() / contestants[0].rates.back());
    }
  }
  std::printf(", %.1f MB and %zu tables at last\n\n", static_cast<double>(StateBytes(server)) / 1e6,
              server.CountFiles("sst-", ".sst"));
  std::printf(
      "| backups | number | s each | changes/s | : none | p50 us | p99 us |\n"
      "|---|---:|---:|---:|---:|---:|---:|\n");
  for (const Contestant& contestant : contestants) {
    const std::vector<double>& seconds = contestant.backup_seconds;
    std::printf("| %s | %zu | %.2f | %.0f | %.2f | %.0f | %.0f |\n", contestant.name,
                seconds.size(), seconds.empty() ? 0 : Median(seconds), Median(contestant.rates),
                Median(contestant.ratios), Median(contestant.p50s), Median(contestant.p99s));
  }
  return 0;
}

}  // namespace
}  // namespace kandb::bench

int main(int argc, char** argv) { return kandb::bench::RunProgram(argc, argv, kandb::bench::Main); }
