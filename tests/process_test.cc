// The real executable over loopback: its command line, its main job, and what kill -9 leaves.

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "support/server_process.h"
#include "support/temp_dir.h"
#include "support/test_client.h"

namespace kandb {
namespace {

using namespace pdpb;  // NOLINT(google-build-using-namespace): every message is used here
using testing::FreePort;
using testing::ServerProcess;
using testing::TempDir;
using testing::TestClient;

constexpr char kUsage[] =
    "usage: kandb-meta [flags]\n"
    "  --port                 pd service listen port (default: 2379)\n"
    "  --bind_addr            pd service IPv4 listen address (default: 0.0.0.0)\n"
    "  --data_dir             pd state directory (default: ./pd-data)\n"
    "  --target_replicas      auto-heal: schedule adding replicas until each region reaches this "
    "member count (0 = off; promotion of caught-up learners is always on) (default: 0)\n";

TEST(Process, EndsWithAnErrorThatNamesTheCause) {
  TempDir dir;
  testing::WriteFile(dir.File("file"), "");
  kanrpc::RpcServer holder;
  ASSERT_TRUE(holder.Start(0, "127.0.0.1").ok());
  const std::string port = std::to_string(holder.port());
  const struct {
    std::vector<std::string> arguments;
    int exit_status;
    std::string error;
  } cases[] = {
      {{"--help"}, 0, kUsage},
      {{"--bogus"}, 1, std::string("unknown flag: --bogus\n") + kUsage},
      {{"--port=12x"}, 1, "bad value for --port: '12x'\n"},
      {{"--data_dir=file"},
       1,
       "failed to open pd state at file: InvalidArgument: file exists and is not a directory\n"},
      {{"--data_dir", "a/b"},
       1,
       "failed to open pd state at a/b: Corruption: mkdir a/b: No such file or directory\n"},
      {{"--bind_addr=localhost"},
       1,
       "failed to start pd: InvalidArgument: invalid IPv4 bind address: localhost\n"},
      {{"--bind_addr=127.0.0.1", "--port=" + port},
       1,
       "failed to start pd: Corruption: bind 127.0.0.1:" + port +
           " failed: Address already in use\n"},
  };
  for (const auto& c : cases) {
    ServerProcess server(c.arguments, dir.path());
    std::string error;
    EXPECT_EQ(server.WaitForExit(&error), c.exit_status);
    EXPECT_EQ(error, c.error);
  }
}

class ClusterTest : public ::testing::Test {
 protected:
  ClusterTest() : port(FreePort()) { Start(); }

  void Start() {
    const std::string port_text = std::to_string(port);
    server = std::make_unique<ServerProcess>(
        std::vector<std::string>{"--port=" + port_text, "--bind_addr", "127.0.0.1",
                                 "--target_replicas=2"},
        dir.path());
    ASSERT_EQ(server->ReadBanner(),
              "kandb-meta listening on 127.0.0.1:" + port_text + ", state at ./pd-data\n");
    client = std::make_unique<TestClient>(port);
  }

  template <class Resp, class Req>
  Resp Call(const std::string& method, const Req& request) {
    Resp response;
    EXPECT_EQ(client->Call(method, request, &response).ToString(), "OK");
    return response;
  }

  std::string Route(const std::string& key, TestClient* over) {
    GetRegionResponse response;
    const Status status = over->Call("Pd.GetRegion", GetRegionRequest{key}, &response);
    return status.ok() ? std::to_string(response.region.id) : status.message();
  }
  std::string Route(const std::string& key) { return Route(key, client.get()); }

  TempDir dir;
  int port;
  std::unique_ptr<ServerProcess> server;
  std::unique_ptr<TestClient> client;
};

TEST_F(ClusterTest, DoesItsMainJobAcrossARestart) {
  EXPECT_EQ(Call<AllocIdResponse>("Pd.AllocId", AllocIdRequest{5}).first_id, 1024u);
  EXPECT_EQ(Route("k"), "NotFound: cluster not bootstrapped");
  const Region first = {1024, "", "m", {1, 1}, {{1, 1, {}}}};
  const Region extra = {1025, "m", "", {1, 1}, {{2, 1, {}}, {3, 2, {}}}};
  const BootstrapRequest bootstrap = {{1, "s1:20", 0}, first, {extra}};
  EXPECT_FALSE(Call<BootstrapResponse>("Pd.Bootstrap", bootstrap).already_bootstrapped);
  const BootstrapRequest second = {{2, "s2:20", 0}, {}, {}};
  EXPECT_TRUE(Call<BootstrapResponse>("Pd.Bootstrap", second).already_bootstrapped);
  EXPECT_EQ(Route(""), "1024");
  EXPECT_EQ(Route(std::string("m\0\xff", 3)), "1025");

  const std::string binary_split("s\0\xfe", 3);
  UpsertRegionRequest split;
  split.regions = {{1025, "m", binary_split, {1, 2}, extra.peers},
                   {1026, binary_split, "", {1, 2}, extra.peers}};
  Call<UpsertRegionResponse>("Pd.UpsertRegion", split);
  EXPECT_EQ(Route(binary_split), "1026");
  EXPECT_EQ(Route("n"), "1025");
  UpsertRegionRequest merge;
  merge.regions = {{1025, "m", "", {1, 3}, extra.peers}};
  merge.removed_region_ids = {1026};
  Call<UpsertRegionResponse>("Pd.UpsertRegion", merge);
  EXPECT_EQ(Route(binary_split), "1025");

  RegionHeartbeatRequest heartbeat;
  heartbeat.store_id = 1;
  heartbeat.regions = {{1024, {1}, {1}, {}}, {1025, {1, 2, 3}, {}, {3}}};
  heartbeat.region_ids = {1024};
  EXPECT_EQ(Call<RegionHeartbeatResponse>("Pd.RegionHeartbeat", heartbeat).commands,
            (std::vector<ScheduleCommand>{{ScheduleKind::kPromoteLearner, 1024, 1, ""},
                                          {ScheduleKind::kAddPeer, 1024, 2, "s2:20"},
                                          {ScheduleKind::kRemovePeer, 1025, 3, ""},
                                          {ScheduleKind::kTransferLeader, 1025, 3, ""}}));
  heartbeat = {.store_id = 9, .regions = {}, .region_ids = {1024}};
  EXPECT_EQ(Call<RegionHeartbeatResponse>("Pd.RegionHeartbeat", heartbeat).commands,
            (std::vector<ScheduleCommand>{{ScheduleKind::kDestroyStaleReplica, 1024, 9, ""}}));

  server->Kill();
  Start();
  EXPECT_GT(Call<AllocIdResponse>("Pd.AllocId", AllocIdRequest{1}).first_id, 1028u);
  const auto routed = Call<GetRegionResponse>("Pd.GetRegion", GetRegionRequest{binary_split});
  EXPECT_EQ(routed.region, merge.regions[0]);
  EXPECT_EQ(routed.leader, extra.peers[0]);
  EXPECT_EQ(routed.leader_store, bootstrap.store);
  EXPECT_EQ(routed.stores, (std::vector<Store>{bootstrap.store, second.store}));
}

// Threads allocate ids, write regions and take timestamps while the process is killed. Afterwards
// every acknowledged region is there, no id was handed out twice, and timestamps had grown.
TEST_F(ClusterTest, KillNineLosesNothingAcknowledged) {
  constexpr std::uint64_t kThreads = 8;
  constexpr int kCycles = 4;
  constexpr std::uint32_t kIdsPerCall = 400;
  Call<BootstrapResponse>("Pd.Bootstrap", BootstrapRequest{});
  std::multiset<std::uint64_t> ids;
  std::vector<std::set<std::string>> written(kThreads);
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    std::vector<std::vector<std::uint64_t>> thread_ids(kThreads);
    std::atomic<int> rounds = 0;
    std::vector<std::thread> threads;
    for (std::uint64_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        TestClient mine(port);
        std::uint64_t last_timestamp = 0;
        for (;; ++rounds) {
          AllocIdResponse id;
          TsoResponse timestamp;
          UpsertRegionResponse done;
          if (!mine.Call("Pd.AllocId", AllocIdRequest{kIdsPerCall}, &id).ok()) return;
          thread_ids[t].push_back(id.first_id);
          if (!mine.Call("Pd.Tso", TsoRequest{1}, &timestamp).ok()) return;
          EXPECT_GT(timestamp.timestamp, last_timestamp);
          last_timestamp = timestamp.timestamp;
          // Its start and end key make each region the only one to cover its start.
          const std::string key = "k" + std::to_string(id.first_id);
          UpsertRegionRequest upsert;
          upsert.regions = {{id.first_id, key, key + std::string(1, '\0'), {}, {}}};
          if (!mine.Call("Pd.UpsertRegion", upsert, &done).ok()) return;
          written[t].insert(key);
        }
      });
    }
    while (rounds < 100) std::this_thread::yield();
    server->Kill();
    for (std::thread& thread : threads) thread.join();
    Start();
    for (const auto& some : thread_ids) ids.insert(some.begin(), some.end());
  }
  UpsertRegionRequest remove;  // the region without bounds that bootstrapping left
  remove.removed_region_ids = {0};
  Call<UpsertRegionResponse>("Pd.UpsertRegion", remove);
  for (const auto& keys : written) {
    for (const std::string& key : keys) EXPECT_EQ("k" + Route(key), key);
  }
  EXPECT_GE(ids.size(), 100u * kCycles);
  std::uint64_t next_free = 0;
  for (const std::uint64_t first_id : ids) {
    ASSERT_GE(first_id, next_free);
    next_free = first_id + kIdsPerCall;
  }
}

TEST_F(ClusterTest, ServesOthersWhileManyConnectionsIdleOrSpeakGarbage) {
  std::vector<std::unique_ptr<TestClient>> others;
  for (int i = 0; i < 300; ++i) {
    others.push_back(std::make_unique<TestClient>(port));
    ASSERT_GE(others.back()->fd(), 0);
    if (i % 3 == 0) others.back()->Send("garbage that is no frame at all");
    if (i % 3 == 1) others.back()->Send("KRPC");
  }
  EXPECT_EQ(Route("k"), "NotFound: cluster not bootstrapped");
  EXPECT_EQ(Route("k", others[2].get()), "NotFound: cluster not bootstrapped");
}

}  // namespace
}  // namespace kandb
