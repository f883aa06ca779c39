// How many requests a second does the real server answer, and how does that change with
// connections, regions and stores? Closed loop: each connection has one request at a time. Where a
// request costs next to nothing the limit is the kernel: an echo process moves messages of the same
// sizes. The limit of UpsertRegion is a minimal server that does no more than group commits, as
// durable as ours. With --before, the executable of an older build runs too. The contestants change
// places from round to round; `: x` is the median ratio within a round. Clients and servers share
// the processors of this machine; "1, one core" runs both on the same one, without the wake-up of
// an idle core.

#include <sched.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "cluster_load.h"
#include "limit_process.h"

namespace kandb::bench {
namespace {

struct Options {
  int rounds = 3;
  double seconds = 1;
  std::vector<std::uint64_t> regions = {1000, 10000, 100000, 1000000};
  std::vector<std::uint64_t> stores = {3, 1000};
  std::vector<int> connections = {1, 8, 64};
  std::string only;
  std::string before;
};

// Puts all threads of the process, and so those that they start later, on the first core or on all.
void UseOneCore(pid_t process, bool one) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  for (unsigned core = 0; core < (one ? 1 : std::thread::hardware_concurrency()); ++core) {
    CPU_SET(core, &cores);
  }
  const std::filesystem::path threads = "/proc/" + std::to_string(process) + "/task";
  for (const auto& thread : std::filesystem::directory_iterator(threads)) {
    // A thread may have ended meanwhile.
    (void)::sched_setaffinity(std::stoi(thread.path().filename()), sizeof(cores), &cores);
  }
}

class Table {
 public:
  Table(Options table_options, const EchoProcess* echo_process,
        const GroupCommitProcess* minimal_server)
      : options(std::move(table_options)), echo(echo_process), minimal(minimal_server) {}

  void MeasureSize(const ClusterSize& size, bool smallest) {
    const Server server;
    server.Fill(size);
    std::unique_ptr<Server> before;
    if (!options.before.empty()) {
      before = std::make_unique<Server>(options.before);
      before->Fill(size);
    }
    for (const Method& method : Methods()) {
      if (std::string_view(method.name).find(options.only) == std::string_view::npos) continue;
      if (!method.depends_on_size && !smallest) continue;
      const auto measure = [&](int connections, bool one_core) {
        Measure(server, before.get(), method, size, connections, one_core);
      };
      if (smallest) measure(1, true);
      for (const int connections : options.connections) measure(connections, false);
    }
  }

 private:
  void Measure(const Server& server, const Server* before, const Method& method,
               const ClusterSize& size, int connections, bool one_core) const {
    RawConnection probe(server.port());
    const std::string payload = method.payload(size, 0);
    const std::string answer = Call(&probe, method.name, payload);
    const auto frame_size = [&](std::string_view part) {
      return static_cast<std::uint32_t>(
          kanrpc::BuildFrame(kanrpc::kRequest, 1, method.name, part).size());
    };
    const EchoProcess::Sizes sizes = {frame_size(payload), frame_size(answer)};
    const bool commits = std::string_view(method.name) == "Pd.UpsertRegion";

    // The contestants in the order of the columns; a port of 0 takes no part, -1 is the echo.
    const int ports[] = {server.port(), -1, commits ? minimal->port() : 0,
                         before == nullptr ? 0 : before->port()};
    constexpr std::size_t kContestants = std::size(ports);
    std::vector<double> rates[kContestants];
    std::vector<double> ratios[kContestants];  // of the first to each
    std::vector<double> p50s;
    std::vector<double> p99s;
    std::vector<pid_t> processes = {::getpid(), echo->pid(), minimal->pid(), server.pid()};
    if (before != nullptr) processes.push_back(before->pid());
    for (const pid_t process : processes) UseOneCore(process, one_core);
    for (int round = 0; round < options.rounds; ++round) {
      for (std::size_t place = 0; place < kContestants; ++place) {
        const std::size_t who = (place + static_cast<std::size_t>(round)) % kContestants;
        if (ports[who] == 0) continue;
        const Figures figures =
            ports[who] < 0
                ? RunFor(options.seconds,
                         MakeExchanges(connections,
                                       [&](std::size_t) { return echo->MakeExchange(sizes); }))
                : LoadServer(ports[who], method, size, connections, options.seconds);
        rates[who].push_back(figures.requests_per_second);
        if (who != 0) continue;
        p50s.push_back(figures.p50_us);
        p99s.push_back(figures.p99_us);
      }
      for (std::size_t who = 1; who < kContestants; ++who) {
        if (ports[who] != 0) ratios[who].push_back(rates[0].back() / rates[who].back());
      }
    }
    for (const pid_t process : processes) UseOneCore(process, false);

    std::printf("| %s | %llu | %llu | %d%s | %.0f | %.0f | %.0f |", method.name,
                static_cast<unsigned long long>(size.regions),
                static_cast<unsigned long long>(size.stores), connections,
                one_core ? ", one core" : "", Median(rates[0]), Median(p50s), Median(p99s));
    for (std::size_t who = 1; who < (options.before.empty() ? 3 : kContestants); ++who) {
      if (ports[who] == 0) {
        std::printf(" - | - |");
      } else {
        std::printf(" %.0f | %.2f |", Median(rates[who]), Median(ratios[who]));
      }
    }
    std::printf("\n");
    (void)std::fflush(stdout);
  }

  const Options options;
  const EchoProcess* const echo;
  const GroupCommitProcess* const minimal;
};

int Main(int argc, char** argv) {
  const EchoProcess echo;  // these fork, and therefore come first
  const GroupCommitProcess minimal;
  CLI::App app("The server under a closed loop of requests, beside its limits.");
  Options options;
  app.add_option("--rounds", options.rounds)->capture_default_str()->check(CLI::PositiveNumber);
  app.add_option("--seconds", options.seconds, "of each measurement")->capture_default_str();
  app.add_option("--regions", options.regions, "sizes of the cluster")->capture_default_str();
  app.add_option("--stores", options.stores, "sizes of the cluster")->capture_default_str();
  app.add_option("--connections", options.connections)->capture_default_str();
  app.add_option("--only", options.only, "methods whose names contain this");
  app.add_option("--before", options.before, "the kandb-meta of an older build")
      ->check(CLI::ExistingFile);
  CLI11_PARSE(app, argc, argv);
  if (!options.before.empty()) options.before = std::filesystem::absolute(options.before);
  const bool before = !options.before.empty();
  std::printf(
      "| method | regions | stores | connections | requests/s | p50 us | p99 us | echo/s | : echo "
      "| minimal/s | : minimal |%s\n|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|%s\n",
      before ? " before/s | : before |" : "", before ? "---:|---:|" : "");
  Table table(options, &echo, &minimal);
  bool smallest = true;
  for (const std::uint64_t regions : options.regions) {
    table.MeasureSize({regions, options.stores.front()}, smallest);
    smallest = false;
  }
  for (std::size_t i = 1; i < options.stores.size(); ++i) {
    table.MeasureSize({options.regions.front(), options.stores[i]}, false);
  }
  return 0;
}

}  // namespace
}  // namespace kandb::bench

int main(int argc, char** argv) { return kandb::bench::RunProgram(argc, argv, kandb::bench::Main); }
