// The real executable over loopback: its command line and its main job.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "support/answer.h"
#include "support/server_process.h"
#include "support/temp_dir.h"

namespace kandb {
namespace {

using namespace pdpb;  // NOLINT(google-build-using-namespace): every message is used here
using testing::Answer;
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
  const TempDir dir;
  testing::WriteFile(dir.File("file"), "");
  const ListeningServer running(dir.path());
  const std::string port = std::to_string(running.port());
  const std::string address = "127.0.0.1:" + port;
  const std::string open_failure = "failed to open pd state at ";
  const std::string failure = "failed to start pd: ";
  const struct {
    std::vector<std::string> arguments;
    std::string error;
  } cases[] = {
      {{"--help"}, kUsage},
      {{"--bogus"}, std::string("unknown flag: --bogus\n") + kUsage},
      {{"--data_dir=file"},
       open_failure + "file: InvalidArgument: file exists and is not a directory\n"},
      {{"--port=0"},  // another server is running on the directory
       open_failure + "./pd-data: InvalidArgument: ./pd-data is in use by another process\n"},
      {{"--data_dir=new", "--bind_addr=localhost"},
       failure + "InvalidArgument: invalid IPv4 bind address: localhost\n"},
      {{"--data_dir=new", "--port=65536"},
       failure + "Corruption: bind 0.0.0.0:65536 failed: Invalid argument\n"},
      {{"--data_dir=new", "--bind_addr=127.0.0.1", "--port=" + port},
       failure + "Corruption: bind " + address + " failed: Address already in use\n"},
  };
  for (const auto& c : cases) {
    ServerProcess server(c.arguments, dir.path());
    std::string error;
    EXPECT_EQ(server.WaitForExit(&error), c.error == kUsage ? 0 : 1);
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
  EXPECT_EQ(Answer(client, &Caller::AllocId, {5}).first_id, 1024u);
  const std::vector<Store> stores = {{1, "s1:20", 0}, {2, "s2:20", 0}};
  const Region region = {1024, "b", std::string("m\0\xff", 3), {1, 1}, {{1, 1, {}}, {3, 2, {}}}};
  const auto already_bootstrapped = [&](const BootstrapRequest& request) {
    return Answer(client, &Caller::Bootstrap, request).already_bootstrapped;
  };
  EXPECT_FALSE(already_bootstrapped({stores[0], region, {}}));
  EXPECT_TRUE(already_bootstrapped({stores[1], {}, {}}));
  EXPECT_EQ(Answer(client, &Caller::RegionHeartbeat, {1, {{1024, {1}, {}, {}}}, {}}).commands,
            (std::vector<ScheduleCommand>{{ScheduleKind::kAddPeer, 1024, 2, "s2:20"}}));

  server->Kill();
  server = std::make_unique<ServerProcess>(arguments, dir.path());
  ASSERT_EQ(server->ReadBanner(), banner);
  AllocIdResponse ids;
  EXPECT_FALSE(client.AllocId({1}, &ids).ok());  // over the connection that was lost
  EXPECT_GT(Answer(client, &Caller::AllocId, {1}).first_id, 1028u);
  EXPECT_EQ(Encode(Answer(client, &Caller::GetRegion, {std::string("m\0", 2)})),
            Encode(GetRegionResponse{region, region.peers[0], stores[0], stores}));
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

}  // namespace
}  // namespace kandb
