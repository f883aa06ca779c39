// How does what the server costs grow with the regions, how they came and where they are, with the
// stores, with the connections, and how much is written for a change? Costs of requests are
// microseconds of the server's processor time for one, with one client (`us`), and what this client
// saw at the median (`p50`).

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cluster_load.h"
#include "store/meta_store.h"

namespace kandb::bench {
namespace {

struct Options {
  double seconds = 0.5;  // of each measurement
  std::vector<std::uint64_t> regions = {1000, 10000, 100000, 1000000};
  std::vector<std::uint64_t> stores = {3, 10, 100, 1000};
  std::vector<int> connections = {1, 10, 100, 1000, 10000};
  std::vector<std::uint64_t> log_regions = {100000, 250000};
  int active = 1000;                // connections that send, at most
  std::uint64_t changes_mb = 1000;  // as they are stored
  double changes_seconds = 60;      // at most
  std::string only;
};

struct Cost {
  double processor_us;
  Figures figures;
};

Cost Measure(const Server& server, std::vector<Exchange> exchanges, double seconds) {
  const double used = server.ProcessorSeconds();
  const Figures figures = RunFor(seconds, std::move(exchanges));
  return {(server.ProcessorSeconds() - used) * 1e6 / static_cast<double>(figures.requests),
          figures};
}

Cost Measure(const Server& server, std::string_view method, const ClusterSize& size,
             double seconds) {
  return Measure(server, {MakeExchange(server.port(), MethodNamed(method), size, 0)}, seconds);
}

void Print(const Cost& cost) {
  std::printf(" %.1f | %.0f |", cost.processor_us, cost.figures.p50_us);
}

const char* Name(FillOrder order) { return order == FillOrder::kKeys ? "key" : "random"; }

std::uintmax_t LogBytes(const Server& server) {
  std::uintmax_t size = 0;
  for (const auto& file : std::filesystem::directory_iterator(server.state_directory())) {
    if (file.path().filename().string().starts_with("wal-")) size += file.file_size();
  }
  return size;
}

double MedianRestart(Server* server) {
  std::vector<double> seconds;
  for (int i = 0; i < 3; ++i) seconds.push_back(server->Restart());
  return Median(seconds);
}

// "Last" asks for the region that a lookup comes to last, so that it passes all.
void GrowRegions(const Options& options) {
  std::printf(
      "\nRegions, 3 stores. First as they came, then with all in tables.\n\n"
      "| regions | order | tables | memory MiB | lookup us | p50 | last us | ns a region | "
      "heartbeat "
      "us | p50 | change us | p50 |\n"
      "|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
  for (const std::uint64_t regions : options.regions) {
    for (const FillOrder order : {FillOrder::kKeys, FillOrder::kRandom}) {
      const ClusterSize size = {regions, 3};
      Server server;
      server.Fill(size, order);
      for (const bool flushed : {false, true}) {
        if (flushed) server.FlushMemTable();
        const Method last = {"Pd.GetRegion", true, [](const ClusterSize& of, auto) {
                               return Encode(pdpb::GetRegionRequest{KeyAt(of.regions - 1)});
                             }};
        const Cost pass =
            Measure(server, {MakeExchange(server.port(), last, size, 0, 1)}, options.seconds);
        std::printf("| %llu | %s | %zu | %.1f |", static_cast<unsigned long long>(regions),
                    Name(order), server.CountFiles("sst-", ".sst"), server.ResidentMiB());
        Print(Measure(server, "Pd.GetRegion", size, options.seconds));
        std::printf(" %.1f | %.1f |", pass.processor_us,
                    pass.processor_us * 1000 / static_cast<double>(regions));
        Print(Measure(server, "Pd.RegionHeartbeat", size, options.seconds));
        Print(Measure(server, "Pd.UpsertRegion", size, options.seconds));
        std::printf("\n");
        (void)std::fflush(stdout);
      }
    }
  }
}

void GrowStores(const Options& options) {
  std::printf(
      "\nStores, 1,000 regions. A heartbeat reports 100 of them.\n\n"
      "| stores | lookup us | p50 | heartbeat us | p50 | registration us | p50 |\n"
      "|---:|---:|---:|---:|---:|---:|---:|\n");
  for (const std::uint64_t stores : options.stores) {
    const ClusterSize size = {1000, stores};
    const Server server;
    server.Fill(size);
    std::printf("| %llu |", static_cast<unsigned long long>(stores));
    for (const char* method : {"Pd.GetRegion", "Pd.RegionHeartbeat", "Pd.Bootstrap"}) {
      Print(Measure(server, method, size, options.seconds));
    }
    std::printf("\n");
    (void)std::fflush(stdout);
  }
}

void GrowConnections(const Options& options) {
  std::printf(
      "\nConnections, timestamps. Each has had an answer; at most %d send, the others wait.\n\n"
      "| connections | active | requests/s | p50 us | p99 us | us | memory MiB | KiB a connection "
      "|\n|---:|---:|---:|---:|---:|---:|---:|---:|\n",
      options.active);
  for (const int connections : options.connections) {
    const Server server;
    const double before_mib = server.ResidentMiB();
    std::vector<Exchange> exchanges = MakeExchanges(connections, [&](std::size_t i) {
      return MakeExchange(server.port(), MethodNamed("Pd.Tso"), {}, i, 1);
    });
    for (const Exchange& exchange : exchanges) exchange();
    const double open_mib = server.ResidentMiB();
    const int active = std::min(connections, options.active);
    const Cost cost =
        Measure(server, {exchanges.begin(), exchanges.begin() + active}, options.seconds);
    std::printf("| %d | %d | %.0f | %.0f | %.0f | %.1f | %.1f | %.1f |\n", connections, active,
                cost.figures.requests_per_second, cost.figures.p50_us, cost.figures.p99_us,
                cost.processor_us, open_mib, (open_mib - before_mib) * 1024 / connections);
    (void)std::fflush(stdout);
  }
}

void Start(const Options& options) {
  std::printf(
      "\nStart, from the fork to the first line printed, median of three.\n\n"
      "| regions | state | log MB | tables | ms |\n|---:|---|---:|---:|---:|\n");
  const auto print = [](std::uint64_t regions, const char* state, Server* server) {
    const double log_mb = static_cast<double>(LogBytes(*server)) / 1e6;
    const std::size_t tables = server->CountFiles("sst-", ".sst");
    std::printf("| %llu | %s | %.1f | %zu | %.0f |\n", static_cast<unsigned long long>(regions),
                state, log_mb, tables, MedianRestart(server) * 1000);
    (void)std::fflush(stdout);
  };
  Server empty;
  print(0, "empty", &empty);
  for (const std::uint64_t regions : options.log_regions) {
    for (const FillOrder order : {FillOrder::kKeys, FillOrder::kRandom}) {
      Server logged;
      logged.Fill({regions, 3}, order);
      const bool keys = order == FillOrder::kKeys;
      print(regions, keys ? "all in the log, key order" : "all in the log, random order", &logged);
    }
  }
  Server flushed;
  flushed.Fill({options.regions.back(), 3}, FillOrder::kRandom);
  flushed.FlushMemTable();
  print(options.regions.back(), "all in tables", &flushed);
}

// A line of /proc/<pid>/io.
double IoBytes(pid_t pid, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/io");
  double bytes = -1;
  for (std::string word; file >> word;) {
    if (word == name + ":" && file >> bytes) return bytes;
  }
  Check(false, "no " + name);
  return bytes;
}

// `write` counts what the engine hands to the system, `device` the pages that the system then
// writes, whole ones: a page of the log that grows again after a sync is written again.
void WriteAmplification(const Options& options) {
  std::printf(
      "\nWrite amplification: changes in random order among %llu regions that are there, from 8 "
      "connections, until %llu MB of records or %.0f s; then all flushes and compactions.\n\n"
      "| changes a request | records MB | s | write : records | device : records |\n"
      "|---:|---:|---:|---:|---:|\n",
      static_cast<unsigned long long>(options.regions.back()),
      static_cast<unsigned long long>(options.changes_mb), options.changes_seconds);
  for (const std::uint64_t batch : {std::uint64_t{1}, std::uint64_t{100}}) {
    const ClusterSize size = {options.regions.back(), 3};
    const Server server;
    server.Fill(size, FillOrder::kRandom);
    const auto settle = [&] {
      while (server.CountFiles("wal-") > 1 || server.CountFiles("", ".tmp") > 0 ||
             server.CountFiles("sst-", ".sst") > store::kMaxTableFiles) {
        SleepSeconds(0.01);
      }
    };
    settle();
    const double written = IoBytes(server.pid(), "wchar");
    const double to_device = IoBytes(server.pid(), "write_bytes");
    const std::vector<std::uint64_t> numbers = Numbers(size.regions, FillOrder::kRandom);
    // Each connection has requests about a part of the regions, sent over and over.
    const Method change = {"Pd.UpsertRegion", true, [&](const auto&, std::uint64_t i) {
                             pdpb::UpsertRegionRequest request;
                             for (std::uint64_t n = i * batch; n < (i + 1) * batch; ++n) {
                               request.regions.push_back(RegionAt(numbers[n % numbers.size()]));
                             }
                             return Encode(request);
                           }};
    constexpr int kConnections = 8;
    const std::uint64_t distinct = std::max<std::uint64_t>(size.regions / batch / kConnections, 1);
    const double record_mb =
        static_cast<double>(Encode(RegionAt(0)).size() + sizeof("pd/region/10000000") - 1) / 1e6;
    std::atomic<std::uint64_t> changes = 0;
    const auto start = Clock::now();
    ClosedLoop loop(MakeExchanges(kConnections, [&](std::size_t i) -> Exchange {
      return [exchange = MakeExchange(server.port(), change, size, i, distinct), batch, &changes] {
        exchange();
        changes += batch;
      };
    }));
    const auto changed_mb = [&] { return static_cast<double>(changes) * record_mb; };
    while (changed_mb() < static_cast<double>(options.changes_mb) &&
           SecondsSince(start) < options.changes_seconds) {
      SleepSeconds(0.001);
    }
    (void)loop.Stop();
    const double seconds = SecondsSince(start);
    settle();
    std::printf("| %llu | %.0f | %.1f | %.2f | %.2f |\n", static_cast<unsigned long long>(batch),
                changed_mb(), seconds,
                (IoBytes(server.pid(), "wchar") - written) / 1e6 / changed_mb(),
                (IoBytes(server.pid(), "write_bytes") - to_device) / 1e6 / changed_mb());
    (void)std::fflush(stdout);
  }
}

int Main(int argc, char** argv) {
  RaiseDescriptorLimit();
  CLI::App app("How the costs of the server grow.");
  Options options;
  app.add_option("--seconds", options.seconds, "of each measurement")->capture_default_str();
  app.add_option("--regions", options.regions)->capture_default_str();
  app.add_option("--stores", options.stores)->capture_default_str();
  app.add_option("--connections", options.connections)->capture_default_str();
  app.add_option("--active", options.active, "connections that send, at most")
      ->capture_default_str();
  app.add_option("--log-regions", options.log_regions, "whose records a start replays")
      ->capture_default_str();
  app.add_option("--changes-mb", options.changes_mb, "for the write amplification")
      ->capture_default_str();
  app.add_option("--changes-seconds", options.changes_seconds, "at most")->capture_default_str();
  app.add_option("--only", options.only, "regions, stores, connections, start or writes");
  CLI11_PARSE(app, argc, argv);
  const std::pair<const char*, void (*)(const Options&)> tables[] = {
      {"regions", GrowRegions},
      {"stores", GrowStores},
      {"connections", GrowConnections},
      {"start", Start},
      {"writes", WriteAmplification}};
  for (const auto& [name, print] : tables) {
    if (std::string_view(name).find(options.only) != std::string_view::npos) print(options);
  }
  return 0;
}

}  // namespace
}  // namespace kandb::bench

int main(int argc, char** argv) { return kandb::bench::RunProgram(argc, argv, kandb::bench::Main); }
