// kandb-ctl against a running server, and the notation of keys.

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "kandb_ctl/key_text.h"
#include "pdpb/messages.h"
#include "support/eventually.h"
#include "support/run_tool.h"
#include "support/server_process.h"

namespace kandb {
namespace {

TEST(CtlOnline, DoesWhatTheTranscriptSays) {
  const testing::TempDir dir;
  testing::ListeningServer server(dir.path());
  const std::string options = "--server=127.0.0.1:" + std::to_string(server.port());
  const auto load = testing::RunTool({"load", "upsert-region", "--yes", "--seconds=1", options});
  EXPECT_TRUE(load.exit_status == 0 && load.out.starts_with("method ")) << load.out << load.err;
  const std::string transcript = R"(
$ region get kandb-ctl-load/00000000
[1] kandb-ctl: remote: NotFound: cluster not bootstrapped
$ bootstrap --store-address=a:1 --end-key=m
the cluster is new: the store and the regions were registered
store 1024 at a:1
region 1025 from "" to m
  peer 1026 on store 1024, voter
$ bootstrap --stdin << {"store":{"address":"b:2"}}
the cluster existed already: only the store was registered
store 1027 at b:2
$ region upsert --id=7 --start-key=hex:6d --end-key=n\x00\xff\\ --peer=8:1027:learner --peer=9:5
written: 1, removed: 0
$ region list
region  start  end          epoch  stores           leader
  1025  ""     m              1.1             1024    1024
     7  m      n\x00\xff\\    1.1  1027(learner),5    1027
[1] kandb-ctl: gap at n\x00\xff\\: no region covers it; the walk ends here (continue with --start-key)
$ heartbeat << {"store_id":4,"regions":[{"region_id":7}],"region_ids":[7]}
command              region  store  address
DestroyStaleReplica       7      4
$ region remove 7 11
written: 0, removed: 2
$ region get \q
[2] KEY: not a key: \q
$ load alloc-id
[2] alloc-id: writes to the server; say --yes
$ region upsert --stdin << [{"id":1},{"peers":[{"id":-1}]}]
[2] kandb-ctl: standard input: regions[1].peers[0].id: a number in range is wanted
)";
  EXPECT_EQ(testing::Replay(transcript, options), transcript);
  server.Kill();
  EXPECT_EQ(testing::RunTool({"tso", options}).exit_status, 1);
}

TEST(CtlOnline, SurvivesAServerThatMisbehavesOrGoesAway) {
  kanrpc::RpcServer server;
  std::atomic<int> calls = 0;
  const auto serve = [&](auto&, auto* answer) {
    ++calls;
    answer->region.end_key = "b";
    return Status();
  };
  server.Register<pdpb::GetRegionRequest, pdpb::GetRegionResponse>("Pd.GetRegion", serve);
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  const std::string options = "--server=127.0.0.1:" + std::to_string(server.port());
  const std::string transcript = R"(
$ region list --start-key=c
region  start  end  epoch  stores  leader
     0  ""     b      0.0
[1] kandb-ctl: region 0 ends at b, not after c, which the server says it covers; the walk ends here
)";
  EXPECT_EQ(testing::Replay(transcript, options), transcript);
  auto load = std::async(std::launch::async, [&] {
    return testing::RunTool({"load", "get-region", "--seconds=60", options});
  });
  EXPECT_TRUE(testing::Eventually([&] { return calls >= 100; }));
  server.Stop();
  const testing::ToolResult result = load.get();
  EXPECT_TRUE(result.exit_status == 1 && result.err.ends_with("so the load ended early\n"))
      << result.err;
}

TEST(KeyText, IsReadBackAsTheSameBytes) {
  std::string key = "hex:";
  for (int byte = 0; byte < 256; ++byte) key += static_cast<char>(byte);
  EXPECT_EQ(ctl::ParseKey(ctl::KeyText(key)), key);
  for (const char* bad : {"hex:0", "hex:0g", "\\", "\\x1", "\\n"}) {
    EXPECT_EQ(ctl::ParseKey(bad), std::nullopt) << bad;
  }
}

}  // namespace
}  // namespace kandb
