// kandb-sim: a short run with the real server, and faults of a server that it must find.

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <sstream>

#include "meta/pd_service.h"
#include "support/run_tool.h"

namespace kandb::meta {
namespace {

// A table of the report, from its header, which begins with `first_column`, to the empty line.
std::string TableOf(const std::string& report, const std::string& first_column) {
  const std::size_t begin = report.find("\n" + first_column + " ") + 1;
  return report.substr(begin, report.find("\n\n", begin) - begin);
}

TEST(Sim, RepeatsARunWithItsSeed) {
  std::string commands[2];
  std::string leaders[2];
  for (const int run : {0, 1}) {
    const auto result = testing::RunTool(
        {"--spawn=" KANDB_META_BINARY, "--threads=1", "--interval-ms=0", "--measure-ms=1"});
    ASSERT_EQ(result.exit_status, 0) << result.err;
    commands[run] = TableOf(result.out, "command");
    leaders[run] = TableOf(result.out, "leaders of a store");
  }
  EXPECT_EQ(commands[0], commands[1]);
  EXPECT_EQ(leaders[0], leaders[1]);

  // The server gave commands of every kind, and of each some were carried out.
  std::istringstream rows(commands[0].substr(commands[0].find('\n')));
  int kinds = 0;
  std::uint64_t given = 0;
  std::uint64_t carried_out = 0;
  for (std::string kind; rows >> kind >> given >> carried_out; ++kinds) {
    EXPECT_GT(given, 0u) << kind;
    EXPECT_GT(carried_out, 0u) << kind;
  }
  EXPECT_EQ(kinds, 5);
}

// Runs the simulator against a server that calls `spoil` after each call of one method. Lost calls
// are tried again; without a `finding` the run ends well.
template <class Req, class Resp>
void ExpectFinding(const char* finding, const char* name,
                   Status (PdService::*method)(const Req&, Resp*),
                   std::type_identity_t<void (*)(PdService*, Resp*)> spoil) {
  const testing::TempDir dir;
  std::unique_ptr<store::MetaStore> store;
  ASSERT_TRUE(store::MetaStore::Open(dir.path(), "", 0, &store).ok());
  PdService service(store.get(), 3);
  kanrpc::RpcServer server;
  service.RegisterTo(&server);
  server.Register<Req, Resp>(name, [&](const Req& request, Resp* answer) {
    Status status = (service.*method)(request, answer);
    spoil(&service, answer);
    return status;
  });
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  const auto run =
      testing::RunTool({"--server=127.0.0.1:" + std::to_string(server.port()), "--quiet-rounds=5",
                        "--interval-ms=0", "--measure-ms=1", "--reconnect-ms=20000"});
  EXPECT_EQ(run.exit_status, finding[0] == 0 ? 0 : 1) << name;
  EXPECT_NE(run.err.find(finding), std::string::npos) << run.err;
}

TEST(Sim, FindsTheFaultOfAServer) {
  ExpectFinding("some were handed out before", "Pd.AllocId", &PdService::AllocId,
                [](auto*, auto* answer) { answer->first_id = 7; });
  ExpectFinding("not above the last", "Pd.Tso", &PdService::Tso,
                [](auto*, auto* answer) { answer->timestamp = 7; });
  // After a check of as many calls the clock is an hour back.
  ExpectFinding("is not above those of the round before", "Pd.Tso", &PdService::Tso,
                [](auto*, auto* answer) {
                  static std::atomic<int> calls = 0;
                  if (++calls > 20) answer->timestamp -= std::uint64_t{3600000} << 18;
                });
  ExpectFinding("the server says region", "Pd.GetRegion", &PdService::GetRegion,
                [](auto*, auto* answer) { ++answer->region.id; });
  ExpectFinding("regions are complete after 5 quiet rounds", "Pd.RegionHeartbeat",
                &PdService::RegionHeartbeat, [](auto*, auto* answer) { answer->commands.clear(); });
  ExpectFinding("a command that does not fit the report of store", "Pd.RegionHeartbeat",
                &PdService::RegionHeartbeat,
                [](auto*, auto* answer) { answer->commands.resize(99); });
  // The first region is lost with every change.
  ExpectFinding("GetRegion: remote: NotFound: no region covers key", "Pd.UpsertRegion",
                &PdService::UpsertRegion, [](auto* service, auto* answer) {
                  pdpb::GetRegionResponse first;
                  (void)service->GetRegion({""}, &first);
                  (void)service->UpsertRegion({{}, {first.region.id}}, answer);
                });
  // Another client bootstraps the cluster first.
  ExpectFinding("the server has a cluster already", "Pd.AllocId", &PdService::AllocId,
                [](auto* service, auto*) {
                  pdpb::BootstrapResponse done;
                  (void)service->Bootstrap({}, &done);
                });
}

// The call is carried out, and the connection then ends.
void LoseSomeAnswers(PdService*, auto*) {
  static std::atomic<int> calls = 0;
  if (calls++ % 50 == 0) throw std::bad_alloc();
}

TEST(Sim, GoesOnWhenAnswersAreLost) {
  ExpectFinding("", "Pd.Tso", &PdService::Tso, LoseSomeAnswers);
  ExpectFinding("", "Pd.AllocId", &PdService::AllocId, LoseSomeAnswers);
  ExpectFinding("", "Pd.Bootstrap", &PdService::Bootstrap, LoseSomeAnswers);
  ExpectFinding("", "Pd.GetRegion", &PdService::GetRegion, LoseSomeAnswers);
  ExpectFinding("", "Pd.UpsertRegion", &PdService::UpsertRegion, LoseSomeAnswers);
  ExpectFinding("", "Pd.RegionHeartbeat", &PdService::RegionHeartbeat, LoseSomeAnswers);
}

}  // namespace
}  // namespace kandb::meta
