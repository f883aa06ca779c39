// Does the server meet its goals? One table in three minutes. A goal is a bound for a figure or for
// a ratio; of a ratio both sides are measured alternately here, and the median of the ratios within
// a round counts. For ratios to the tree before, --before names its kandb-meta. The last column is
// worth something only on a machine that does nothing else.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cluster_load.h"
#include "limit_process.h"
#include "lsm/lsm_db.h"

namespace kandb::bench {
namespace {

struct Options {
  int rounds = 5;
  double seconds = 1;  // of a measurement
  std::uint64_t divisor = 1;
  int connections = 64;  // of those who write
  std::string only;
  std::string before;
};

using Rounds = std::vector<double>;
// One contestant's turn: its values.
using Turn = std::function<std::vector<double>()>;

// The values of each contestant, [contestant][value][round]. They change places from round to
// round.
std::vector<std::vector<Rounds>> Alternate(int rounds, const std::vector<Turn>& turns) {
  std::vector<std::vector<Rounds>> values(turns.size());
  for (std::size_t round = 0; round < static_cast<std::size_t>(rounds); ++round) {
    for (std::size_t place = 0; place < turns.size(); ++place) {
      const std::size_t who = (place + round) % turns.size();
      const std::vector<double> turn = turns[who]();
      values[who].resize(turn.size());
      for (std::size_t i = 0; i < turn.size(); ++i) values[who][i].push_back(turn[i]);
    }
  }
  return values;
}

enum class Bound { kAtLeast, kAtMost };

void PrintGoal(const std::string& goal, double seen, Bound bound, double wanted) {
  const bool met = bound == Bound::kAtLeast ? seen >= wanted : seen <= wanted;
  std::printf("| %s | %.3g | %s %.3g | %s |\n", goal.c_str(), seen,
              bound == Bound::kAtLeast ? "at least" : "at most", wanted, met ? "yes" : "no");
  (void)std::fflush(stdout);
}

void PrintRatio(const std::string& goal, const Rounds& values, const Rounds& others, Bound bound,
                double wanted) {
  Rounds ratios;
  for (std::size_t i = 0; i < values.size(); ++i) ratios.push_back(values[i] / others[i]);
  char figures[64];
  (void)std::snprintf(figures, sizeof(figures), " (%.4g : %.4g)", Median(values), Median(others));
  PrintGoal(goal + figures, Median(ratios), bound, wanted);
}

class Goals {
 public:
  Goals(Options goal_options, const GroupCommitProcess* minimal_server)
      : options(std::move(goal_options)), minimal(minimal_server) {}

  void Run() {
    if (Wanted("engine")) GetBesideWriter();
    if (Wanted("server")) {
      const ClusterSize size = {Scaled(1000), 3};
      const Server now;
      now.Fill(size);
      std::unique_ptr<Server> before;
      if (!options.before.empty()) {
        before = std::make_unique<Server>(options.before);
        before->Fill(size);
      }
      PacedBesideWriters(now, before.get(), size);
      ReadersBesideWriters(now, before.get(), size);
      Rates(now, before.get(), size);
    }
    if (Wanted("merge")) Merges();
    if (Wanted("lookup")) AbsentLookups();
    if (Wanted("heartbeat")) Heartbeats();
  }

 private:
  bool Wanted(std::string_view group) const {
    return group.find(options.only) != std::string_view::npos;
  }
  std::uint64_t Scaled(std::uint64_t count) const {
    return std::max<std::uint64_t>(count / options.divisor, 100);
  }
  static std::unique_ptr<lsm::LsmDb> Open(const std::string& directory, bool sync,
                                          std::uint64_t write_buffer_size) {
    std::unique_ptr<lsm::LsmDb> db;
    const Status status = lsm::LsmDb::Open(
        directory, {.write_buffer_size = write_buffer_size, .max_table_files = 100, .sync = sync},
        &db);
    Check(status.ok(), status.ToString());
    return db;
  }
  static lsm::Entry Record(std::uint64_t n) {
    const pdpb::Region region = RegionAt(n);
    return {lsm::kPut, "pd/region/" + std::to_string(region.id), Encode(region)};
  }
  // A server's, so that those of now and before can alternate.
  std::vector<Turn> Turns(const Server& now, const Server* before,
                          const std::function<std::vector<double>(int port)>& turn) const {
    std::vector<Turn> turns = {[&now, turn] { return turn(now.port()); }};
    if (before != nullptr) turns.push_back([before, turn] { return turn(before->port()); });
    return turns;
  }
  std::vector<Exchange> Writers(int port, const ClusterSize& size) const {
    return MakeExchanges(options.connections, [&](std::size_t i) {
      return MakeExchange(port, MethodNamed("Pd.UpsertRegion"), size, i);
    });
  }

  // A read that does not wait is far shorter than the writer's median, which is a sync.
  void GetBesideWriter() const {
    const testing::TempDir directory;
    const auto db = Open(directory.path(), true, kLargeBuffer);
    constexpr std::uint64_t kRecords = 1000;
    std::vector<lsm::Entry> records;
    for (std::uint64_t n = 0; n < kRecords; ++n) records.push_back(Record(n));
    const auto must = [](const Status& status) { Check(status.ok(), status.ToString()); };
    must(db->Write(records));
    const Turn turn = [&] {
      std::uint64_t written = 0;
      std::uint64_t read = 0;
      std::string value;
      bool found = false;
      ClosedLoop writer({[&] { must(db->Write({records[written++ % kRecords]})); }});
      PacedClient reader([&] { must(db->Get(records[read++ % kRecords].key, &value, &found)); });
      SleepSeconds(options.seconds);
      PacedLatencies gets;
      for (const auto& sample : reader.Stop()) gets.Add(sample.latency);
      return std::vector<double>{gets.PercentileMs(0.99) * 1000, writer.Stop().p50_us};
    };
    const auto values = Alternate(options.rounds, {turn});
    PrintRatio("engine: Get, one a ms, beside a durable writer, p99 us : the writer's median",
               values[0][0], values[0][1], Bound::kAtMost, 0.05);
  }

  void PacedBesideWriters(const Server& now, const Server* before, const ClusterSize& size) const {
    const char* const paced[] = {"Pd.GetRegion", "Pd.RegionHeartbeat"};
    const auto values = Alternate(options.rounds, Turns(now, before, [&](int port) {
                                    ClosedLoop writers(Writers(port, size));
                                    std::vector<std::unique_ptr<PacedClient>> clients;
                                    for (const char* method : paced) {
                                      clients.push_back(std::make_unique<PacedClient>(
                                          MakeExchange(port, MethodNamed(method), size, 0)));
                                    }
                                    SleepSeconds(options.seconds);
                                    std::vector<double> of_turn;
                                    for (const auto& client : clients) {
                                      PacedLatencies latencies;
                                      for (const auto& sample : client->Stop())
                                        latencies.Add(sample.latency);
                                      of_turn.push_back(latencies.PercentileMs(0.99));
                                      of_turn.push_back(latencies.PercentileMs(1));
                                    }
                                    return of_turn;
                                  }));
    for (std::size_t i = 0; i < std::size(paced); ++i) {
      const std::string name = paced[i] + std::string(", one a ms, beside writers");
      if (before != nullptr) {
        PrintRatio(name + ", p99 ms : before", values[0][2 * i], values[1][2 * i], Bound::kAtMost,
                   0.125);
      }
      const Rounds& longest = values[0][2 * i + 1];
      PrintGoal(name + ", max ms", *std::max_element(longest.begin(), longest.end()),
                Bound::kAtMost, 30);
    }
  }

  void ReadersBesideWriters(const Server& now, const Server* before,
                            const ClusterSize& size) const {
    if (before == nullptr) return;
    const auto values =
        Alternate(options.rounds, Turns(now, before, [&](int port) {
                    ClosedLoop writers(Writers(port, size));
                    const Figures readers =
                        LoadServer(port, MethodNamed("Pd.GetRegion"), size, 8, options.seconds);
                    return std::vector<double>{writers.Stop().requests_per_second,
                                               readers.requests_per_second};
                  }));
    PrintRatio("writers beside 8 readers in closed loops, /s : before", values[0][0], values[1][0],
               Bound::kAtLeast, 0.9);
    PrintRatio("these readers, /s : before", values[0][1], values[1][1], Bound::kAtLeast, 1.5);
  }

  void Rates(const Server& now, const Server* before, const ClusterSize& size) const {
    const auto turn = [&](int port, const char* method, int connections) {
      return [this, port, method, connections, &size] {
        return std::vector<double>{
            LoadServer(port, MethodNamed(method), size, connections, options.seconds)
                .requests_per_second};
      };
    };
    const int many = options.connections;
    enum { kChanges, kMinimal, kStores, kIds8, kTimestamps8, kIds64, kTimestamps64, kBefore };
    std::vector<Turn> turns = {turn(now.port(), "Pd.UpsertRegion", many),
                               turn(minimal->port(), "Pd.UpsertRegion", many),
                               turn(now.port(), "Pd.Bootstrap", many),
                               turn(now.port(), "Pd.AllocId", 8),
                               turn(now.port(), "Pd.Tso", 8),
                               turn(now.port(), "Pd.AllocId", many),
                               turn(now.port(), "Pd.Tso", many)};
    if (before != nullptr) turns.push_back(turn(before->port(), "Pd.UpsertRegion", many));
    const auto values = Alternate(options.rounds, turns);
    const auto print = [&](const char* goal, std::size_t value, std::size_t other, double wanted) {
      PrintRatio(goal, values[value][0], values[other][0], Bound::kAtLeast, wanted);
    };
    print("changes over 64 connections, /s : the minimal server", kChanges, kMinimal, 0.95);
    if (before != nullptr) print("the same : before", kChanges, kBefore, 1.2);
    print("registered stores over 64 connections, /s : changes", kStores, kChanges, 0.7);
    print("ids over 8 connections, /s : timestamps", kIds8, kTimestamps8, 0.8);
    print("ids over 64 connections, /s : timestamps", kIds64, kTimestamps64, 0.8);
  }

  // An engine whose records, in this order, came in `tables` equal parts that are a table each; or
  // as the buffer fills, when `tables` is 0.
  static std::unique_ptr<lsm::LsmDb> OpenFilled(const std::string& directory, std::uint64_t count,
                                                FillOrder order, std::uint64_t tables) {
    const std::vector<std::uint64_t> numbers = Numbers(count, order);
    const std::uint64_t buffer = tables == 0 ? kServerBuffer : kLargeBuffer;
    const std::uint64_t part = tables == 0 ? count : (count + tables - 1) / tables;
    auto db = Open(directory, false, buffer);
    for (std::uint64_t i = 0; i < count; ++i) {
      // With a buffer of one byte, the next write flushes all that the log brought back.
      const bool last = tables != 0 && ((i + 1) % part == 0 || i + 1 == count);
      if (last) {
        db = nullptr;
        db = Open(directory, false, 1);
      }
      const Status status = db->Write({Record(numbers[i])});
      Check(status.ok(), status.ToString());
      if (!last) continue;
      db->WaitForBackgroundIdle();
      db = nullptr;
      db = Open(directory, false, buffer);
    }
    db->WaitForBackgroundIdle();
    Check(tables == 0 || db->TableFileCount() == tables, "another number of tables");
    return db;
  }

  void Merges() const {
    struct Case {
      std::uint64_t count;
      FillOrder order;
      std::uint64_t tables;
    };
    const std::uint64_t some = Scaled(200000);
    const std::uint64_t many = Scaled(1000000);
    const Case cases[] = {{some, FillOrder::kRandom, 1},
                          {some, FillOrder::kRandom, 5},
                          {some, FillOrder::kRandom, 9},
                          {many, FillOrder::kKeys, 0},
                          {many, FillOrder::kRandom, 0}};
    std::vector<std::unique_ptr<testing::TempDir>> directories;
    std::vector<std::unique_ptr<lsm::LsmDb>> engines;
    std::vector<Turn> turns;
    for (const Case& each : cases) {
      directories.push_back(std::make_unique<testing::TempDir>());
      engines.push_back(
          OpenFilled(directories.back()->path(), each.count, each.order, each.tables));
      turns.push_back([db = engines.back().get(), count = each.count] {
        double best = std::numeric_limits<double>::infinity();
        for (int pass = 0; pass < 3; ++pass) {
          std::uint64_t seen = 0;
          std::size_t sum = 0;
          const auto add = [&](std::string_view key, std::string_view value) {
            ++seen;
            sum +=
                static_cast<unsigned char>(key.back()) + static_cast<unsigned char>(value.front());
            return true;
          };
          const auto start = Clock::now();
          const Status status = db->ForEach("", "", std::numeric_limits<std::uint32_t>::max(), add);
          best = std::min(best, SecondsSince(start));
          Check(status.ok() && seen == count && sum != 0, "a scan went wrong");
        }
        return std::vector<double>{best * 1e9 / static_cast<double>(count)};
      });
    }
    const auto values = Alternate(options.rounds, turns);
    const auto print = [&](const char* goal, std::size_t value, std::size_t other, double wanted) {
      PrintRatio(goal, values[value][0], values[other][0], Bound::kAtMost, wanted);
    };
    print("scan of 5 interleaved tables, ns a record : of one table", 1, 0, 1.5);
    print("scan of 9 interleaved tables, ns a record : of one table", 2, 0, 1.5);
    print("scan of 1,000,000 records from random order, ns a record : from key order", 4, 3, 2);
  }

  // One client asks for the last region, which is a pass over all, and for a key above it.
  void AbsentLookups() const {
    const ClusterSize size = {Scaled(100000), 3};
    const Server server;
    server.Fill(size);
    const auto ask = [&](const char* method, const std::string& key) {
      RawConnection connection(server.port());
      return RunFor(
          options.seconds, {[&] {
            kanrpc::Frame answer;
            const std::string payload = Encode(pdpb::GetRegionRequest{key});
            Check(connection.Send(kanrpc::BuildFrame(kanrpc::kRequest, 1, method, payload)) &&
                      connection.Read(&answer).ok() &&
                      (answer.type == kanrpc::kResponse) == (key < KeyAt(size.regions)),
                  "a lookup went wrong");
          }});
    };
    const auto turn = [&](const std::string& key) {
      return [&ask, key] { return std::vector<double>{ask("Pd.GetRegion", key).p50_us}; };
    };
    const auto values = Alternate(options.rounds, {turn("z"), turn(KeyAt(size.regions - 1))});
    PrintRatio("lookup of a key without a region among 100,000, median us : of the last one",
               values[0][0], values[1][0], Bound::kAtMost, 1.1);
  }

  // Processor time of the server for a heartbeat of 1,000 entries, with 100 stores, when 1,000 and
  // when 1,000,000 regions have been reported.
  void Heartbeats() const {
    constexpr std::uint64_t kEntries = 1000;
    const std::uint64_t reported[] = {kEntries, Scaled(1000000)};
    const Method heartbeat = {"Pd.RegionHeartbeat", true, [](const ClusterSize& size, auto) {
                                return HeartbeatPayload(1, 0, kEntries, size);
                              }};
    std::unique_ptr<Server> servers[std::size(reported)];
    std::vector<Turn> turns;
    for (std::size_t i = 0; i < std::size(reported); ++i) {
      const ClusterSize size = {std::max(reported[i], kEntries), 100};
      servers[i] = std::make_unique<Server>();
      servers[i]->Fill({1, size.stores});
      RawConnection connection(servers[i]->port());
      for (std::uint64_t first = 0; first < size.regions; first += kEntries) {
        (void)Call(&connection, heartbeat.name,
                   HeartbeatPayload(1 + first / kEntries % size.stores, first, kEntries, size));
      }
      turns.push_back([this, &heartbeat, size, server = servers[i].get()] {
        std::uint64_t done = 0;
        const double used = server->ProcessorSeconds();
        const Exchange exchange = MakeExchange(server->port(), heartbeat, size, 0, 1);
        (void)RunFor(options.seconds / 2, {[&] {
                       exchange();
                       ++done;
                     }});
        return std::vector<double>{(server->ProcessorSeconds() - used) * 1000 /
                                   static_cast<double>(done)};
      });
    }
    const auto values = Alternate(options.rounds, turns);
    PrintGoal("heartbeat of 1,000 entries, ms of processor time", Median(values[0][0]),
              Bound::kAtMost, 0.2);
    PrintRatio("the same at 1,000,000 regions : at 1,000", values[1][0], values[0][0],
               Bound::kAtMost, 1.5);
  }

  static constexpr std::uint64_t kServerBuffer = std::uint64_t{64} << 20;
  static constexpr std::uint64_t kLargeBuffer = std::uint64_t{1} << 30;

  const Options options;
  const GroupCommitProcess* const minimal;
};

int Main(int argc, char** argv) {
  const GroupCommitProcess minimal;  // forks, and therefore comes first
  CLI::App app("The goals, measured, in one table.");
  Options options;
  app.add_option("--rounds", options.rounds)->capture_default_str()->check(CLI::PositiveNumber);
  app.add_option("--seconds", options.seconds, "of each measurement")->capture_default_str();
  app.add_option("--divisor", options.divisor, "runs with so many times fewer records")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_option("--connections", options.connections, "of those who write")->capture_default_str();
  app.add_option("--only", options.only, "groups whose names contain this")
      ->description("engine, server, merge, lookup or heartbeat");
  app.add_option("--before", options.before, "the kandb-meta of the tree before")
      ->check(CLI::ExistingFile);
  CLI11_PARSE(app, argc, argv);
  if (!options.before.empty()) options.before = std::filesystem::absolute(options.before);
  std::printf("| goal | seen | wanted | met |\n|---|---:|---:|---|\n");
  Goals(options, &minimal).Run();
  return 0;
}

}  // namespace
}  // namespace kandb::bench

int main(int argc, char** argv) { return kandb::bench::RunProgram(argc, argv, kandb::bench::Main); }
