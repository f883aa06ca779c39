#include "cluster_load.h"

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <numeric>
#include <random>

#include "support/proc.h"

namespace kandb::bench {

namespace {

constexpr auto kPace = std::chrono::milliseconds(1);
constexpr std::uint64_t kFirstId = 10000000;  // all ids have eight digits
constexpr std::uint64_t kRegionsPerRequest = 1000;

}  // namespace

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void SleepSeconds(double seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

void RaiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

// --- The cluster ---

std::string KeyAt(std::uint64_t n) {
  char key[24];
  (void)std::snprintf(key, sizeof(key), "k%09llu", static_cast<unsigned long long>(n));
  return key;
}

pdpb::Region RegionAt(std::uint64_t n) {
  const std::uint64_t id = kFirstId + n;
  return {id, KeyAt(n), KeyAt(n + 1), {1, 1}, {{id, 1, {}}, {id, 2, {}}, {id, 3, {}}}};
}

std::vector<std::uint64_t> Numbers(std::uint64_t count, FillOrder order) {
  std::vector<std::uint64_t> numbers(count);
  std::iota(numbers.begin(), numbers.end(), 0);
  if (order == FillOrder::kRandom) {
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937_64(1));
  }
  return numbers;
}

// --- The server ---

double Server::Restart(const std::string& binary) {
  process.Kill();
  const auto start = Clock::now();
  process = testing::ListeningServer(directory.path(), {}, {"--target_replicas=3"}, binary);
  return SecondsSince(start);
}

void Server::Fill(const ClusterSize& size, FillOrder order) const {
  RawConnection connection(port());
  for (std::uint64_t id = 1; id <= size.stores; ++id) {
    const pdpb::BootstrapRequest request = {{id, "store.example:20160", 0}, RegionAt(0), {}};
    (void)Call(&connection, "Pd.Bootstrap", Encode(request));
  }
  const std::vector<std::uint64_t> numbers = Numbers(size.regions, order);
  for (std::size_t n = 0; n < numbers.size();) {
    pdpb::UpsertRegionRequest request;
    while (n < numbers.size() && request.regions.size() < kRegionsPerRequest) {
      request.regions.push_back(RegionAt(numbers[n++]));
    }
    (void)Call(&connection, "Pd.UpsertRegion", Encode(request));
  }
}

void Server::FlushMemTable() {
  constexpr std::uint64_t kFirstFiller = 80000000;
  RawConnection connection(port());
  const std::size_t tables = CountFiles("sst-", ".sst");
  // Regions as all others: larger ones would fill faster, but what is read for their neighbours in
  // a table would then be large too.
  while (CountFiles("sst-", ".sst") <= tables) {
    pdpb::UpsertRegionRequest request;
    while (request.regions.size() < kRegionsPerRequest) {
      request.regions.push_back(RegionAt(kFirstFiller + fillers++));
    }
    (void)Call(&connection, "Pd.UpsertRegion", Encode(request));
  }
  while (CountFiles("wal-") > 1) SleepSeconds(0.001);
}

double Server::ProcessorSeconds() const {
  clockid_t clock{};
  timespec time{};
  Check(::clock_getcpuclockid(pid(), &clock) == 0 && ::clock_gettime(clock, &time) == 0,
        "no clock of the server");
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double Server::ResidentMiB() const {
  return static_cast<double>(testing::ProcStatus(pid(), "VmRSS")) / 1024;
}

std::size_t Server::CountFiles(std::string_view name_start, std::string_view name_end) const {
  std::size_t count = 0;
  for (const auto& file : std::filesystem::directory_iterator(state_directory())) {
    const std::string name = file.path().filename();
    count += name.starts_with(name_start) && name.ends_with(name_end) ? 1 : 0;
  }
  return count;
}

// --- Requests ---

std::string HeartbeatPayload(std::uint64_t store, std::uint64_t first, std::uint64_t count,
                             const ClusterSize& size) {
  pdpb::RegionHeartbeatRequest request;
  request.store_id = store;
  for (std::uint64_t n = first; n < first + count; ++n) {
    request.regions.push_back({kFirstId + n % size.regions, {1, 2, 3}, {}, {2}});
  }
  return Encode(request);
}

const std::vector<Method>& Methods() {
  static const std::vector<Method> methods = {
      {"Pd.Tso", false, [](const auto&, auto) { return Encode(pdpb::TsoRequest{1}); }},
      {"Pd.AllocId", false, [](const auto&, auto) { return Encode(pdpb::AllocIdRequest{1}); }},
      // In an existing cluster: writes the record of a store.
      {"Pd.Bootstrap", false,
       [](const auto&, auto) {
         return Encode(pdpb::BootstrapRequest{{1, "store.example:20160", 0}, {}, {}});
       }},
      {"Pd.UpsertRegion", true,
       [](const ClusterSize& size, std::uint64_t i) {
         return Encode(pdpb::UpsertRegionRequest{{RegionAt(i % size.regions)}, {}});
       }},
      // 2654435761 is a prime: the keys are spread evenly.
      {"Pd.GetRegion", true,
       [](const ClusterSize& size, std::uint64_t i) {
         return Encode(pdpb::GetRegionRequest{KeyAt(i * 2654435761 % size.regions)});
       }},
      // 100 regions of one store.
      {"Pd.RegionHeartbeat", true,
       [](const ClusterSize& size, std::uint64_t i) {
         return HeartbeatPayload(1 + i % size.stores, i * 100, 100, size);
       }},
  };
  return methods;
}

const Method& MethodNamed(std::string_view name) {
  const auto found = std::find_if(Methods().begin(), Methods().end(),
                                  [&](const Method& method) { return method.name == name; });
  Check(found != Methods().end(), "no method " + std::string(name));
  return *found;
}

std::string Call(RawConnection* connection, std::string_view method, std::string_view payload) {
  kanrpc::Frame answer;
  Check(connection->Send(kanrpc::BuildFrame(kanrpc::kRequest, 1, method, payload)) &&
            connection->Read(&answer).ok() && answer.type == kanrpc::kResponse,
        std::string(method) + " failed: " + std::string(answer.payload));
  return std::string(answer.payload);
}

// --- Clients ---

Exchange MakeExchange(int port, const Method& method, const ClusterSize& size, std::size_t index,
                      std::uint64_t distinct) {
  struct Client {
    explicit Client(int server_port) : connection(server_port), answers(connection.fd()) {}
    RawConnection connection;
    kanrpc::FrameReader answers;
    std::vector<std::string> requests;
    std::uint64_t next = 0;
  };
  // Shared, as std::function is copied; there is one of each.
  const auto client = std::make_shared<Client>(port);
  for (std::uint64_t i = 0; i < distinct; ++i) {
    client->requests.push_back(kanrpc::BuildFrame(kanrpc::kRequest, i, method.name,
                                                  method.payload(size, index * distinct + i)));
  }
  return [client, name = method.name] {
    Client& at = *client;
    kanrpc::Frame answer;
    const bool good = at.connection.Send(at.requests[at.next]) &&
                      at.answers.Read(&answer, -1).ok() && answer.type == kanrpc::kResponse &&
                      answer.request_id == at.next;
    if (!good) Check(false, std::string(name) + " failed: " + std::string(answer.payload));
    if (++at.next == at.requests.size()) at.next = 0;
  };
}

ClosedLoop::ClosedLoop(std::vector<Exchange> exchanges) : latencies(exchanges.size()) {
  for (std::size_t i = 0; i < exchanges.size(); ++i) {
    threads.emplace_back([this, exchange = std::move(exchanges[i]), i] {
      for (auto begin = Clock::now(); !stopping.load(std::memory_order_relaxed);) {
        exchange();
        const auto end = Clock::now();
        latencies[i].Add(static_cast<std::uint64_t>((end - begin).count()));
        begin = end;
      }
    });
  }
}

Figures ClosedLoop::Stop() {
  stopping = true;
  for (std::thread& thread : threads) thread.join();
  threads.clear();
  const double elapsed = SecondsSince(start);
  tools::LatencyHistogram all;
  for (const auto& of_thread : latencies) all.Merge(of_thread);
  const auto us = [&](double share) { return static_cast<double>(all.PercentileNs(share)) / 1000; };
  return {all.count(), static_cast<double>(all.count()) / elapsed, us(0.5), us(0.99)};
}

std::vector<Exchange> MakeExchanges(int connections,
                                    const std::function<Exchange(std::size_t)>& make) {
  std::vector<Exchange> exchanges;
  for (int i = 0; i < connections; ++i) exchanges.push_back(make(static_cast<std::size_t>(i)));
  return exchanges;
}

Figures RunFor(double seconds, std::vector<Exchange> exchanges) {
  ClosedLoop loop(std::move(exchanges));
  SleepSeconds(seconds);
  return loop.Stop();
}

Figures LoadServer(int port, const Method& method, const ClusterSize& size, int connections,
                   double seconds) {
  return RunFor(seconds, MakeExchanges(connections, [&](std::size_t i) {
                  return MakeExchange(port, method, size, i);
                }));
}

PacedClient::PacedClient(Exchange exchange) {
  thread = std::thread([this, body = std::move(exchange)] {
    for (auto due = Clock::now(); !stopping.load(std::memory_order_relaxed);) {
      const auto begin = Clock::now();
      body();
      samples.push_back({begin, Clock::now() - begin});
      due = std::max(due + kPace, Clock::now());
      std::this_thread::sleep_until(due);
    }
  });
}

const std::vector<PacedClient::Sample>& PacedClient::Stop() {
  stopping = true;
  if (thread.joinable()) thread.join();
  return samples;
}

void PacedLatencies::Add(Clock::duration latency) {
  for (; latency.count() > 0; latency -= kPace) {
    latencies.Add(static_cast<std::uint64_t>(latency.count()));
  }
}

}  // namespace kandb::bench
