// How long does a client wait at worst beside 64 writers, and for what? One client of each kind
// (lookup, heartbeat, id, timestamp) begins a request every millisecond while the writers, in
// closed loops, bring the server through a full memtable, its flush and a compaction of all tables.
// A client of an echo process does the same: what it waits for, the machine makes everybody wait
// for.
//
// Lookups are among 1,000 regions; the writers change 1,000,000 others, in random order, whose
// records come after those in the store, so that a lookup costs the same throughout.
//
// Phases and causes are told from outside. The phases: inotify says when a log file is created (a
// switch, 10 ms before and after), when the log of a flushed memtable is deleted (the end of a
// flush, which began with the switch), when a table is begun and when its predecessors are deleted
// (a compaction). A wait belongs to the first of switch, compaction and flush that it meets. The
// causes: what inotify reported during the wait, or shortly before; for how long of it the log did
// not grow (its size, every 2 ms), as during a sync; by how much the server's resident memory grew;
// and how long the echo client waited at the same time.

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "cluster_load.h"
#include "limit_process.h"

namespace kandb::bench {
namespace {

constexpr ClusterSize kSize = {1000, 3};
constexpr std::uint64_t kFirstChanged = 1000000;  // of the regions that the writers change
constexpr std::uint64_t kChangedRegions = 1000000;
constexpr auto kLongWait = std::chrono::milliseconds(20);
constexpr auto kAroundSwitch = std::chrono::milliseconds(10);

struct Options {
  int rounds = 1;
  double seconds = 60;  // at most, of each round
  int writers = 64;
  std::size_t tables = 8;    // when the measurement begins; one more is compacted
  std::uintmax_t log = 40;   // MiB, then
  std::size_t longest = 10;  // waits to explain
  std::string before;
};

// --- What happens in the state directory ---

struct FileEvent {
  Clock::time_point at;
  bool is_deletion;
  std::string name;

  bool Is(std::string_view start, std::string_view end, bool deletion) const {
    return is_deletion == deletion && name.starts_with(start) && name.ends_with(end);
  }
};

struct Observation {
  Clock::time_point at;
  std::uintmax_t log_size;  // of the log that was created last
  double resident_mib;
};

class Watcher {
 public:
  explicit Watcher(const Server* watched)
      : server(watched), inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    Check(::inotify_add_watch(inotify.get(), server->state_directory().c_str(),
                              IN_CREATE | IN_MOVED_TO | IN_DELETE) >= 0,
          "inotify");
    for (const auto& file : std::filesystem::directory_iterator(server->state_directory())) {
      const std::string name = file.path().filename();
      if (name.starts_with("wal-")) log = std::max(log, name);
    }
    thread = std::thread([this] { Watch(); });
  }
  ~Watcher() { Stop(); }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  void Stop() {
    stopping = true;
    if (thread.joinable()) thread.join();
  }
  // Whether the tables of a compaction were deleted.
  bool saw_compaction() const { return compacted; }

  // After Stop.
  std::vector<FileEvent> events;
  std::vector<Observation> observations;

 private:
  void Watch() {
    while (!stopping) {
      pollfd readable = {inotify.get(), POLLIN, 0};
      (void)::poll(&readable, 1, 2);
      alignas(inotify_event) char buffer[4096];
      const ssize_t size = ::read(inotify.get(), buffer, sizeof(buffer));
      const auto now = Clock::now();
      for (ssize_t at = 0; at < size;) {
        const auto* const event = reinterpret_cast<const inotify_event*>(buffer + at);
        events.push_back({now, (event->mask & IN_DELETE) != 0, event->name});
        if (events.back().Is("wal-", "", false)) log = event->name;
        if (events.back().Is("sst-", ".sst", true)) compacted = true;
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
      struct stat info {};
      (void)::stat((server->state_directory() + "/" + log).c_str(), &info);
      long pages = 0;
      std::ifstream statm("/proc/" + std::to_string(server->pid()) + "/statm");
      statm >> pages >> pages;
      observations.push_back({now, static_cast<std::uintmax_t>(info.st_size),
                              static_cast<double>(pages * ::sysconf(_SC_PAGESIZE)) / (1 << 20)});
    }
  }

  const Server* const server;
  const UniqueFd inotify;
  std::string log;
  std::atomic<bool> stopping = false;
  std::atomic<bool> compacted = false;
  std::thread thread;
};

enum Phase { kQuiet, kFlush, kCompaction, kSwitch, kPhases };
const char* const phase_names[] = {"quiet", "flush", "compaction", "switch"};

struct Interval {
  Phase phase;
  Clock::time_point begin;
  Clock::time_point end;
};

std::vector<Interval> PhasesOf(const std::vector<FileEvent>& events, Clock::time_point end) {
  std::vector<Interval> phases;
  Clock::time_point table_begun = end;
  Clock::time_point switched = end;
  const auto close = [&](Phase phase, Clock::time_point* begin, Clock::time_point at) {
    if (*begin != end) phases.push_back({phase, *begin, at});
    *begin = end;
  };
  for (const FileEvent& event : events) {
    if (event.Is("wal-", "", false)) {
      phases.push_back({kSwitch, event.at - kAroundSwitch, event.at + kAroundSwitch});
      switched = std::min(switched, event.at);
    }
    if (event.Is("sst-", ".tmp", false)) table_begun = event.at;
    if (event.Is("wal-", "", true)) {
      close(kFlush, &switched, event.at);
      table_begun = end;
    }
    if (event.Is("sst-", ".sst", true)) close(kCompaction, &table_begun, event.at);
  }
  // The work that went on at the end: a table that was begun after the last switch was flushed.
  if (switched == end) close(kCompaction, &table_begun, end);
  close(kFlush, &switched, end);
  return phases;
}

// --- Waits ---

struct Wait {
  std::string server;
  std::string client;
  Phase phase;
  Clock::duration latency;
  double at_seconds;  // after the beginning of the measurement
  std::string seen;
};

std::string Explain(const PacedClient::Sample& wait, const Watcher& watcher,
                    const std::vector<PacedClient::Sample>& echo) {
  const auto end = wait.start + wait.latency;
  std::string text;
  char part[96];
  for (const FileEvent& event : watcher.events) {
    if (event.at < wait.start - kLongWait || event.at > end) continue;
    (void)std::snprintf(part, sizeof(part), "%+.0f ms: %s %s; ",
                        Milliseconds(event.at - wait.start), event.name.c_str(),
                        event.is_deletion ? "deleted" : "appeared");
    text += part;
  }
  Clock::duration still{};
  double grown_mib = 0;
  const Observation* last = nullptr;
  for (const Observation& now : watcher.observations) {
    if (last != nullptr && now.at > wait.start && last->at < end) {
      if (now.log_size == last->log_size) {
        still += std::min(now.at, end) - std::max(last->at, wait.start);
      }
      grown_mib += std::max(0.0, now.resident_mib - last->resident_mib);
    }
    last = &now;
  }
  Clock::duration echo_wait{};
  for (const PacedClient::Sample& sample : echo) {
    if (sample.start < end && sample.start + sample.latency > wait.start) {
      echo_wait = std::max(echo_wait, sample.latency);
    }
  }
  (void)std::snprintf(part, sizeof(part), "log still for %.0f ms, memory +%.1f MiB, echo %.1f ms",
                      Milliseconds(still), grown_mib, Milliseconds(echo_wait));
  return text + part;
}

// --- One server ---

struct Contestant {
  std::string name;
  std::string binary;
  // Of all rounds, by client; filled by Run.
  std::vector<std::vector<PacedLatencies>> latencies = {};
  std::vector<std::vector<double>> longest_ms = {};
};

const char* const clients[] = {"Pd.GetRegion", "Pd.RegionHeartbeat", "Pd.AllocId", "Pd.Tso",
                               "echo"};

std::string Changes(std::uint64_t i, std::uint64_t count) {
  std::mt19937_64 random(i);
  pdpb::UpsertRegionRequest request;
  for (std::uint64_t n = 0; n < count; ++n) {
    request.regions.push_back(RegionAt(kFirstChanged + random() % kChangedRegions));
  }
  return Encode(request);
}

// Until there are enough tables, and the memtable is as full as its log is to be.
void FillTables(const Server& server, const Options& options) {
  RawConnection connection(server.port());
  const auto log_mib = [&] {
    std::uintmax_t size = 0;
    for (const auto& file : std::filesystem::directory_iterator(server.state_directory())) {
      if (file.path().filename().string().starts_with("wal-")) size += file.file_size();
    }
    return size >> 20;
  };
  for (std::uint64_t i = 0;
       server.CountFiles("sst-", ".sst") < options.tables || log_mib() < options.log; ++i) {
    (void)Call(&connection, "Pd.UpsertRegion", Changes(i, 1000));
  }
}

void Run(const Options& options, const EchoProcess& echo, Contestant* contestant,
         std::vector<Wait>* waits) {
  const Server server(contestant->binary);
  server.Fill(kSize);
  FillTables(server, options);
  const Method change = {"Pd.UpsertRegion", true,
                         [](const auto&, std::uint64_t i) { return Changes(i, 1); }};
  constexpr std::uint64_t kChanges = 512;  // different ones of each writer
  std::vector<Exchange> writers = MakeExchanges(options.writers, [&](std::size_t i) {
    return MakeExchange(server.port(), change, kSize, i, kChanges);
  });
  std::vector<Exchange> paced;
  for (const std::string_view name : clients) {
    paced.push_back(name == "echo" ? echo.MakeExchange({64, 64})
                                   : MakeExchange(server.port(), MethodNamed(name), kSize, 0));
  }

  Watcher watcher(&server);
  const auto start = Clock::now();
  ClosedLoop load(std::move(writers));
  std::vector<std::unique_ptr<PacedClient>> running;
  for (Exchange& exchange : paced) {
    running.push_back(std::make_unique<PacedClient>(std::move(exchange)));
  }
  while (SecondsSince(start) < options.seconds && !watcher.saw_compaction()) SleepSeconds(0.01);
  std::vector<std::vector<PacedClient::Sample>> samples;
  for (const auto& client : running) samples.push_back(client->Stop());
  const Figures changes = load.Stop();
  watcher.Stop();
  std::printf("%s: %.0f changes/s for %.1f s, %s\n", contestant->name.c_str(),
              changes.requests_per_second, SecondsSince(start),
              watcher.saw_compaction() ? "until a compaction had ended" : "no compaction ended");

  const std::vector<Interval> phases = PhasesOf(watcher.events, Clock::now());
  contestant->latencies.resize(std::size(clients), std::vector<PacedLatencies>(kPhases));
  contestant->longest_ms.resize(std::size(clients), std::vector<double>(kPhases));
  for (std::size_t client = 0; client < std::size(clients); ++client) {
    for (const PacedClient::Sample& sample : samples[client]) {
      Phase phase = kQuiet;
      for (const Interval& interval : phases) {
        if (sample.start < interval.end && sample.start + sample.latency > interval.begin) {
          phase = std::max(phase, interval.phase);
        }
      }
      contestant->latencies[client][phase].Add(sample.latency);
      double& longest = contestant->longest_ms[client][phase];
      longest = std::max(longest, Milliseconds(sample.latency));
      if (sample.latency < kLongWait) continue;
      waits->push_back({contestant->name, clients[client], phase, sample.latency,
                        std::chrono::duration<double>(sample.start - start).count(),
                        Explain(sample, watcher, samples.back())});
    }
  }
}

void Print(const std::vector<Contestant>& contestants, std::vector<Wait> waits,
           std::size_t longest) {
  std::printf(
      "\n| server | client | phase | requests | p50 ms | p99 ms | p99.9 ms | max ms |\n"
      "|---|---|---|---:|---:|---:|---:|---:|\n");
  for (std::size_t client = 0; client < std::size(clients); ++client) {
    for (const int phase : {kQuiet, kSwitch, kFlush, kCompaction}) {
      for (const Contestant& contestant : contestants) {
        const PacedLatencies& of_phase =
            contestant.latencies[client][static_cast<std::size_t>(phase)];
        if (of_phase.count() == 0) continue;
        std::printf("| %s | %s | %s | %llu | %.2f | %.2f | %.2f | %.1f |\n",
                    contestant.name.c_str(), clients[client], phase_names[phase],
                    static_cast<unsigned long long>(of_phase.count()), of_phase.PercentileMs(0.5),
                    of_phase.PercentileMs(0.99), of_phase.PercentileMs(0.999),
                    contestant.longest_ms[client][static_cast<std::size_t>(phase)]);
      }
    }
  }
  std::printf("\n%zu waits of more than 20 ms%s\n", waits.size(),
              waits.empty() ? "" : "; the longest:\n");
  if (waits.empty()) return;
  std::sort(waits.begin(), waits.end(),
            [](const Wait& a, const Wait& b) { return a.latency > b.latency; });
  if (waits.size() > longest) waits.resize(longest);
  std::printf("| server | client | at s | ms | phase | seen |\n|---|---|---:|---:|---|---|\n");
  for (const Wait& wait : waits) {
    std::printf("| %s | %s | %.2f | %.1f | %s | %s |\n", wait.server.c_str(), wait.client.c_str(),
                wait.at_seconds, Milliseconds(wait.latency), phase_names[wait.phase],
                wait.seen.c_str());
  }
}

int Main(int argc, char** argv) {
  const EchoProcess echo;  // forks, and therefore comes first
  CLI::App app("The longest waits of paced clients beside writers, and what happened meanwhile.");
  Options options;
  app.add_option("--rounds", options.rounds)->capture_default_str();
  app.add_option("--seconds", options.seconds, "a round ends then, or after a compaction")
      ->capture_default_str();
  app.add_option("--writers", options.writers)->capture_default_str();
  app.add_option("--tables", options.tables, "table files when a round begins")
      ->capture_default_str();
  app.add_option("--log", options.log, "MiB of log when a round begins")->capture_default_str();
  app.add_option("--longest", options.longest, "waits to explain")->capture_default_str();
  app.add_option("--before", options.before, "the kandb-meta of an older build")
      ->check(CLI::ExistingFile);
  CLI11_PARSE(app, argc, argv);
  std::vector<Contestant> contestants = {{"now", KANDB_META_BINARY}};
  if (!options.before.empty()) {
    contestants.push_back({"before", std::filesystem::absolute(options.before)});
  }
  std::vector<Wait> waits;
  for (int round = 0; round < options.rounds; ++round) {
    for (Contestant& contestant : contestants) Run(options, echo, &contestant, &waits);
    std::reverse(contestants.begin(), contestants.end());
  }
  Print(contestants, std::move(waits), options.longest);
  return 0;
}

}  // namespace
}  // namespace kandb::bench

int main(int argc, char** argv) { return kandb::bench::RunProgram(argc, argv, kandb::bench::Main); }
