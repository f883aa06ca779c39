// How many requests a second does the real server answer, and how does that change with
// connections, regions and stores? Closed loop: each connection has one request at a time. Where a
// request costs next to nothing the limit is the kernel: rounds alternate between the server and an
// echo process that moves messages of the same sizes, and `: echo` is the median ratio within a
// round. Clients and server share the processors of this machine; "1, one core" runs both on the
// same one, without the wake-up of an idle core.

#include <sched.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <thread>
#include <vector>

#include "bench_program.h"
#include "echo_process.h"
#include "pdpb/messages.h"
#include "support/raw_connection.h"
#include "support/server_process.h"
#include "support/temp_dir.h"
#include "tools/common/latency_histogram.h"

namespace kandb::bench {
namespace {

using Clock = std::chrono::steady_clock;
using testing::RawConnection;

// --- The cluster that the requests are about ---

std::string KeyAt(std::uint64_t n) {
  char key[24];
  (void)std::snprintf(key, sizeof(key), "k%09llu", static_cast<unsigned long long>(n));
  return key;
}

// About 250 bytes: three peers and keys of ten bytes.
pdpb::Region RegionAt(std::uint64_t n) {
  const std::uint64_t id = 10000000 + n;
  return {id, KeyAt(n), KeyAt(n + 1), {1, 1}, {{id, 1, {}}, {id, 2, {}}, {id, 3, {}}}};
}

struct Size {
  std::uint64_t regions;
  std::uint64_t stores;
};

struct Method {
  const char* name;
  bool depends_on_size;
  std::function<std::string(const Size&, std::uint64_t i)> payload;  // of the i-th request
};

const Method methods[] = {
    {"Pd.Tso", false, [](const Size&, std::uint64_t) { return Encode(pdpb::TsoRequest{1}); }},
    {"Pd.AllocId", false,
     [](const Size&, std::uint64_t) { return Encode(pdpb::AllocIdRequest{1}); }},
    // In an existing cluster: writes the record of a store.
    {"Pd.Bootstrap", false,
     [](const Size&, std::uint64_t) {
       return Encode(pdpb::BootstrapRequest{{1, "store.example:20160", 0}, {}, {}});
     }},
    {"Pd.UpsertRegion", true,
     [](const Size& size, std::uint64_t i) {
       return Encode(pdpb::UpsertRegionRequest{{RegionAt(i % size.regions)}, {}});
     }},
    {"Pd.GetRegion", true,
     [](const Size& size, std::uint64_t i) {
       return Encode(pdpb::GetRegionRequest{KeyAt(i * 2654435761 % size.regions)});
     }},
    // 100 regions of one store.
    {"Pd.RegionHeartbeat", true,
     [](const Size& size, std::uint64_t i) {
       pdpb::RegionHeartbeatRequest request;
       request.store_id = 1 + i % size.stores;
       for (std::uint64_t n = 0; n < 100; ++n) {
         request.regions.push_back({10000000 + (i * 100 + n) % size.regions, {1, 2, 3}, {}, {2}});
       }
       return Encode(request);
     }},
};

std::string Call(RawConnection* connection, std::string_view method, std::string_view payload) {
  kanrpc::Frame answer;
  Check(connection->Send(kanrpc::BuildFrame(kanrpc::kRequest, 1, method, payload)) &&
            connection->Read(&answer).ok() && answer.type == kanrpc::kResponse,
        std::string(method) + " failed: " + std::string(answer.payload));
  return std::string(answer.payload);
}

void FillCluster(int port, const Size& size) {
  RawConnection connection(port);
  for (std::uint64_t id = 1; id <= size.stores; ++id) {
    const pdpb::BootstrapRequest request = {{id, "store.example:20160", 0}, RegionAt(0), {}};
    (void)Call(&connection, "Pd.Bootstrap", Encode(request));
  }
  for (std::uint64_t n = 0; n < size.regions;) {
    pdpb::UpsertRegionRequest request;
    for (int i = 0; i < 1000 && n < size.regions; ++i) request.regions.push_back(RegionAt(n++));
    (void)Call(&connection, "Pd.UpsertRegion", Encode(request));
  }
}

// --- Closed loops ---

struct Figures {
  double requests_per_second;
  double p50_us;
  double p99_us;
};

// Runs `loop(connection index, deadline, latencies)` in a thread for each connection.
template <class Loop>
Figures RunLoops(int connections, double seconds, Loop loop) {
  std::vector<tools::LatencyHistogram> latencies(static_cast<std::size_t>(connections));
  const auto start = Clock::now();
  const auto deadline =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < latencies.size(); ++i) {
    threads.emplace_back([&, i] { loop(i, deadline, &latencies[i]); });
  }
  for (std::thread& thread : threads) thread.join();
  const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  for (std::size_t i = 1; i < latencies.size(); ++i) latencies[0].Merge(latencies[i]);
  const auto us = [&](double share) {
    return static_cast<double>(latencies[0].PercentileNs(share)) / 1000;
  };
  return {static_cast<double>(latencies[0].count()) / elapsed, us(0.5), us(0.99)};
}

template <class Exchange>
void Repeat(Clock::time_point deadline, tools::LatencyHistogram* latencies, Exchange exchange) {
  for (auto start = Clock::now(); start < deadline;) {
    exchange();
    const auto end = Clock::now();
    latencies->Add(static_cast<std::uint64_t>((end - start).count()));
    start = end;
  }
}

// The requests are built before the clock starts, so that the client does no more than the client
// of the echo process, besides checking the answer's frame.
Figures LoadServer(int port, const Method& method, const Size& size, int connections,
                   double seconds) {
  constexpr std::uint64_t kRequests = 64;  // of each connection, over and over
  std::vector<std::string> requests;
  for (std::uint64_t i = 0; i < kRequests * static_cast<std::uint64_t>(connections); ++i) {
    requests.push_back(
        kanrpc::BuildFrame(kanrpc::kRequest, i, method.name, method.payload(size, i)));
  }
  return RunLoops(connections, seconds, [&](std::size_t index, auto deadline, auto* latencies) {
    RawConnection connection(port);
    kanrpc::FrameReader answers(connection.fd());
    const std::uint64_t first = index * kRequests;
    std::uint64_t i = first;
    Repeat(deadline, latencies, [&] {
      kanrpc::Frame answer;
      const bool good = connection.Send(requests[i]) && answers.Read(&answer, -1).ok() &&
                        answer.type == kanrpc::kResponse && answer.request_id == i;
      if (!good) Check(false, method.name + (" failed: " + std::string(answer.payload)));
      if (++i == first + kRequests) i = first;
    });
  });
}

Figures LoadEcho(int port, const EchoProcess::Sizes& sizes, int connections, double seconds) {
  return RunLoops(connections, seconds, [&](std::size_t, auto deadline, auto* latencies) {
    RawConnection connection(port);
    Check(connection.Send({reinterpret_cast<const char*>(&sizes), sizeof(sizes)}), "echo");
    const std::string request(sizes.request, 'q');
    std::string response(sizes.response, '\0');
    Repeat(deadline, latencies, [&] {
      Check(connection.Send(request) &&
                ::recv(connection.fd(), response.data(), response.size(), MSG_WAITALL) ==
                    static_cast<ssize_t>(response.size()),
            "echo");
    });
  });
}

// --- The table ---

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

struct Options {
  int rounds = 3;
  double seconds = 2;
  std::vector<std::uint64_t> regions = {1000, 10000, 100000, 1000000};
  std::vector<std::uint64_t> stores = {3, 1000};
  std::vector<int> connections = {1, 8, 64};
  std::string only;
};

void Measure(const Options& options, int port, EchoProcess* echo, pid_t server,
             const Method& method, const Size& size, int connections, bool one_core) {
  RawConnection probe(port);
  const std::string payload = method.payload(size, 0);
  const std::string answer = Call(&probe, method.name, payload);
  const auto frame_size = [&](std::string_view part) {
    return static_cast<std::uint32_t>(
        kanrpc::BuildFrame(kanrpc::kRequest, 1, method.name, part).size());
  };
  const EchoProcess::Sizes sizes = {frame_size(payload), frame_size(answer)};
  for (const pid_t process : {::getpid(), echo->pid(), server}) UseOneCore(process, one_core);
  std::vector<double> rates;
  std::vector<double> p50s;
  std::vector<double> p99s;
  std::vector<double> echo_rates;
  std::vector<double> ratios;
  for (int round = 0; round < options.rounds; ++round) {
    const Figures limit = LoadEcho(echo->port(), sizes, connections, options.seconds);
    const Figures figures = LoadServer(port, method, size, connections, options.seconds);
    rates.push_back(figures.requests_per_second);
    p50s.push_back(figures.p50_us);
    p99s.push_back(figures.p99_us);
    echo_rates.push_back(limit.requests_per_second);
    ratios.push_back(figures.requests_per_second / limit.requests_per_second);
  }
  for (const pid_t process : {::getpid(), echo->pid(), server}) UseOneCore(process, false);
  std::printf("| %s | %llu | %llu | %d%s | %.0f | %.0f | %.0f | %.0f | %.2f |\n", method.name,
              static_cast<unsigned long long>(size.regions),
              static_cast<unsigned long long>(size.stores), connections,
              one_core ? ", one core" : "", Median(rates), Median(p50s), Median(p99s),
              Median(echo_rates), Median(ratios));
  (void)std::fflush(stdout);
}

void MeasureSize(const Options& options, EchoProcess* echo, const Size& size, bool smallest) {
  const testing::TempDir dir;
  const testing::ListeningServer server(dir.path(), {}, {"--target_replicas=3"});
  FillCluster(server.port(), size);
  for (const Method& method : methods) {
    if (std::string_view(method.name).find(options.only) == std::string_view::npos) continue;
    if (!method.depends_on_size && !smallest) continue;
    const auto measure = [&](int connections, bool one_core) {
      Measure(options, server.port(), echo, server.pid(), method, size, connections, one_core);
    };
    if (smallest) measure(1, true);
    for (const int connections : options.connections) measure(connections, false);
  }
}

int Main(int argc, char** argv) {
  EchoProcess echo;  // forks, and therefore comes first
  CLI::App app("The server under a closed loop of requests, beside an echo process.");
  Options options;
  app.add_option("--rounds", options.rounds)->capture_default_str();
  app.add_option("--seconds", options.seconds, "of each measurement")->capture_default_str();
  app.add_option("--regions", options.regions, "sizes of the cluster")->capture_default_str();
  app.add_option("--stores", options.stores, "sizes of the cluster")->capture_default_str();
  app.add_option("--connections", options.connections)->capture_default_str();
  app.add_option("--only", options.only, "methods whose names contain this");
  CLI11_PARSE(app, argc, argv);
  std::printf(
      "| method | regions | stores | connections | requests/s | p50 us | p99 us | echo/s | : echo "
      "|\n|---|---:|---:|---:|---:|---:|---:|---:|---:|\n");
  bool smallest = true;
  for (const std::uint64_t regions : options.regions) {
    MeasureSize(options, &echo, {regions, options.stores.front()}, smallest);
    smallest = false;
  }
  for (std::size_t i = 1; i < options.stores.size(); ++i) {
    MeasureSize(options, &echo, {options.regions.front(), options.stores[i]}, false);
  }
  return 0;
}

}  // namespace
}  // namespace kandb::bench

int main(int argc, char** argv) { return kandb::bench::RunProgram(argc, argv, kandb::bench::Main); }
