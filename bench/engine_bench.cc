// How far is the engine from what the machine allows, and from the best public engines of its kind?
// Each workload runs the contestants alternately, `--rounds` times; the table has the medians and
// the medians of the ratios within a round, which are what to trust: above 1 the engine is better,
// `: public` than the better of the two. The contestants change places from round to round. Keys of
// puts are 16 random hexadecimal digits, those of scans and gets "pd/region/<number>"; values have
// 150 bytes. Scans and gets of "random order" find the records as they came, shuffled, in tables as
// the engines make them; the others find one table, or one memtable, filled in key order. The limit
// of durable puts is a log whose blocks exist already: see the last two contestants.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <random>
#include <thread>
#include <vector>

#include "bench_program.h"
#include "contestant.h"
#include "support/proc.h"
#include "support/temp_dir.h"

namespace kandb::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kValueSize = 150;  // bytes

struct Competitor {
  const char* name;
  std::unique_ptr<Contestant> (*open)(const ContestantOptions&);
};
const Competitor competitors[] = {{"raw log", OpenRawLog},
                                  {"leveldb", OpenLevelDb},
                                  {"rocksdb", OpenRocksDb},
                                  {"engine", OpenEngine},
                                  {"log, KEEP_SIZE", OpenKeepSizeLog},
                                  {"log, zeroed", OpenZeroedLog}};
constexpr std::size_t kEngine = 3;
constexpr std::size_t kForAll = 4;  // the others are for durable puts only

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
  constexpr std::uint64_t kHighestBit = std::uint64_t{1} << 63;  // for 16 digits
  std::string text(16, '\0');
  (void)std::to_chars(text.data(), text.data() + text.size(), Mix(i) | kHighestBit, 16);
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

// In the order of the keys, which is that of a walk over contiguous records, or in random order.
void LoadRegions(Contestant* contestant, std::uint64_t count, bool in_key_order = true) {
  std::vector<std::string> keys;
  for (std::uint64_t i = 0; i < count; ++i) keys.push_back(RegionKey(i));
  if (in_key_order) {
    std::sort(keys.begin(), keys.end());
  } else {
    std::shuffle(keys.begin(), keys.end(), std::mt19937_64(1));
  }
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

double SyncedPuts(const Competitor& competitor, ContestantOptions options, std::uint64_t count,
                  int threads) {
  options.sync = true;
  const auto contestant = competitor.open(options);
  return static_cast<double>(count) / PutAll(contestant.get(), count, threads);
}

double UnsyncedPuts(const Competitor& competitor, const ContestantOptions& options,
                    std::uint64_t count) {
  const auto contestant = competitor.open(options);
  return static_cast<double>(count) / PutAll(contestant.get(), count, 1);
}

double MemtableScan(const Competitor& competitor, ContestantOptions options, std::uint64_t count) {
  options.write_buffer_size = std::size_t{1} << 30;
  LoadRegions(competitor.open(options).get(), count);
  return Scan(competitor.open(options).get(),
              count);  // opened again, as the raw log scans what it found
}

std::unique_ptr<Contestant> OpenCompacted(const Competitor& competitor,
                                          const ContestantOptions& options, std::uint64_t count) {
  auto contestant = competitor.open(options);
  LoadRegions(contestant.get(), count);
  contestant->Compact();
  return contestant;
}

double TableScan(const Competitor& competitor, const ContestantOptions& options,
                 std::uint64_t count) {
  return Scan(OpenCompacted(competitor, options, count).get(), count);
}

double RandomOrderScan(const Competitor& competitor, const ContestantOptions& options,
                       std::uint64_t count) {
  LoadRegions(competitor.open(options).get(), count, false);
  return Scan(competitor.open(options).get(), count);
}

double TableGets(const Competitor& competitor, const ContestantOptions& options,
                 std::uint64_t count, bool present) {
  const auto contestant = OpenCompacted(competitor, options, count);
  (void)Gets(contestant.get(), count, present);  // warms the caches
  return Gets(contestant.get(), count, present);
}

// Opening with all records in the log, in MB of keys and values a second.
double Recovery(const Competitor& competitor, ContestantOptions options, std::uint64_t count) {
  options.write_buffer_size = std::size_t{1} << 30;
  (void)PutAll(competitor.open(options).get(), count, 1);
  const auto start = Clock::now();
  const auto contestant = competitor.open(options);
  const double seconds = SecondsSince(start);
  return static_cast<double>(count * (16 + kValueSize)) / 1e6 / seconds;
}

// What a process that opens a compacted directory then has resident, in MiB more than before:
// `used` after gets and a scan. In a process of its own, whose memory nothing else has had.
double Memory(const Competitor& competitor, const ContestantOptions& options, std::uint64_t count,
              bool used) {
  (void)OpenCompacted(competitor, options, count);
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  const std::string command = "'" + program + "' --memory-of '" + competitor.name +
                              "' --directory '" + options.directory + "' --records " +
                              std::to_string(count) + (used ? " --used" : "");
  const std::unique_ptr<FILE, int (*)(FILE*)> output(::popen(command.c_str(), "r"), ::pclose);
  double mib = 0;
  Check(output != nullptr && std::fscanf(output.get(), "%lf", &mib) == 1, command);
  return mib;
}

// The other end of that.
void PrintMemory(const std::string& name, const std::string& directory, std::uint64_t count,
                 bool used) {
  const auto* const competitor = std::find_if(std::begin(competitors), std::end(competitors),
                                              [&](const auto& each) { return each.name == name; });
  Check(competitor != std::end(competitors), "no contestant " + name);
  const long before = testing::ProcStatus(::getpid(), "VmRSS");
  const auto contestant = competitor->open({.directory = directory});
  if (used) {
    (void)Gets(contestant.get(), count, true);
    (void)ScanOnce(contestant.get(), count);
  }
  std::printf("%f\n",
              static_cast<double>(testing::ProcStatus(::getpid(), "VmRSS") - before) / 1024);
}

struct Workload {
  const char* name;
  const char* unit;
  bool less_is_better;
  std::uint64_t count;
  std::function<double(const Competitor&, const ContestantOptions&, std::uint64_t)> run;
};

using namespace std::placeholders;
const Workload workloads[] = {
    {"durable puts, 1 thread", "puts/s", false, 3000, std::bind(SyncedPuts, _1, _2, _3, 1)},
    {"durable puts, 64 threads", "puts/s", false, 60000, std::bind(SyncedPuts, _1, _2, _3, 64)},
    {"puts without sync", "puts/s", false, 1000000, UnsyncedPuts},
    {"scan, tables, 100k", "ns/record", true, 100000, TableScan},
    {"scan, tables, 1M", "ns/record", true, 1000000, TableScan},
    {"scan, random order, 1M", "ns/record", true, 1000000, RandomOrderScan},
    {"scan, memtable, 100k", "ns/record", true, 100000, MemtableScan},
    {"get, present, 1M", "ns", true, 1000000, std::bind(TableGets, _1, _2, _3, true)},
    {"get, absent, 1M", "ns", true, 1000000, std::bind(TableGets, _1, _2, _3, false)},
    {"recovery", "MB/s", false, 340000, Recovery},
    {"memory, opened, 1M", "MiB", true, 1000000, std::bind(Memory, _1, _2, _3, false)},
    {"memory, used, 1M", "MiB", true, 1000000, std::bind(Memory, _1, _2, _3, true)},
};

void Run(const Workload& workload, int rounds, std::uint64_t divisor) {
  const std::uint64_t count = std::max<std::uint64_t>(workload.count / divisor, 64);
  const bool durable = std::string_view(workload.name).starts_with("durable");
  const std::size_t competing = durable ? std::size(competitors) : kForAll;
  std::vector<double> figures[std::size(competitors)];
  std::vector<double> to_raw_log;
  std::vector<double> to_public;
  std::vector<double> to_zeroed_log;
  for (std::size_t round = 0; round < static_cast<std::size_t>(rounds); ++round) {
    for (std::size_t place = 0; place < competing; ++place) {
      const std::size_t who = (place + round) % competing;
      const testing::TempDir dir;
      figures[who].push_back(workload.run(competitors[who], {.directory = dir.path()}, count));
    }
    const auto ratio = [&](std::size_t other) {
      const double of_figures = figures[kEngine].back() / figures[other].back();
      return workload.less_is_better ? 1 / of_figures : of_figures;
    };
    to_raw_log.push_back(ratio(0));
    to_public.push_back(std::min(ratio(1), ratio(2)));
    if (durable) to_zeroed_log.push_back(ratio(std::size(competitors) - 1));
  }
  std::printf("| %s | %s |", workload.name, workload.unit);
  for (const auto& of_rounds : figures) {
    if (of_rounds.empty()) {
      std::printf(" - |");
    } else {
      std::printf(" %.4g |", Median(of_rounds));
    }
  }
  std::printf(" %.2f | %.2f |", Median(to_raw_log), Median(to_public));
  if (durable) {
    std::printf(" %.2f |\n", Median(to_zeroed_log));
  } else {
    std::printf(" - |\n");
  }
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
  std::string memory_of;
  std::string directory;
  std::uint64_t records = 0;
  bool used = false;
  app.add_option("--memory-of", memory_of)->group("");  // these are for Memory
  app.add_option("--directory", directory)->group("");
  app.add_option("--records", records)->group("");
  app.add_flag("--used", used)->group("");
  CLI11_PARSE(app, argc, argv);
  if (!memory_of.empty()) {
    PrintMemory(memory_of, directory, records, used);
    return 0;
  }
  std::printf("| workload | unit |");
  for (const Competitor& competitor : competitors) std::printf(" %s |", competitor.name);
  std::printf(
      " : raw log | : public | : zeroed "
      "|\n|---|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
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
