// kandb-ctl against a running server, and the notation of keys.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <sstream>

#include "kandb_ctl/key_text.h"
#include "pdpb/messages.h"
#include "rpc/socket_io.h"
#include "support/eventually.h"
#include "support/raw_connection.h"
#include "support/run_tool.h"
#include "support/server_process.h"

namespace kandb {
namespace {

using testing::RunTool;
using testing::ToolResult;

std::string ServerOption(int port) { return "--server=127.0.0.1:" + std::to_string(port); }

// A server with a GetRegion of the test's.
struct FakeServer {
  explicit FakeServer(const std::function<void(const std::string& key, pdpb::Region*)>& find) {
    const auto serve = [=](const auto& request, auto* answer) {
      find(request.key, &answer->region);
      return Status();
    };
    rpc.Register<pdpb::GetRegionRequest, pdpb::GetRegionResponse>("Pd.GetRegion", serve);
    EXPECT_TRUE(rpc.Start(0, "127.0.0.1").ok());
    option = ServerOption(rpc.port());
  }

  kanrpc::RpcServer rpc;
  std::string option;
};

TEST(CtlOnline, DoesWhatTheTranscriptSays) {
  const testing::TempDir dir;
  testing::ListeningServer server(dir.path());
  const std::string options = ServerOption(server.port());
  const auto load = RunTool({"load", "upsert-region", "--yes", "--seconds=1", options});
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
[0] kandb-ctl: warning: region 7: peer 9 is on unknown store 5
$ region upsert --id=7 --start-key=m --end-key=m
[1] kandb-ctl: region 7: it ends at m, not after its start m (--force writes it)
$ region upsert --id=1025
[1] kandb-ctl: region 1025: it covers every key, beside region 7 (--force writes it)
$ region upsert --stdin << [{"id":0,"end_key":"a"}]
[1] kandb-ctl: region 0: no region has this id (--force writes it)
$ region upsert --stdin --force << [{"id":0,"start_key":"z","end_key":"y"}]
written: 1, removed: 0
$ region list
region    start             end               epoch   stores            leader
1025      ""                m                 1.1     1024              1024
7         m                 n\x00\xff\\       1.1     1027(learner),5   1027
[1] kandb-ctl: gap at n\x00\xff\\: no region covers it; the walk ends here (continue with --start-key)
$ heartbeat << {"store_id":4,"regions":[{"region_id":7}],"region_ids":[7]}
command              region  store  address
DestroyStaleReplica       7      4
$ region remove 7 11
written: 0, removed: 2
had a record: 7
had no record: 11
$ region get \q
[2] KEY: not a key: \q
$ region upsert --id=9900000000000099999 --end-key=b
written: 1, removed: 0
$ load remove-regions --yes
method          removed
remove-regions        1
$ load alloc-id
[2] alloc-id: writes to the server; say --yes
$ region upsert --stdin << [{"id":1},{"peers":[{"id":-1}]}]
[2] kandb-ctl: standard input: regions[1].peers[0].id: a number in range is wanted
)";
  EXPECT_EQ(testing::Replay(transcript, options), transcript);
  server.Kill();
  const ToolResult no_load = RunTool({"load", "tso", options});
  EXPECT_TRUE(no_load.exit_status == 3 && no_load.out.empty()) << no_load.out;
  const std::string refused = "cannot connect to " + options.substr(9) + ": Connection refused";
  EXPECT_EQ(RunTool({"tso", "--server=a:1", options}),
            (ToolResult{3, "", "kandb-ctl: " + refused + "\n"}));
}

TEST(CtlOnline, ServersAreCheckedBeforeAndNamedAfter) {
  const struct {
    const char* server;
    const char* wrong;
  } cases[] = {{"x", "there is no port"},
               {":1", "there is no host"},
               {"[::1]", "there is no port"},
               {"[::1:7", "a bracket is missing"},
               {"a:0", "the port is not a number from 1 to 65535"},
               {"::1:7", "an IPv6 address is put in brackets, and a port follows"}};
  for (const auto& [server, wrong] : cases) {
    ::setenv("KANDB_SERVER", server, 1);
    const ToolResult result = RunTool({"tso"});
    EXPECT_EQ(result.exit_status, 2);
    EXPECT_TRUE(result.err.starts_with("--server: '" + std::string(server) +
                                       "' is not HOST:PORT: " + wrong))
        << result.err;
  }
  ::unsetenv("KANDB_SERVER");

  sockaddr_in address;
  const UniqueFd listener = testing::BindLoopback(&address);
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  auto answer = std::async(std::launch::async, [&] {
    const UniqueFd peer(::accept(listener.get(), nullptr, nullptr));
    return kanrpc::WriteAll(peer.get(), "HTTP/1.1 400 Bad Request\r\n\r\n", 60000);
  });
  EXPECT_EQ(RunTool({"tso", "--attempts=1", ServerOption(ntohs(address.sin_port))}),
            (ToolResult{3, "", "kandb-ctl: kanrpc: bad magic (is this a kandb-meta server?)\n"}));
  EXPECT_TRUE(answer.get().ok());
}

TEST(CtlOnline, ListsRegionsAsTheyAreFound) {
  std::promise<void> first_seen;
  FakeServer server([&](const std::string& key, pdpb::Region* region) {
    if (!key.empty()) first_seen.get_future().wait();
    region->end_key = key.empty() ? "b" : "";
  });
  tools::ChildProcess tool(KANDB_TOOL_BINARY,
                           {"region", "list", "--json", "--timeout-ms=60000", server.option}, {});
  EXPECT_TRUE(tool.ReadBanner().ends_with("}\n"));
  first_seen.set_value();
  std::string unused;
  EXPECT_EQ(tool.WaitForExit(&unused), 0);
  server.rpc.Stop();
}

TEST(CtlOnline, HealthNamesWhatIsBad) {
  const testing::TempDir dir;
  testing::ListeningServer server(dir.path());
  const std::string data = "--data-dir=" + dir.File("pd-data");
  const auto bad = [&](const char* command, const std::string& limit) {
    const ToolResult result =
        RunTool({ServerOption(server.port()), command, data, "--max-call-ms=60000",
                 "--max-clock-ms=60000", "--min-free-mib=0.001", limit});
    std::string names = std::to_string(result.exit_status);
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("BAD")) names += line.substr(3, line.find(' ', 6) - 3);
      if (line.ends_with("process " + std::to_string(server.pid()))) names += " pid";
      if (line == "kandb_up 0") names += " down";
    }
    return names;
  };
  EXPECT_EQ(bad("health", "--max-descriptors=0.9"), "0 pid");
  EXPECT_EQ(bad("health", "--max-wals=0"), "1   wals pid");
  const std::string port_alone =
      testing::RunTool({"--server=127.0.0.1:" + std::to_string(server.port()), "health"}).out;
  EXPECT_NE(port_alone.find("not checked, give --data-dir " + dir.File("pd-data") + "\n"),
            std::string::npos)
      << port_alone;
  EXPECT_EQ(bad("health", "--max-descriptors=0"), "1   descriptors pid");
  EXPECT_EQ(bad("health", "--min-free-mib=1e12"), "1   free_space pid");
  testing::WriteFile(dir.File("pd-data/sst-000099.sst"), "");
  EXPECT_EQ(bad("health", "--max-leftovers=0"), "1   leftovers pid");
  EXPECT_EQ(bad("metrics", "--textfile=" + dir.File("m")), "0");
  EXPECT_NE(testing::ReadFile(dir.File("m")).find("\nkandb_wals 1\n"), std::string::npos);
  server.Kill();
  EXPECT_EQ(bad("health", "--max-wals=9"), "3   connect   process");
  EXPECT_EQ(bad("metrics", "--max-wals=9"), "0 down");
}

// Each ends long before its time, with a summary; the load takes its regions back.
TEST(CtlOnline, CtrlCPrintsWhatWasMeasured) {
  const testing::TempDir dir;
  testing::ListeningServer server(dir.path());
  const std::string option = ServerOption(server.port());
  const struct {
    std::vector<std::string> words;
    const char* summary;
  } cases[] = {{{"load", "upsert-region", "--yes", "--seconds=600", option}, "upsert-region"},
               {{"ping", "--count=9", "--interval-ms=100000", option}, "min/median/max"}};
  for (const auto& [words, summary] : cases) {
    const std::string out = dir.File("out");
    const auto in_child = [&] {
      ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), 1);
    };
    tools::ChildProcess tool(KANDB_TOOL_BINARY, words, {.in_child = in_child});
    testing::Caller caller(server.port());
    pdpb::GetRegionResponse found;
    ASSERT_TRUE(testing::Eventually([&] {
      return caller.GetRegion({"kandb-ctl-load/00000001"}, &found).ok() ||
             testing::ReadFile(out).starts_with("1: ");
    }));
    ::kill(tool.pid(), SIGINT);
    std::string unused;
    EXPECT_EQ(tool.WaitForExit(&unused), 0);
    EXPECT_NE(testing::ReadFile(out).find(summary), std::string::npos);
    EXPECT_FALSE(caller.GetRegion({"kandb-ctl-load/00000001"}, &found).ok());
  }
}

TEST(CtlOnline, SurvivesAServerThatMisbehavesOrGoesAway) {
  std::atomic<int> calls = 0;
  FakeServer server([&](const std::string&, pdpb::Region* region) {
    ++calls;
    region->end_key = "b";
  });
  const std::string transcript = R"(
$ region list --start-key=c
region    start             end               epoch   stores            leader
0         ""                b                 0.0
[1] kandb-ctl: region 0 ends at b, not after c, which the server says it covers; the walk ends here
)";
  EXPECT_EQ(testing::Replay(transcript, server.option), transcript);
  auto load = std::async(std::launch::async, [&] {
    return RunTool({"load", "get-region", "--seconds=60", server.option});
  });
  EXPECT_TRUE(testing::Eventually([&] { return calls >= 100; }));
  server.rpc.Stop();
  const ToolResult result = load.get();
  EXPECT_TRUE(result.exit_status == 3 && result.err.ends_with("so the load ended early\n"))
      << result;
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
