// The service's handlers on a real store, without sockets.

#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "common/endian.h"
#include "meta/pd_service.h"
#include "support/temp_dir.h"

namespace kandb::meta {
namespace {

using pdpb::Region;
using pdpb::ScheduleCommand;
using pdpb::ScheduleKind;
using pdpb::Store;

std::uint64_t test_clock_ns = 0;

class PdServiceTest : public ::testing::Test {
 protected:
  PdServiceTest() {
    EXPECT_TRUE(store::MetaStore::Open(dir.path(), "", 0, &store).ok());
    test_clock_ns = 5'000'999'999;
    Restart(0);
  }

  void Restart(std::uint32_t target_replicas) {
    service =
        std::make_unique<PdService>(store.get(), target_replicas, [] { return test_clock_ns; });
  }

  std::pair<std::uint64_t, std::uint64_t> Tso(std::uint32_t count) {
    pdpb::TsoResponse response;
    EXPECT_TRUE(service->Tso({count}, &response).ok());
    EXPECT_EQ(response.count, std::max(count, 1u));
    return {response.timestamp >> 18, response.timestamp & 0x3ffff};
  }

  std::uint64_t AllocId(std::uint32_t count) {
    pdpb::AllocIdResponse response;
    EXPECT_TRUE(service->AllocId({count}, &response).ok());
    EXPECT_EQ(response.count, std::max(count, 1u));
    return response.first_id;
  }

  std::uint64_t IdMark() {
    std::string value;
    bool found = false;
    EXPECT_TRUE(store->Get("pd/id_alloc", &value, &found).ok());
    return found ? LoadU64(value.data()) : 0;
  }

  bool Bootstrap(const Store& first_store, const Region& region, std::vector<Region> extra = {}) {
    pdpb::BootstrapResponse response;
    EXPECT_TRUE(service->Bootstrap({first_store, region, std::move(extra)}, &response).ok());
    return response.already_bootstrapped;
  }

  // The id of the region that covers the key, or the failure.
  std::string Route(const std::string& key) {
    const Status status = service->GetRegion({key}, &routed);
    return status.ok() ? std::to_string(routed.region.id) : status.ToString();
  }

  // Registers stores with the addresses "s<id>".
  void RegisterStores(std::initializer_list<std::uint64_t> ids) {
    for (const std::uint64_t id : ids) Bootstrap({id, "s" + std::to_string(id), 0}, {});
  }

  std::vector<ScheduleCommand> Heartbeat(std::uint64_t store_id,
                                         std::vector<pdpb::RegionHeartbeatEntry> regions,
                                         std::vector<std::uint64_t> region_ids = {}) {
    pdpb::RegionHeartbeatResponse response;
    EXPECT_TRUE(
        service->RegionHeartbeat({store_id, std::move(regions), std::move(region_ids)}, &response)
            .ok());
    return response.commands;
  }

  testing::TempDir dir;
  std::unique_ptr<store::MetaStore> store;
  std::unique_ptr<PdService> service;
  pdpb::GetRegionResponse routed;
};

using Stamp = std::pair<std::uint64_t, std::uint64_t>;

TEST_F(PdServiceTest, TimestampsGrowWhateverTheClockDoes) {
  EXPECT_EQ(Tso(0), Stamp(5000, 0));
  EXPECT_EQ(Tso(1), Stamp(5000, 1));
  EXPECT_EQ(Tso(262141), Stamp(5000, 2));  // up to 262142, the last one that is handed out
  EXPECT_EQ(Tso(1), Stamp(5001, 0));
  test_clock_ns = 4'000'000'000;
  EXPECT_EQ(Tso(10), Stamp(5001, 1));
  test_clock_ns = 6'000'000'000;
  EXPECT_EQ(Tso(262143), Stamp(6000, 0));
  EXPECT_EQ(Tso(1), Stamp(6001, 0));
  EXPECT_EQ(Tso(1 << 20), Stamp(6002, 0));  // runs into the physical bits, accepted as it is
}

TEST_F(PdServiceTest, IdentifiersStayBelowThePersistedMark) {
  EXPECT_EQ(AllocId(0), 1024u);
  EXPECT_EQ(IdMark(), 2025u);
  for (std::uint64_t id = 1025; id < 2025; ++id) EXPECT_EQ(AllocId(1), id);
  EXPECT_EQ(IdMark(), 2025u);
  EXPECT_EQ(AllocId(1), 2025u);
  EXPECT_EQ(IdMark(), 3026u);
  Restart(0);
  EXPECT_EQ(AllocId(5000), 3026u);
  EXPECT_EQ(IdMark(), 9026u);
  ASSERT_TRUE(store->Put({{"pd/id_alloc", "four"}}).ok());
  Restart(0);
  EXPECT_EQ(AllocId(1), 0u);
  EXPECT_EQ(IdMark(), 1001u);
}

TEST_F(PdServiceTest, ConcurrentRunsDoNotOverlap) {
  std::vector<std::set<std::uint64_t>> seen(4);
  std::vector<std::thread> threads;
  for (std::set<std::uint64_t>& mine : seen) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        pdpb::AllocIdResponse id;
        pdpb::TsoResponse timestamp;
        EXPECT_TRUE(service->AllocId({1}, &id).ok());
        EXPECT_TRUE(service->Tso({1}, &timestamp).ok());
        mine.insert(id.first_id);
        mine.insert(timestamp.timestamp);
      }
    });
  }
  std::set<std::uint64_t> all;
  for (std::size_t i = 0; i < threads.size(); ++i) {
    threads[i].join();
    all.merge(seen[i]);
  }
  EXPECT_EQ(all.size(), 4000u);
}

TEST_F(PdServiceTest, BootstrapsOnceAndThenRegistersStores) {
  EXPECT_EQ(Route("x"), "NotFound: cluster not bootstrapped");
  EXPECT_FALSE(
      Bootstrap({1, "a:1", 2},
                {.id = 10, .start_key = "m", .end_key = "", .epoch = {}, .peers = {{100, 1, {}}}},
                {{.id = 9, .start_key = "", .end_key = "m", .epoch = {}, .peers = {}}}));
  EXPECT_EQ(Route("a"), "9");
  EXPECT_TRUE(Bootstrap({3, "c:1", 0},
                        {.id = 11, .start_key = "", .end_key = "", .epoch = {}, .peers = {}}));
  EXPECT_EQ(Route("a"), "9");
  EXPECT_EQ(Route("z"), "10");
  EXPECT_EQ(routed.leader.id, 100u);
  EXPECT_EQ(routed.leader_store, (Store{1, "a:1", 2}));
  std::vector<store::KeyValue> pairs;
  ASSERT_TRUE(store->Scan("", "", 100, &pairs).ok());
  std::vector<std::string> keys;
  for (const auto& pair : pairs) keys.push_back(pair.first);
  EXPECT_EQ(keys, (std::vector<std::string>{"pd/bootstrapped", "pd/region/10", "pd/region/9",
                                            "pd/store/1", "pd/store/3"}));
  EXPECT_EQ(pairs[0].second, "1");
}

TEST_F(PdServiceTest, RoutesByRangesInTheOrderOfTheKeys) {
  const auto region = [](std::uint64_t id, std::string start, std::string end) {
    return Region{id, std::move(start), std::move(end), {}, {}};
  };
  ASSERT_FALSE(
      Bootstrap({1, "", 0}, region(9, "b", "d"),
                {region(10, "c", "f"), region(2, std::string("\0\0", 2), std::string(1, 0)),
                 region(3, "\xff", ""), region(4, "f", "f\x80")}));
  const struct {
    std::string key;
    const char* answer;
  } cases[] = {
      {"b", "9"},
      {"bzz", "9"},
      {"c", "10"},  // of two that cover it, region 10 is scanned first
      {"c\xff", "10"},
      {"f", "4"},
      {"f\x7f", "4"},
      {"f\x80", "NotFound: no region covers key"},
      {"a", "NotFound: no region covers key"},
      {"", "NotFound: no region covers key"},
      {"\xff\xff", "3"},
  };
  for (const auto& c : cases) EXPECT_EQ(Route(c.key), c.answer) << c.key;

  pdpb::UpsertRegionResponse response;
  ASSERT_TRUE(
      service->UpsertRegion({{region(9, "", "c"), region(77, "c", "")}, {10, 2, 404}}, &response)
          .ok());
  EXPECT_EQ(Route("c\xff"), "77");
  EXPECT_EQ(Route(""), "9");
  EXPECT_EQ(response.message, "");
  EXPECT_TRUE(service->UpsertRegion({}, &response).ok());
}

TEST_F(PdServiceTest, DamagedRecordsAreSkippedOrNamed) {
  const Region good = {5, "", "m", {}, {{50, 1, {}}, {51, 2, {}}, {52, 3, {}}}};
  std::string bad_peer = Encode(Region{4, "", "m", {}, {{1, 1, {}}}});
  bad_peer[bad_peer.size() - 12] = 7;  // the length of the role: the range still reads well
  ASSERT_TRUE(store
                  ->Put({{"pd/region/1", "garbage"},
                         {"pd/region/4", bad_peer},
                         {"pd/region/5", Encode(good)},
                         {"pd/store/1", Encode(Store{1, "a", 0})},
                         {"pd/store/2", "garbage"}})
                  .ok());
  EXPECT_EQ(Route("a"), "5");
  // Store 2 does not decode, store 3 has no record.
  EXPECT_EQ(routed.stores, (std::vector<Store>{{1, "a", 0}}));
  EXPECT_EQ(Route("z"), "Corruption: bad region record");
  ASSERT_TRUE(store->Write({{"pd/store/1", "garbage"}}, {"pd/region/1"}).ok());
  EXPECT_EQ(Route("a"), "Corruption: bad store record");
  EXPECT_EQ(Route("z"), "NotFound: no region covers key");
  ASSERT_TRUE(store->Delete({"pd/store/1"}).ok());
  EXPECT_EQ(Route("a"), "5");
  EXPECT_EQ(routed.leader.store_id, 1u);
  EXPECT_EQ(routed.leader_store, Store());
}

TEST_F(PdServiceTest, HeartbeatsPromoteAndKeepTheMemberCount) {
  Bootstrap({0, "", 0}, {});
  RegisterStores({1, 2, 10, 3});
  ASSERT_TRUE(store->Put({{"pd/store/0", "garbage"}}).ok());
  using Commands = std::vector<ScheduleCommand>;
  const ScheduleCommand promote = {ScheduleKind::kPromoteLearner, 9, 5, ""};
  const struct {
    const char* name;
    std::uint32_t target;
    pdpb::RegionHeartbeatEntry entry;
    Commands commands;
  } cases[] = {
      {"off", 0, {9, {1}, {5}, {}}, {promote}},
      {"first free store by key",
       3,
       {9, {1, 2}, {5}, {}},
       {promote, {ScheduleKind::kAddPeer, 9, 10, "s10"}}},
      {"one at a time", 5, {9, {10, 1, 2}, {}, {}}, {{ScheduleKind::kAddPeer, 9, 3, "s3"}}},
      {"no store left", 9, {9, {1, 2, 10, 3}, {}, {}}, {}},
      {"at the target", 2, {9, {1, 2}, {}, {}}, {}},
      {"surplus: a candidate first",
       2,
       {9, {1, 2, 3}, {}, {7, 3, 1}},
       {{ScheduleKind::kRemovePeer, 9, 3, ""}}},
      {"surplus: else the first", 1, {9, {1, 6}, {}, {}}, {{ScheduleKind::kRemovePeer, 9, 6, ""}}},
      {"surplus: only the reporter", 1, {9, {1, 1}, {}, {1}}, {}},
      {"surplus: store 0", 1, {9, {1, 0, 2}, {}, {}}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Restart(c.target);
    EXPECT_EQ(Heartbeat(1, {c.entry}), c.commands);
  }
  // A store without an address cannot take a replica.
  Bootstrap({10, "", 0}, {});
  Restart(3);
  EXPECT_EQ(Heartbeat(1, {{9, {1, 2}, {}, {}}}), (Commands{{ScheduleKind::kAddPeer, 9, 3, "s3"}}));
}

TEST_F(PdServiceTest, StaleReplicasNeedTheEvidenceOfARecord) {
  ASSERT_FALSE(Bootstrap({1, "a", 0}, {8, "", "", {}, {{80, 1, {}}, {81, 2, {}}}}));
  ASSERT_TRUE(store->Put({{"pd/region/7", "garbage"}}).ok());
  EXPECT_EQ(Heartbeat(1, {}, {8, 7, 404}), std::vector<ScheduleCommand>());
  EXPECT_EQ(Heartbeat(3, {}, {8, 7, 404, 8}),
            (std::vector<ScheduleCommand>(2, {ScheduleKind::kDestroyStaleReplica, 8, 3, ""})));
}

TEST_F(PdServiceTest, LeadersMoveToClearlyEmptierCandidates) {
  Bootstrap({1, "s1", 0}, {});
  const auto report = [&](std::uint64_t store_id, std::uint64_t first, std::uint64_t count) {
    std::vector<pdpb::RegionHeartbeatEntry> entries;
    for (std::uint64_t i = 0; i < count; ++i) entries.push_back({first + i, {}, {}, {}});
    EXPECT_EQ(Heartbeat(store_id, entries).size(), 0u);
  };
  const auto transfers = [&](const std::vector<std::uint64_t>& members,
                             const std::vector<std::uint64_t>& candidates) {
    std::vector<std::uint64_t> targets;
    for (const auto& command : Heartbeat(1, {{100, members, {}, candidates}})) {
      EXPECT_EQ(command.kind, ScheduleKind::kTransferLeader);
      EXPECT_EQ(command.region_id, 100u);
      targets.push_back(command.store_id);
    }
    return targets;
  };
  using Targets = std::vector<std::uint64_t>;
  report(1, 100, 5);
  EXPECT_EQ(transfers({1, 2}, {2}), Targets());  // a single store: nothing to balance
  RegisterStores({2, 3, 4});
  report(2, 200, 2);
  report(3, 300, 4);
  report(4, 400, 2);
  EXPECT_EQ(transfers({1, 3, 2, 4}, {3, 2, 4}), (Targets{2}));  // the least, the earlier of equals
  EXPECT_EQ(transfers({1, 3}, {3}), Targets());                 // 4 is not below 5 - 1
  EXPECT_EQ(transfers({1, 2}, {}), Targets());                  // no candidate
  EXPECT_EQ(transfers({1, 3, 99}, {3, 99}), (Targets{99}));     // one that never reported has none
  report(2, 101, 4);  // the regions change hands, and the counts with them: 1 has 1, 2 has 6
  EXPECT_EQ(transfers({1, 99}, {99}), Targets());
  report(1, 101, 4);
  EXPECT_EQ(transfers({1, 2}, {2}), (Targets{2}));
}

}  // namespace
}  // namespace kandb::meta
