// The service's handlers on a real store, without sockets.

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "common/endian.h"
#include "lsm/lsm_db.h"
#include "meta/pd_service.h"
#include "support/fault.h"
#include "support/temp_dir.h"

namespace kandb::meta {
namespace {

using pdpb::Region;
using pdpb::Store;

std::uint64_t test_clock_ns = 0;

class PdServiceTest : public ::testing::Test {
 protected:
  PdServiceTest() {
    EXPECT_TRUE(store::MetaStore::Open(dir.path(), "", 0, &store).ok());
    test_clock_ns = 5'000'999'999;
    Restart(0);
  }

  // Writes a table with these pairs and restarts everything on it.
  void RestartOnTable(std::vector<lsm::Entry> entries) {
    service.reset();
    store.reset();
    std::unique_ptr<lsm::LsmDb> engine;
    const lsm::LsmDb::Options flush_at_once = {
        .write_buffer_size = 1, .max_table_files = 8, .sync = false};
    ASSERT_TRUE(lsm::LsmDb::Open(dir.path(), flush_at_once, &engine).ok());
    ASSERT_TRUE(engine->Write(entries).ok());
    engine->WaitForBackgroundIdle();
    engine.reset();
    ASSERT_TRUE(store::MetaStore::Open(dir.path(), "", 0, &store).ok());
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

  Status Upsert(std::vector<Region> regions, std::vector<std::uint64_t> removed_ids = {}) {
    pdpb::UpsertRegionResponse response;
    return service->UpsertRegion({std::move(regions), std::move(removed_ids)}, &response);
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

  // The commands that answer a heartbeat, as "<kind> <region> <store> <address>;" each.
  std::string Heartbeat(std::uint64_t store_id, std::vector<pdpb::RegionHeartbeatEntry> regions,
                        std::vector<std::uint64_t> region_ids = {}) {
    const pdpb::RegionHeartbeatRequest request = {store_id, std::move(regions),
                                                  std::move(region_ids)};
    pdpb::RegionHeartbeatResponse response;
    EXPECT_TRUE(service->RegionHeartbeat(request, &response).ok());
    std::string text;
    for (const pdpb::ScheduleCommand& command : response.commands) {
      text += std::to_string(static_cast<int>(command.kind)) + " " +
              std::to_string(command.region_id) + " " + std::to_string(command.store_id) + " " +
              command.address + ";";
    }
    return text;
  }

  testing::TempDir dir;
  testing::FaultInjector fault;
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

TEST_F(PdServiceTest, BootstrapsOnceAndThenRegistersStores) {
  EXPECT_EQ(Route("x"), "NotFound: cluster not bootstrapped");
  const Region low = {9, "", "m", {}, {}};
  const Region high = {10, "m", "", {}, {{100, 1, {}}}};
  EXPECT_FALSE(Bootstrap({1, "a:1", 2}, high, {low}));
  EXPECT_TRUE(Bootstrap({3, "c:1", 0}, {11, "", "", {}, {}}));
  EXPECT_EQ(Route("a"), "9");
  EXPECT_EQ(Route("z"), "10");
  EXPECT_EQ(routed.leader.id, 100u);
  EXPECT_EQ(routed.leader_store, (Store{1, "a:1", 2}));
  std::vector<store::KeyValue> pairs;
  ASSERT_TRUE(store->Scan("", "", 100, &pairs).ok());
  EXPECT_EQ(pairs, (std::vector<store::KeyValue>{{"pd/bootstrapped", "1"},
                                                 {"pd/region/10", Encode(high)},
                                                 {"pd/region/9", Encode(low)},
                                                 {"pd/store/1", Encode(Store{1, "a:1", 2})},
                                                 {"pd/store/3", Encode(Store{3, "c:1", 0})}}));
}

TEST_F(PdServiceTest, RoutesByRangesInTheOrderOfTheKeys) {
  const auto region = [](std::uint64_t id, std::string start, std::string end) {
    return Region{id, std::move(start), std::move(end), {}, {}};
  };
  ASSERT_FALSE(
      Bootstrap({1, "", 0}, region(9, "b", "d"),
                {region(10, "c", "f"), region(2, std::string("\0\0", 2), std::string(1, 0)),
                 region(3, "\xff", ""), region(4, "f", "f\x80")}));
  const std::string nobody = "NotFound: no region covers key";
  const std::pair<std::string, std::string> answers[] = {
      {"b", "9"},      {"bzz", "9"}, {"c", "10"},  // of two, region 10 is scanned first
      {"c\xff", "10"}, {"f", "4"},   {"f\x7f", "4"},   {"f\x80", nobody},
      {"a", nobody},   {"", nobody}, {"\xff\xff", "3"}};
  for (const auto& [key, answer] : answers) EXPECT_EQ(Route(key), answer) << key;

  ASSERT_TRUE(Upsert({region(9, "", "c"), region(77, "c", "")}, {10, 2, 404}).ok());
  EXPECT_EQ(Route("c\xff"), "77");
  EXPECT_EQ(Route(""), "9");
  EXPECT_TRUE(Upsert({}).ok());
}

// Keys that differ at every place of a word and by their lengths alone.
TEST_F(PdServiceTest, RoutesKeysOfAnyLengthAsBytes) {
  std::set<std::string> starts = {""};
  for (std::size_t length = 1; length < 20; ++length) {
    starts.insert(std::string(length, 'k'));
    // What comes behind the first difference speaks against it.
    starts.insert(std::string(length - 1, 'k') + "\x01zzzzzzzz");
    starts.insert(std::string(length - 1, 'k') + "\xff" + "aaaaaaaa");
  }
  std::vector<Region> regions;
  for (auto at = starts.begin(); at != starts.end(); ++at) {
    const auto next = std::next(at);
    regions.push_back({regions.size(), *at, next == starts.end() ? "" : *next, {}, {}});
  }
  ASSERT_TRUE(Upsert(regions).ok());
  for (const Region& region : regions) {
    const std::string id = std::to_string(region.id);
    EXPECT_EQ(Route(region.start_key), id);
    // The smallest key behind the start.
    const std::string successor = region.start_key + '\0';
    if (successor == region.end_key) continue;
    EXPECT_EQ(Route(successor), id);
  }
}

// Regions split and merge, each change one batch: some region covers the key at every moment,
// though a pass over all of them can miss it.
TEST_F(PdServiceTest, AKeyThatIsAlwaysCoveredIsAlwaysFound) {
  constexpr std::uint64_t kRegions = 10000;
  std::vector<Region> others;
  for (std::uint64_t id = 10000; id < 10000 + kRegions; ++id) {
    const std::string key = "x" + std::to_string(id);
    others.push_back({id, key, key + "!", {}, {}});
  }
  ASSERT_TRUE(Upsert(others).ok());
  // The right half is first or last in the order of the keys.
  const Region whole = {15000, "a", "c", {}, {}};
  const Region left = {15000, "a", "b", {}, {}};
  ASSERT_TRUE(Upsert({whole}).ok());
  std::atomic<bool> done = false;
  std::atomic<int> changes = 0;
  std::thread writer([&] {
    for (std::uint64_t right_id = 1; !done; right_id = right_id == 1 ? 99999 : 1) {
      EXPECT_TRUE(Upsert({left, {right_id, "b", "c", {}, {}}}).ok());
      EXPECT_TRUE(Upsert({whole}, {right_id}).ok());
      ++changes;
    }
  });
  for (int i = 0; i < 500; ++i) {
    pdpb::GetRegionResponse found;
    EXPECT_EQ(service->GetRegion({"bb"}, &found).ToString(), "OK") << i;
    EXPECT_EQ(service->GetRegion({"d"}, &found).ToString(), "NotFound: no region covers key");
  }
  done = true;
  writer.join();
  EXPECT_GT(changes, 10);
}

TEST_F(PdServiceTest, WhatCannotBeWrittenIsNotAnswered) {
  fault.Arm({.kind = testing::kWrite, .count = 3});
  pdpb::AllocIdResponse ids;
  const std::string failure = "Corruption: wal write: Input/output error";
  EXPECT_EQ(service->AllocId({7}, &ids).ToString(), failure);
  EXPECT_EQ(ids.count, 0u);
  pdpb::BootstrapResponse response;
  EXPECT_EQ(service->Bootstrap({{1, "a", 0}, {2, "", "", {}, {}}, {}}, &response).ToString(),
            failure);
  EXPECT_EQ(Upsert({{2, "", "", {}, {}}}).ToString(), failure);
  EXPECT_EQ(AllocId(7), 1024u);
  EXPECT_EQ(Route("k"), "NotFound: cluster not bootstrapped");
  // All of a bootstrap is one write; once the cluster exists, the outcome of it is not told.
  fault.Arm({.kind = testing::kWrite, .first = 2});
  EXPECT_FALSE(Bootstrap({1, "a", 0}, {2, "", "", {}, {{3, 1, {}}}}, {{4, "x", "y", {}, {}}}));
  EXPECT_TRUE(Bootstrap({1, "b", 0}, {}));
  EXPECT_EQ(Route("k"), "2");
  EXPECT_EQ(routed.leader_store.address, "a");
}

TEST_F(PdServiceTest, WhatCannotBeReadCountsAsAbsentOrIsNamed) {
  RestartOnTable({{lsm::kPut, "pd/bootstrapped", "1"},
                  {lsm::kPut, "pd/id_alloc", std::string("\0\x10\0\0\0\0\0\0", 8)},
                  {lsm::kPut, "pd/region/8", Encode(Region{8, "", "", {}, {}})}});
  EXPECT_EQ(AllocId(1), 4096u);
  fault.Arm({.kind = testing::kPread, .count = testing::Fault::kForever});
  const std::string failure = "Corruption: sst pread: Input/output error";
  EXPECT_EQ(Route("k"), failure);
  pdpb::RegionHeartbeatResponse answer;
  EXPECT_EQ(service->RegionHeartbeat({1, {}, {8}}, &answer).ToString(), failure);
  EXPECT_FALSE(Bootstrap({1, "a", 0}, {2, "", "", {}, {}}));  // taken for a new cluster
  Restart(0);
  EXPECT_EQ(AllocId(1), 5097u);  // the mark that AllocId wrote is in memory, above the table
  fault.Disarm();
  EXPECT_EQ(Route("k"), "2");
}

// One store with a long address makes any answer long.
TEST_F(PdServiceTest, AnAnswerThatFitsNoFrameIsGivenUp) {
  Bootstrap({1, std::string(1 << 20, 'a'), 0}, {});
  Restart(3);
  Region region;
  for (const std::size_t count : {63, 64}) {
    region.peers.assign(count, {1, 1, {}});
    ASSERT_TRUE(Upsert({region}).ok());
    const Status routes = service->GetRegion({"k"}, &routed);
    const std::vector<pdpb::RegionHeartbeatEntry> entries(count, {8, {2}, {}, {}});
    pdpb::RegionHeartbeatResponse answer;
    const Status answers = service->RegionHeartbeat({2, entries, {}}, &answer);
    const std::string expected = count == 63 ? "OK" : "Corruption: kanrpc: payload too large";
    EXPECT_EQ(routes.ToString(), expected);
    EXPECT_EQ(answers.ToString(), expected);
  }
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
  // Torn behind its range, which is elsewhere.
  ASSERT_TRUE(store->Write({{"pd/region/6", Encode(good) + "torn"}}, {"pd/store/1"}).ok());
  EXPECT_EQ(Route("z"), "Corruption: bad region record");
  EXPECT_EQ(Route("a"), "5");
  EXPECT_EQ(routed.leader.store_id, 1u);
  EXPECT_EQ(routed.leader_store, Store());
}

// Commands: 1 promote, 2 add, 3 remove, 4 destroy, 5 transfer.
TEST_F(PdServiceTest, HeartbeatsPromoteAndKeepTheMemberCount) {
  Bootstrap({0, "", 0}, {});
  RegisterStores({1, 2, 10, 3});
  ASSERT_TRUE(store->Put({{"pd/store/0", "garbage"}}).ok());
  const struct {
    std::uint32_t target;
    pdpb::RegionHeartbeatEntry entry;  // members, caught up, candidates
    const char* commands;
  } cases[] = {
      {0, {9, {1}, {5}, {}}, "1 9 5 ;"},                // off
      {3, {9, {1, 2}, {5}, {}}, "1 9 5 ;2 9 10 s10;"},  // the first free store by key
      {5, {9, {10, 1, 2}, {}, {}}, "2 9 3 s3;"},        // one at a time
      {9, {9, {1, 2, 10, 3}, {}, {}}, ""},              // no store left
      {2, {9, {1, 2}, {}, {}}, ""},                     // at the target
      {2, {9, {1, 2, 3}, {}, {7, 3, 1}}, "3 9 3 ;"},    // a candidate is removed first,
      {1, {9, {1, 6}, {}, {}}, "3 9 6 ;"},              // else the first member,
      {1, {9, {1, 1}, {}, {1}}, ""},                    // but never the reporter's own,
      {1, {9, {1, 0, 2}, {}, {}}, ""},                  // nor store 0
  };
  for (const auto& c : cases) {
    Restart(c.target);
    EXPECT_EQ(Heartbeat(1, {c.entry}), c.commands);
  }
  // A store without an address cannot take a replica.
  Bootstrap({10, "", 0}, {});
  Restart(3);
  EXPECT_EQ(Heartbeat(1, {{9, {1, 2}, {}, {}}}), "2 9 3 s3;");
}

TEST_F(PdServiceTest, StaleReplicasNeedTheEvidenceOfARecord) {
  ASSERT_FALSE(Bootstrap({1, "a", 0}, {8, "", "", {}, {{80, 1, {}}, {81, 2, {}}}}));
  ASSERT_TRUE(store->Put({{"pd/region/7", "garbage"}}).ok());
  EXPECT_EQ(Heartbeat(1, {}, {8, 7, 404}), "");
  EXPECT_EQ(Heartbeat(3, {}, {8, 7, 404, 8}), "4 8 3 ;4 8 3 ;");
}

TEST_F(PdServiceTest, LeadersMoveToClearlyEmptierCandidates) {
  Bootstrap({1, "s1", 0}, {});
  const auto report = [&](std::uint64_t store_id, std::uint64_t first, std::uint64_t count) {
    std::vector<pdpb::RegionHeartbeatEntry> entries;
    for (std::uint64_t i = 0; i < count; ++i) entries.push_back({first + i, {}, {}, {}});
    EXPECT_EQ(Heartbeat(store_id, entries), "");
  };
  report(1, 100, 5);
  EXPECT_EQ(Heartbeat(1, {{100, {1, 2}, {}, {2}}}), "");  // a single store: nothing to balance
  RegisterStores({2, 3, 4});
  report(2, 200, 2);
  report(3, 300, 4);
  report(4, 400, 2);
  // The least, and the earlier one of equals; 4 is not below 5 - 1; who never reported has none.
  EXPECT_EQ(Heartbeat(1, {{100, {1, 3, 2, 4}, {}, {3, 2, 4}}}), "5 100 2 ;");
  EXPECT_EQ(Heartbeat(1, {{100, {1, 3}, {}, {3}}}), "");
  EXPECT_EQ(Heartbeat(1, {{100, {1, 2}, {}, {}}}), "");
  EXPECT_EQ(Heartbeat(1, {{100, {1, 3, 99}, {}, {3, 99}}}), "5 100 99 ;");
  // The regions change hands, and the counts with them: store 1 has 1, store 2 has 6.
  report(2, 101, 4);
  EXPECT_EQ(Heartbeat(1, {{100, {1, 99}, {}, {99}}}), "");
  report(1, 101, 4);
  EXPECT_EQ(Heartbeat(1, {{100, {1, 2}, {}, {2}}}), "5 100 2 ;");
}

}  // namespace
}  // namespace kandb::meta
