// How far is the engine from what the machine allows, and from the best public engine of its kind?
// Each workload runs the three contestants by turns, `--rounds` times; the table has the medians
// and the medians of the ratios within a round, which are what to trust: above 1 the engine is
// better. Keys of puts are 16 random hexadecimal digits, those of scans and gets
// "pd/region/<number>"; values have 150 bytes.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "bench_program.h"
#include "contestant.h"
#include "support/temp_dir.h"

namespace kandb::bench {
namespace {

using Clock = std::chrono::steady_clock;
using Open = std::function<std::unique_ptr<Contestant>(const ContestantOptions&)>;

constexpr std::size_t kValueSize = 150;  // bytes

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Steele, Lea, Flood: SplitMix64. The same records in every run.
std::uint64_t Mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
  x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
  return x ^ (x >> 31);
}

std::string RandomKey(std::uint64_t i) {
  char text[17];
  (void)std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(Mix(i)));
  return text;
}

std::string RegionKey(std::uint64_t i) { return "pd/region/" + std::to_string(i + 1); }

void SetValue(std::uint64_t i, std::string* value) {
  value->resize(kValueSize);
  for (std::size_t at = 0; at < kValueSize; at += 8) {
    const std::uint64_t word = Mix(i * 32 + at);
    std::memcpy(value->data() + at, &word, std::min<std::size_t>(8, kValueSize - at));
  }
}

// Puts `count` records from `threads` threads; seconds.
double PutAll(Contestant* contestant, std::uint64_t count, int threads) {
  std::atomic<std::uint64_t> next = 0;
  const auto put = [&] {
    std::string value;
    for (std::uint64_t i = next++; i < count; i = next++) {
      SetValue(i, &value);
      contestant->Put(RandomKey(i), value);
    }
  };
  const auto start = Clock::now();
  std::vector<std::thread> others;
  for (int i = 1; i < threads; ++i) others.emplace_back(put);
  put();
  for (std::thread& other : others) other.join();
  return SecondsSince(start);
}

void LoadRegions(Contestant* contestant, std::uint64_t count) {
  // In the order of the keys, which is that of a walk over contiguous records.
  std::vector<std::string> keys;
  for (std::uint64_t i = 0; i < count; ++i) keys.push_back(RegionKey(i));
  std::sort(keys.begin(), keys.end());
  std::string value;
  for (std::uint64_t i = 0; i < count; ++i) {
    SetValue(i, &value);
    contestant->Put(keys[i], value);
  }
}

double ScanOnce(Contestant* contestant, std::uint64_t count) {
  const auto start = Clock::now();
  const ScanResult result = contestant->Scan();
  const double seconds = SecondsSince(start);
  Check(result.records == count && result.sum != 0, "a scan lost records");
  return seconds;
}

// The best of a few passes, in nanoseconds a record; the first one warms the caches.
double Scan(Contestant* contestant, std::uint64_t count) {
  double best = ScanOnce(contestant, count);
  for (int pass = 0; pass < 5; ++pass) best = std::min(best, ScanOnce(contestant, count));
  return best * 1e9 / static_cast<double>(count);
}

double Gets(Contestant* contestant, std::uint64_t count, bool present) {
  const std::uint64_t gets = std::min<std::uint64_t>(count, 200000);
  std::string value;
  std::uint64_t found = 0;
  const auto start = Clock::now();
  for (std::uint64_t i = 0; i < gets; ++i) {
    std::string key = RegionKey(Mix(i) % count);
    if (!present) key += 'x';  // sorts between keys that are there
    found += contestant->Get(key, &value) ? 1 : 0;
  }
  const double seconds = SecondsSince(start);
  Check(found == (present ? gets : 0), "a get went wrong");
  return seconds * 1e9 / static_cast<double>(gets);
}

// --- Workloads: each measures one contestant, in an empty directory, with `count` records ---

double SyncedPuts(const Open& open, ContestantOptions options, std::uint64_t count, int threads) {
  options.sync = true;
  const auto contestant = open(options);
  return static_cast<double>(count) / PutAll(contestant.get(), count, threads);
}

double UnsyncedPuts(const Open& open, const ContestantOptions& options, std::uint64_t count) {
  const auto contestant = open(options);
  return static_cast<double>(count) / PutAll(contestant.get(), count, 1);
}

double MemtableScan(const Open& open, ContestantOptions options, std::uint64_t count) {
  options.write_buffer_size = std::size_t{1} << 30;
  LoadRegions(open(options).get(), count);
  return Scan(open(options).get(), count);  // opened again, as the raw log scans what it found
}

std::unique_ptr<Contestant> OpenCompacted(const Open& open, const ContestantOptions& options,
                                          std::uint64_t count) {
  auto contestant = open(options);
  LoadRegions(contestant.get(), count);
  contestant->Compact();
  return contestant;
}

double TableScan(const Open& open, const ContestantOptions& options, std::uint64_t count) {
  return Scan(OpenCompacted(open, options, count).get(), count);
}

double TableGets(const Open& open, const ContestantOptions& options, std::uint64_t count,
                 bool present) {
  const auto contestant = OpenCompacted(open, options, count);
  (void)Gets(contestant.get(), count, present);  // warms the caches
  return Gets(contestant.get(), count, present);
}

// Opening with all records in the log, in MB of keys and values a second.
double Recovery(const Open& open, ContestantOptions options, std::uint64_t count) {
  options.write_buffer_size = std::size_t{1} << 30;
  (void)PutAll(open(options).get(), count, 1);
  const auto start = Clock::now();
  const auto contestant = open(options);
  const double seconds = SecondsSince(start);
  return static_cast<double>(count * (16 + kValueSize)) / 1e6 / seconds;
}

struct Workload {
  const char* name;
  const char* unit;
  bool less_is_better;
  std::uint64_t count;
  std::function<double(const Open&, const ContestantOptions&, std::uint64_t)> run;
};

using namespace std::placeholders;
const Workload workloads[] = {
    {"durable puts, 1 thread", "puts/s", false, 3000, std::bind(SyncedPuts, _1, _2, _3, 1)},
    {"durable puts, 64 threads", "puts/s", false, 60000, std::bind(SyncedPuts, _1, _2, _3, 64)},
    {"puts without sync", "puts/s", false, 1000000, UnsyncedPuts},
    {"scan, tables, 100k", "ns/record", true, 100000, TableScan},
    {"scan, tables, 1M", "ns/record", true, 1000000, TableScan},
    {"scan, memtable, 100k", "ns/record", true, 100000, MemtableScan},
    {"get, present, 1M", "ns", true, 1000000, std::bind(TableGets, _1, _2, _3, true)},
    {"get, absent, 1M", "ns", true, 1000000, std::bind(TableGets, _1, _2, _3, false)},
    {"recovery", "MB/s", false, 340000, Recovery},
};

void Run(const Workload& workload, int rounds, std::uint64_t divisor) {
  const Open contestants[] = {OpenRawLog, OpenLevelDb, OpenEngine};
  const std::uint64_t count = std::max<std::uint64_t>(workload.count / divisor, 64);
  std::vector<double> figures[3];
  std::vector<double> ratios[2];
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < 3; ++i) {
      const testing::TempDir dir;
      figures[i].push_back(workload.run(contestants[i], {.directory = dir.path()}, count));
    }
    for (std::size_t i = 0; i < 2; ++i) {
      const double ratio = figures[2].back() / figures[i].back();
      ratios[i].push_back(workload.less_is_better ? 1 / ratio : ratio);
    }
  }
  std::printf("| %s | %s | %.4g | %.4g | %.4g | %.2f | %.2f |\n", workload.name, workload.unit,
              Median(figures[0]), Median(figures[1]), Median(figures[2]), Median(ratios[0]),
              Median(ratios[1]));
  (void)std::fflush(stdout);
}

int Main(int argc, char** argv) {
  CLI::App app("The engine beside a raw log and a public engine.");
  int rounds = 3;
  std::uint64_t divisor = 1;
  std::string only;
  app.add_option("--rounds", rounds)->capture_default_str()->check(CLI::PositiveNumber);
  app.add_option("--divisor", divisor, "runs with so many times fewer records")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_option("--only", only, "workloads whose names contain this");
  CLI11_PARSE(app, argc, argv);
  std::printf(
      "| workload | unit | raw log | leveldb | engine | engine : raw log | engine : leveldb |\n"
      "|---|---|---:|---:|---:|---:|---:|\n");
  for (const Workload& workload : workloads) {
    if (std::string_view(workload.name).find(only) != std::string_view::npos) {
      Run(workload, rounds, divisor);
    }
  }
  return 0;
}

}  // namespace
}  // namespace kandb::bench

int main(int argc, char** argv) { return kandb::bench::RunProgram(argc, argv, kandb::bench::Main); }
