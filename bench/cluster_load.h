// What the benchmarks of the server as a process share: the cluster that the requests are about,
// the requests, and the clients that send them. A failed request ends the program.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench_program.h"
#include "pdpb/messages.h"
#include "support/raw_connection.h"
#include "support/server_process.h"
#include "support/temp_dir.h"
#include "tools/common/latency_histogram.h"

namespace kandb::bench {

using Clock = std::chrono::steady_clock;
using testing::RawConnection;

double SecondsSince(Clock::time_point start);
void SleepSeconds(double seconds);

// Lets this process have as many descriptors as the system allows.
void RaiseDescriptorLimit();

// --- The cluster ---

std::string KeyAt(std::uint64_t n);
// About 250 bytes: three peers and keys of ten bytes. The regions n and n + 1 are neighbours, in
// their ranges and in the store.
pdpb::Region RegionAt(std::uint64_t n);

struct ClusterSize {
  std::uint64_t regions;
  std::uint64_t stores;
};

enum class FillOrder { kKeys, kRandom };

// 0 to count - 1 in that order; the random one is the same in every run.
std::vector<std::uint64_t> Numbers(std::uint64_t count, FillOrder order);

// --- The server ---

// With a state directory of its own.
class Server {
 public:
  explicit Server(const std::string& binary = KANDB_META_BINARY)
      : process(directory.path(), {}, {"--target_replicas=3"}, binary) {}

  int port() const { return process.port(); }
  pid_t pid() const { return process.pid(); }
  std::string state_directory() const { return directory.File("pd-data"); }
  // After a kill: seconds until it listens again.
  double Restart(const std::string& binary = KANDB_META_BINARY);

  // Stores and regions, a thousand a request.
  void Fill(const ClusterSize& size, FillOrder order = FillOrder::kKeys) const;
  // Writes until the memtable is full and flushed, so that what was written before is in tables.
  // What is written for that comes after all other regions.
  void FlushMemTable();

  double ProcessorSeconds() const;  // that it has used, of all threads
  double ResidentMiB() const;
  std::size_t CountFiles(std::string_view name_start, std::string_view name_end = "") const;

 private:
  testing::TempDir directory;
  testing::ListeningServer process;
  std::uint64_t fillers = 0;
};

// --- Requests ---

struct Method {
  const char* name;
  bool depends_on_size;
  std::function<std::string(const ClusterSize&, std::uint64_t i)> payload;  // of the i-th request
};

// All six, timestamps first.
const std::vector<Method>& Methods();
const Method& MethodNamed(std::string_view name);
// Reports `count` regions that the store leads, beginning with region `first`.
std::string HeartbeatPayload(std::uint64_t store, std::uint64_t first, std::uint64_t count,
                             const ClusterSize& size);

// The payload of the answer.
std::string Call(RawConnection* connection, std::string_view method, std::string_view payload);

// --- Clients ---

// One request and its answer, on a connection of its own.
using Exchange = std::function<void()>;

// Requests are built beforehand, `distinct` of them, and sent over and over. `index` tells the
// connections of one load apart: they send different requests.
Exchange MakeExchange(int port, const Method& method, const ClusterSize& size, std::size_t index,
                      std::uint64_t distinct = 64);

struct Figures {
  std::uint64_t requests;
  double requests_per_second;
  double p50_us;
  double p99_us;
};

// A thread for each exchange repeats it until Stop.
class ClosedLoop {
 public:
  explicit ClosedLoop(std::vector<Exchange> exchanges);
  ~ClosedLoop() { (void)Stop(); }
  ClosedLoop(const ClosedLoop&) = delete;
  ClosedLoop& operator=(const ClosedLoop&) = delete;

  Figures Stop();

 private:
  std::atomic<bool> stopping = false;
  std::vector<tools::LatencyHistogram> latencies;
  const Clock::time_point start = Clock::now();
  std::vector<std::thread> threads;
};

std::vector<Exchange> MakeExchanges(int connections,
                                    const std::function<Exchange(std::size_t)>& make);
Figures RunFor(double seconds, std::vector<Exchange> exchanges);
// The server under one method.
Figures LoadServer(int port, const Method& method, const ClusterSize& size, int connections,
                   double seconds);

// One client that begins an exchange every millisecond, unless the one before is still without its
// answer.
class PacedClient {
 public:
  struct Sample {
    Clock::time_point start;
    Clock::duration latency;
  };

  explicit PacedClient(Exchange exchange);
  ~PacedClient() { (void)Stop(); }
  PacedClient(const PacedClient&) = delete;
  PacedClient& operator=(const PacedClient&) = delete;

  const std::vector<Sample>& Stop();

 private:
  std::atomic<bool> stopping = false;
  std::vector<Sample> samples;
  std::thread thread;
};

inline double Milliseconds(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

// Counts the exchanges that were due while another one was waited for with the rest of that wait,
// as if each had been sent: otherwise one long wait would hide the many that it stands for.
class PacedLatencies {
 public:
  void Add(Clock::duration latency);
  double PercentileMs(double share) const {
    return static_cast<double>(latencies.PercentileNs(share)) / 1e6;
  }
  std::uint64_t count() const { return latencies.count(); }

 private:
  tools::LatencyHistogram latencies;
};

}  // namespace kandb::bench
