// How fast is the server over TCP, and how does its cost grow? The server runs in this process,
// with state on disk as in operation; every benchmark thread is a client with a connection of its
// own, so that clients and server share the cores. Times are those of a call as its client sees it;
// items_per_second is the sum over all clients.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "client/pd_client.h"
#include "meta/pd_service.h"
#include "support/temp_dir.h"

namespace kandb {
namespace {

using testing::TempDir;

std::string RegionKeyAt(std::int64_t i) {
  char key[24];
  std::snprintf(key, sizeof(key), "k%09lld", static_cast<long long>(i));
  return key;
}

// A realistic region of about 250 bytes: three peers and keys of ten bytes.
pdpb::Region MakeRegion(std::int64_t i) {
  const auto id = static_cast<std::uint64_t>(1000000 + i);
  return {id,
          RegionKeyAt(i),
          RegionKeyAt(i + 1),
          {1, 1},
          {{id * 10, 1, {}}, {id * 10 + 1, 2, {}}, {id * 10 + 2, 3, {}}}};
}

// Three stores and `region_count` regions side by side.
class Cluster {
 public:
  explicit Cluster(std::int64_t region_count) {
    Check(store::MetaStore::Open(dir.path(), "", 1, &store));
    service = std::make_unique<meta::PdService>(store.get(), 3);
    service->RegisterTo(&server);
    for (std::uint64_t id = 1; id <= 3; ++id) {
      pdpb::BootstrapResponse response;
      pdpb::BootstrapRequest request;
      request.store = {id, "store.example:20160", 0};
      request.region = MakeRegion(0);
      Check(service->Bootstrap(request, &response));
    }
    for (std::int64_t i = 0; i < region_count;) {
      pdpb::UpsertRegionRequest request;
      for (int n = 0; n < 1000 && i < region_count; ++n) request.regions.push_back(MakeRegion(i++));
      pdpb::UpsertRegionResponse response;
      Check(service->UpsertRegion(request, &response));
    }
    Check(server.Start(0, "127.0.0.1"));
  }
  ~Cluster() { server.Stop(); }

  int port() const { return server.port(); }
  const store::MetaStore& records() const { return *store; }

  static void Check(const Status& status) {
    if (!status.ok()) throw std::runtime_error(status.ToString());
  }

 private:
  TempDir dir;
  std::unique_ptr<store::MetaStore> store;
  std::unique_ptr<meta::PdService> service;
  kanrpc::RpcServer server;
};

// The cluster of the running benchmark, made before its threads start.
std::unique_ptr<Cluster> cluster;

void MakeCluster(const benchmark::State& state) {
  cluster = std::make_unique<Cluster>(state.range(0));
}
void DropCluster(const benchmark::State&) { cluster = nullptr; }

// Calls `call(client, i)` for i = 0, 1, ... until the time is up, over a connection of this
// thread's own.
template <class Call>
void CallInALoop(benchmark::State& state, Call call) {
  kanrpc::RpcClient rpc("127.0.0.1:" + std::to_string(cluster->port()), {});
  client::PdClient client(&rpc);
  std::int64_t i = 0;
  for (auto _ : state) Cluster::Check(call(&client, i++));
  state.SetItemsProcessed(state.iterations());
}

void Tso(benchmark::State& state) {
  pdpb::TsoResponse response;
  CallInALoop(state, [&](auto* client, std::int64_t) { return client->Tso({1}, &response); });
}
BENCHMARK(Tso)
    ->Arg(0)
    ->ThreadRange(1, 64)
    ->UseRealTime()
    ->Setup(MakeCluster)
    ->Teardown(DropCluster);

// Every call writes one region durably.
void UpsertRegion(benchmark::State& state) {
  const std::int64_t first = (state.thread_index() + 1) * std::int64_t{10000000};
  pdpb::UpsertRegionResponse response;
  CallInALoop(state, [&](auto* client, std::int64_t i) {
    return client->UpsertRegion({{MakeRegion(first + i)}, {}}, &response);
  });
}
BENCHMARK(UpsertRegion)
    ->Arg(0)
    ->Threads(1)
    ->Threads(8)
    ->Threads(64)
    ->UseRealTime()
    ->Setup(MakeCluster)
    ->Teardown(DropCluster);

// The two below ask for the same regions.
void GrowingClusters(benchmark::internal::Benchmark* lookups) {
  for (const int regions : {1000, 10000, 100000, 1000000}) lookups->Arg(regions);
  lookups->UseRealTime()->Setup(MakeCluster)->Teardown(DropCluster);
}

// Keys spread evenly over the regions, so that a lookup passes half of them on average.
void GetRegion(benchmark::State& state) {
  const std::int64_t regions = state.range(0);
  pdpb::GetRegionResponse response;
  CallInALoop(state, [&](auto* client, std::int64_t i) {
    return client->GetRegion({RegionKeyAt(i * 7919 % regions)}, &response);
  });
}
BENCHMARK(GetRegion)->Apply(GrowingClusters);

// The engine's share of the same lookups: a scan of the records up to the one sought, touching
// each.
void ScanToRegion(benchmark::State& state) {
  const std::int64_t regions = state.range(0);
  std::uint64_t sum = 0;
  std::int64_t i = 0;
  for (auto _ : state) {
    const std::uint64_t id = MakeRegion(i++ * 7919 % regions).id;
    const auto look_at = [&](std::string_view key, std::string_view record) {
      sum += static_cast<unsigned char>(key.back()) + static_cast<unsigned char>(record.front()) +
             static_cast<unsigned char>(record.back());
      return true;
    };
    const std::string end = "pd/region/" + std::to_string(id) + '\0';
    Cluster::Check(cluster->records().CaptureView().ForEach("pd/region/", end, 1000000, look_at));
  }
  benchmark::DoNotOptimize(sum);
}
BENCHMARK(ScanToRegion)->Apply(GrowingClusters);

// A store reports 1000 regions while the cluster has as many as the argument says.
void RegionHeartbeat(benchmark::State& state) {
  pdpb::RegionHeartbeatRequest request;
  request.store_id = 1;
  for (std::uint64_t id = 0; id < 1000; ++id)
    request.regions.push_back({id, {1, 2, 3}, {}, {2, 3}});
  pdpb::RegionHeartbeatResponse response;
  CallInALoop(state, [&](auto* client, std::int64_t) {
    return client->RegionHeartbeat(request, &response);
  });
}
BENCHMARK(RegionHeartbeat)
    ->Arg(1000)
    ->Arg(100000)
    ->UseRealTime()
    ->Setup(MakeCluster)
    ->Teardown(DropCluster);

// Opening a store whose WALs have about 60 MB of regions.
void Recovery(benchmark::State& state) {
  TempDir dir;
  std::unique_ptr<store::MetaStore> store;
  Cluster::Check(store::MetaStore::Open(dir.path(), "", 0, &store));
  for (std::int64_t i = 0; i < state.range(0);) {
    std::vector<store::KeyValue> puts;
    for (int n = 0; n < 10 && i < state.range(0); ++n, ++i) {
      puts.emplace_back("pd/region/" + std::to_string(1000000 + i), Encode(MakeRegion(i)));
    }
    Cluster::Check(store->Put(puts));
  }
  store = nullptr;
  std::int64_t log_bytes = 0;
  for (const auto& file : std::filesystem::directory_iterator(dir.path())) {
    log_bytes += static_cast<std::int64_t>(file.file_size());
  }
  for (auto _ : state) {
    Cluster::Check(store::MetaStore::Open(dir.path(), "", 0, &store));
    state.PauseTiming();
    store = nullptr;
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * log_bytes);
}
BENCHMARK(Recovery)->Arg(220000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace kandb
