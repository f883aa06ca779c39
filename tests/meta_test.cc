// Timestamps, identifiers and bootstrap, and the handlers' failures, on a real metadata store.
// Routing and heartbeats have tests of their own.

#include <gtest/gtest.h>

#include "common/endian.h"
#include "meta/pd_service.h"
#include "pdpb/timestamp.h"
#include "support/answer.h"
#include "support/engine.h"
#include "support/metadata.h"

namespace kandb::meta {
namespace {

using pdpb::Region;
using pdpb::Store;

std::uint64_t test_clock_ns = 0;

TEST(TimestampOracle, GrowsWhateverTheClockDoes) {
  TimestampOracle oracle([] { return test_clock_ns; });
  using Parts = std::pair<std::uint64_t, std::uint64_t>;
  const auto allocate = [&](std::uint32_t count) {
    const std::uint64_t first = oracle.Allocate(count);
    return Parts(first >> 18, first & 0x3ffff);  // physical, logical
  };
  test_clock_ns = 5'000'999'999;
  EXPECT_EQ(allocate(1), Parts(5000, 0));
  EXPECT_EQ(allocate(1), Parts(5000, 1));
  EXPECT_EQ(allocate(262141), Parts(5000, 2));  // up to 262142, the last one that is handed out
  EXPECT_EQ(allocate(1), Parts(5001, 0));
  test_clock_ns = 4'000'000'000;
  EXPECT_EQ(allocate(10), Parts(5001, 1));
  test_clock_ns = 6'000'000'000;
  EXPECT_EQ(allocate(262143), Parts(6000, 0));
  EXPECT_EQ(allocate(1), Parts(6001, 0));
  EXPECT_EQ(allocate(1 << 20), Parts(6002, 0));  // overflows into the physical bits, as accepted
}

TEST(IdAllocator, StaysBelowThePersistedMark) {
  testing::Metadata metadata;
  std::optional<IdAllocator> ids;
  const auto restart = [&] { ids.emplace(metadata.store.get()); };
  const auto allocate = [&](std::uint32_t count) {
    std::uint64_t first_id = 0;
    EXPECT_TRUE(ids->Allocate(count, &first_id).ok());
    return first_id;
  };
  const auto mark = [&] {
    std::string value;
    bool found = false;
    EXPECT_TRUE(metadata.store->Get("pd/id_alloc", &value, &found).ok() && found);
    return LoadU64(value.data());
  };
  restart();
  EXPECT_EQ(allocate(1), 1024u);
  EXPECT_EQ(mark(), 2025u);
  for (std::uint64_t id = 1025; id < 2025; ++id) EXPECT_EQ(allocate(1), id);
  EXPECT_EQ(mark(), 2025u);
  EXPECT_EQ(allocate(1), 2025u);
  EXPECT_EQ(mark(), 3026u);
  restart();
  EXPECT_EQ(allocate(5000), 3026u);
  EXPECT_EQ(mark(), 9026u);
  metadata.Put({{"pd/id_alloc", "four"}});
  restart();
  EXPECT_EQ(allocate(1), 0u);
  EXPECT_EQ(mark(), 1001u);
}

TEST(ClusterBootstrap, RecordsTheClusterOnceAndThenStores) {
  testing::Metadata metadata;
  ClusterBootstrap bootstrap(metadata.store.get());
  const Region low = {9, "", "m", {}, {}};
  const Region high = {10, "m", "", {}, {{100, 1, {}}}};
  bool existed = true;
  EXPECT_TRUE(bootstrap.Bootstrap({{1, "a:1", 2}, high, {low}}, &existed).ok());
  EXPECT_FALSE(existed);
  EXPECT_TRUE(bootstrap.Bootstrap({{3, "c:1", 0}, {11, "", "", {}, {}}, {}}, &existed).ok());
  EXPECT_TRUE(existed);
  std::vector<store::KeyValue> pairs;
  ASSERT_TRUE(metadata.store->Scan("", "", 100, &pairs).ok());
  EXPECT_EQ(pairs, (std::vector<store::KeyValue>{{"pd/bootstrapped", "1"},
                                                 {"pd/region/10", Encode(high)},
                                                 {"pd/region/9", Encode(low)},
                                                 {"pd/store/1", Encode(Store{1, "a:1", 2})},
                                                 {"pd/store/3", Encode(Store{3, "c:1", 0})}}));
}

class PdServiceTest : public ::testing::Test {
 protected:
  std::uint64_t AllocId(std::uint32_t count) {
    return testing::Answer(*service, &PdService::AllocId, {count}).first_id;
  }

  // Whether the cluster existed.
  bool Bootstrap(const pdpb::BootstrapRequest& request) {
    return testing::Answer(*service, &PdService::Bootstrap, request).already_bootstrapped;
  }

  // The id of the region that covers the key, or the failure.
  std::string Route(const std::string& key) {
    const Status status = service->GetRegion({key}, &route);
    return status.ok() ? std::to_string(route.region.id) : status.ToString();
  }

  testing::Metadata metadata;
  std::optional<PdService> service{std::in_place, metadata.store.get(), 0};
  pdpb::GetRegionResponse route;
};

TEST_F(PdServiceTest, ReadsACountOfZeroAsOne) {
  const auto timestamps = testing::Answer(*service, &PdService::Tso, {0});
  EXPECT_EQ(timestamps.count, 1u);
  EXPECT_GT(timestamps.timestamp, 0u);
  EXPECT_EQ(testing::Answer(*service, &PdService::AllocId, {0}).count, 1u);
  EXPECT_EQ(AllocId(2), 1025u);
}

TEST_F(PdServiceTest, AnswersNothingThatCouldNotBeWritten) {
  metadata.fault.Arm({.kind = testing::kWrite, .count = 3});
  const std::string failure = "Corruption: wal write: Input/output error";
  pdpb::AllocIdResponse ids;
  EXPECT_EQ(service->AllocId({7}, &ids).ToString(), failure);
  EXPECT_EQ(ids.count, 0u);
  pdpb::BootstrapResponse response;
  EXPECT_EQ(service->Bootstrap({{1, "a", 0}, {2, "", "", {}, {}}, {}}, &response).ToString(),
            failure);
  pdpb::UpsertRegionResponse upserted;
  EXPECT_EQ(service->UpsertRegion({{{2, "", "", {}, {}}}, {}}, &upserted).ToString(), failure);
  EXPECT_EQ(AllocId(7), 1024u);
  EXPECT_EQ(Route("k"), "NotFound: cluster not bootstrapped");
  // A bootstrap is one write; once the cluster exists, its failure is not told.
  metadata.fault.Arm({.kind = testing::kWrite, .first = 2});
  EXPECT_FALSE(Bootstrap({{1, "a", 0}, {2, "", "", {}, {{3, 1, {}}}}, {{4, "x", "y", {}, {}}}}));
  EXPECT_TRUE(Bootstrap({{1, "b", 0}, {}, {}}));
  EXPECT_EQ(Route("k"), "2");
  EXPECT_EQ(route.leader_store.address, "a");
}

TEST_F(PdServiceTest, TakesWhatCannotBeReadForAbsentOrNamesIt) {
  // The records in a table, so that reading them reads a file.
  service.reset();
  metadata.store.reset();
  testing::WriteDirectory(metadata.dir.path(), 1,
                          {{lsm::kPut, "pd/bootstrapped", "1"},
                           {lsm::kPut, "pd/id_alloc", std::string("\0\x10\0\0\0\0\0\0", 8)},
                           {lsm::kPut, "pd/region/8", Encode(Region{8, "", "", {}, {}})}});
  metadata.Open();
  service.emplace(metadata.store.get(), 0);

  EXPECT_EQ(AllocId(1), 4096u);
  metadata.fault.Arm({.kind = testing::kPread, .count = testing::Fault::kForever});
  const std::string failure = "Corruption: sst pread: Input/output error";
  EXPECT_EQ(Route("k"), failure);
  pdpb::RegionHeartbeatResponse answer;
  EXPECT_EQ(service->RegionHeartbeat({1, {}, {}}, &answer).ToString(), failure);
  EXPECT_FALSE(Bootstrap({{1, "a", 0}, {2, "", "", {}, {}}, {}}));  // taken for a new cluster
  service.emplace(metadata.store.get(), 0);
  EXPECT_EQ(AllocId(1), 5097u);  // the mark that AllocId wrote is in memory, above the table
  metadata.fault.Disarm();
  EXPECT_EQ(Route("k"), "2");
}

}  // namespace
}  // namespace kandb::meta
