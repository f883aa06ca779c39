// The real executable over loopback: its command line and its main job.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "support/server_process.h"
#include "support/temp_dir.h"

namespace kandb {
namespace {

using namespace pdpb;  // NOLINT(google-build-using-namespace): every message is used here
using testing::Caller;
using testing::ListeningServer;
using testing::ServerProcess;
using testing::TempDir;

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
  const struct {
    std::vector<std::string> arguments;
    int exit_status;
    std::string error;
  } cases[] = {
      {{"--help"}, 0, kUsage},
      {{"--bogus"}, 1, std::string("unknown flag: --bogus\n") + kUsage},
      {{"--data_dir=file"},
       1,
       "failed to open pd state at file: InvalidArgument: file exists and is not a directory\n"},
      {{"--bind_addr=localhost"},
       1,
       "failed to start pd: InvalidArgument: invalid IPv4 bind address: localhost\n"},
      {{"--port=65536"},
       1,
       "failed to start pd: Corruption: bind 0.0.0.0:65536 failed: Invalid argument\n"},
      {{"--port=" + std::to_string(holder.port())},
       1,
       "failed to start pd: Corruption: bind 0.0.0.0:" + std::to_string(holder.port()) +
           " failed: Address already in use\n"},
  };
  for (const auto& c : cases) {
    ServerProcess server(c.arguments, dir.path());
    std::string error;
    EXPECT_EQ(server.WaitForExit(&error), c.exit_status);
    EXPECT_EQ(error, c.error);
  }
}

// 127.0.0.1 has the port in use: a server that listens there, or at every address, does not start.
TEST(Process, DoesItsMainJobAcrossARestart) {
  const TempDir dir;
  kanrpc::RpcServer neighbour;
  ASSERT_TRUE(neighbour.Start(0, "127.0.0.1").ok());
  const std::string port = std::to_string(neighbour.port());
  const std::vector<std::string> arguments = {"--port=" + port, "--bind_addr", "127.0.0.2",
                                              "--target_replicas=2"};
  const std::string banner = "kandb-meta listening on 127.0.0.2:" + port + ", state at ./pd-data\n";
  auto server = std::make_unique<ServerProcess>(arguments, dir.path());
  ASSERT_EQ(server->ReadBanner(), banner);
  Caller client(neighbour.port(), "127.0.0.2");
  AllocIdResponse ids;
  ASSERT_TRUE(client.AllocId({5}, &ids).ok());
  EXPECT_EQ(ids.first_id, 1024u);
  const std::vector<Store> stores = {{1, "s1:20", 0}, {2, "s2:20", 0}};
  const Region region = {1024, "b", std::string("m\0\xff", 3), {1, 1}, {{1, 1, {}}, {3, 2, {}}}};
  BootstrapResponse bootstrapped;
  ASSERT_TRUE(client.Bootstrap({stores[0], region, {}}, &bootstrapped).ok());
  EXPECT_FALSE(bootstrapped.already_bootstrapped);
  ASSERT_TRUE(client.Bootstrap({stores[1], {}, {}}, &bootstrapped).ok());
  EXPECT_TRUE(bootstrapped.already_bootstrapped);
  RegionHeartbeatResponse answer;
  ASSERT_TRUE(client.RegionHeartbeat({1, {{1024, {1}, {}, {}}}, {}}, &answer).ok());
  EXPECT_EQ(answer.commands,
            (std::vector<ScheduleCommand>{{ScheduleKind::kAddPeer, 1024, 2, "s2:20"}}));

  server->Kill();
  server = std::make_unique<ServerProcess>(arguments, dir.path());
  ASSERT_EQ(server->ReadBanner(), banner);
  EXPECT_FALSE(client.AllocId({1}, &ids).ok());  // over the connection that was lost
  ASSERT_TRUE(client.AllocId({1}, &ids).ok());
  EXPECT_GT(ids.first_id, 1028u);
  GetRegionResponse routed;
  ASSERT_TRUE(client.GetRegion({std::string("m\0", 2)}, &routed).ok());
  EXPECT_EQ(routed.region, region);
  EXPECT_EQ(routed.leader, region.peers[0]);
  EXPECT_EQ(routed.leader_store, stores[0]);
  EXPECT_EQ(routed.stores, stores);
}

TEST(Process, TakesAsManyDescriptorsAsItMay) {
  rlimit own{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &own), 0);
  const rlimit lowered{.rlim_cur = 64, .rlim_max = own.rlim_max};
  const TempDir dir;
  const ListeningServer server(dir.path(), [&] { ::setrlimit(RLIMIT_NOFILE, &lowered); });
  rlimit taken{};
  ASSERT_EQ(::prlimit(server.pid(), RLIMIT_NOFILE, nullptr, &taken), 0);
  EXPECT_EQ(taken.rlim_cur, own.rlim_max);
}

TEST(Process, ASecondServerOnTheDirectoryIsRefused) {
  const TempDir dir;
  const ListeningServer first(dir.path());
  ServerProcess second({"--port=0"}, dir.path());
  std::string error;
  EXPECT_EQ(second.WaitForExit(&error), 1);
  EXPECT_EQ(error,
            "failed to open pd state at ./pd-data: InvalidArgument: ./pd-data is in use by another "
            "process\n");
}

}  // namespace
}  // namespace kandb
