// kandb-sim: a short run with the real server, and faults of a server that it must find.

#include <gtest/gtest.h>

#include <regex>

#include "meta/pd_service.h"
#include "support/run_tool.h"

namespace kandb::meta {
namespace {

TEST(Sim, PlaysAClusterThatItsSeedRepeats) {
  std::string told[2];
  for (std::string& commands_and_leaders : told) {
    const auto run = testing::RunTool(
        {"--spawn=" KANDB_META_BINARY, "--threads=1", "--interval-ms=0", "--measure-ms=1"});
    ASSERT_EQ(run.exit_status, 0) << run.err;
    commands_and_leaders = run.out.substr(run.out.find("command "));
    commands_and_leaders.resize(commands_and_leaders.find("method "));
  }
  EXPECT_TRUE(std::regex_search(told[0], std::regex("(\n\\w+ +[1-9]\\d* +[1-9]\\d*){5}\n\n")));
  EXPECT_EQ(told[0], told[1]);
}

// Every call of the method is followed by `spoil`.
template <class Req, class Resp>
void Find(const char* finding, const char* name, Status (PdService::*method)(const Req&, Resp*),
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
  const auto run = testing::RunTool({"--server=127.0.0.1:" + std::to_string(server.port()),
                                     "--quiet-rounds=5", "--interval-ms=0"});
  EXPECT_TRUE(run.exit_status == 1 && run.err.find(finding) != std::string::npos) << run.err;
}

TEST(Sim, FindsTheFaultOfAServer) {
  using S = PdService;
  Find("out before", "Pd.AllocId", &S::AllocId, [](S*, auto* a) { a->first_id = 7; });
  Find("not above the", "Pd.Tso", &S::Tso, [](S*, auto* a) { a->timestamp = 7; });
  Find("server says", "Pd.GetRegion", &S::GetRegion, [](S*, auto* a) { ++a->region.id; });
  constexpr auto kBeat = &S::RegionHeartbeat;
  Find("5 quiet rounds", "Pd.RegionHeartbeat", kBeat, [](S*, auto* a) { a->commands.clear(); });
  Find("does not fit", "Pd.RegionHeartbeat", kBeat, [](S*, auto* a) { a->commands.resize(99); });
  Find("no region covers", "Pd.UpsertRegion", &S::UpsertRegion, [](S* s, auto* a) {
    (void)s->UpsertRegion({{}, {1068}}, a);
  });
  static pdpb::BootstrapResponse done;
  Find("a cluster already", "Pd.AllocId", &S::AllocId,
       [](S* s, auto*) { (void)s->Bootstrap({}, &done); });
}

}  // namespace
}  // namespace kandb::meta
