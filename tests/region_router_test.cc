// Routing on a real metadata store.

#include "meta/region_router.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "support/metadata.h"

namespace kandb::meta {
namespace {

using pdpb::Region;
using pdpb::Store;

class RegionRouterTest : public ::testing::Test {
 protected:
  Status Upsert(std::vector<Region> regions, std::vector<std::uint64_t> removed_ids = {}) {
    return router.Upsert({std::move(regions), std::move(removed_ids)});
  }

  // The id of the region that covers the key, or the failure. Fills in `route`.
  std::string Find(const std::string& key) {
    const Status status = router.Find(key, &route);
    return status.ok() ? std::to_string(route.region.id) : status.ToString();
  }

  testing::Metadata metadata;
  RegionRouter router{metadata.store.get()};
  pdpb::GetRegionResponse route;
};

constexpr char kNotCovered[] = "NotFound: no region covers key";

TEST_F(RegionRouterTest, RoutesByRangesInTheOrderOfTheKeys) {
  EXPECT_EQ(Find("x"), "NotFound: cluster not bootstrapped");
  ASSERT_TRUE(Upsert({{9, "b", "d", {}, {}},
                      {10, "c", "f", {}, {}},
                      {2, std::string(2, 0), std::string(1, 0), {}, {}},
                      {3, "\xff", "", {}, {}},
                      {4, "f", "f\x80", {}, {}}})
                  .ok());
  // Of regions 9 and 10, the latter is first in the order of their keys.
  const std::pair<const char*, const char*> answers[] = {
      {"b", "9"},         {"bzz", "9"},     {"c", "10"},       {"c\xff", "10"},
      {"f", "4"},         {"f\x7f", "4"},   {"\xff\xff", "3"}, {"f\x80", kNotCovered},
      {"a", kNotCovered}, {"", kNotCovered}};
  for (const auto& [key, answer] : answers) EXPECT_EQ(Find(key), answer) << key;

  ASSERT_TRUE(Upsert({{9, "", "c", {}, {}}, {77, "c", "", {}, {}}}, {10, 2, 404}).ok());
  EXPECT_EQ(Find("c\xff"), "77");
  EXPECT_EQ(Find(""), "9");
  EXPECT_TRUE(Upsert({}).ok());
}

// Keys that differ at every position of a word, and by their lengths alone.
TEST_F(RegionRouterTest, ComparesKeysOfAnyLengthAsBytes) {
  std::set<std::string> starts = {""};
  for (std::size_t length = 1; length < 20; ++length) {
    starts.insert(std::string(length, 'k'));
    // The bytes after the first difference have the opposite order.
    starts.insert(std::string(length - 1, 'k') + "\x01zzzzzzzz");
    starts.insert(std::string(length - 1, 'k') + "\xff" + "aaaaaaaa");
  }
  std::vector<Region> regions;
  for (const std::string& start : starts) {
    if (!regions.empty()) regions.back().end_key = start;
    regions.push_back({regions.size(), start, "", {}, {}});
  }
  ASSERT_TRUE(Upsert(regions).ok());
  for (const Region& region : regions) {
    const std::string successor = region.start_key + '\0';
    EXPECT_EQ(Find(region.start_key), std::to_string(region.id));
    EXPECT_EQ(Find(successor), std::to_string(region.id + (successor == region.end_key ? 1 : 0)));
  }
}

// Regions split and merge, each change one batch: some region covers the key at every moment,
// though a pass over all of them can miss it.
TEST_F(RegionRouterTest, AKeyThatIsAlwaysCoveredIsAlwaysFound) {
  constexpr std::uint64_t kRegions = 10000;
  std::vector<Region> others;
  for (std::uint64_t id = 10000; id < 10000 + kRegions; ++id) {
    const std::string key = "x" + std::to_string(id);
    others.push_back({id, key, key + "!", {}, {}});
  }
  ASSERT_TRUE(Upsert(others).ok());
  // The right half is alternately first and last in the order of the keys.
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
    EXPECT_TRUE(router.Find("bb", &route).ok()) << i;
    EXPECT_EQ(Find("d"), kNotCovered);
  }
  done = true;
  writer.join();
  EXPECT_GT(changes, 10);
}

TEST_F(RegionRouterTest, SkipsOrNamesDamagedRecords) {
  const Region good = {5, "", "m", {}, {{50, 1, {}}, {51, 2, {}}, {52, 3, {}}}};
  std::string bad_peer = Encode(Region{4, "", "m", {}, {{1, 1, {}}}});
  bad_peer[bad_peer.size() - 12] = 7;  // the length of the role: the range is still good
  metadata.Put({{"pd/region/1", "garbage"},
                {"pd/region/4", bad_peer},
                {"pd/region/5", Encode(good)},
                {"pd/store/1", Encode(Store{1, "a", 0})},
                {"pd/store/2", "garbage"}});
  EXPECT_EQ(Find("a"), "5");
  EXPECT_EQ(route.leader, good.peers[0]);
  EXPECT_EQ(route.leader_store, (Store{1, "a", 0}));
  // Store 2 does not decode, store 3 has no record.
  EXPECT_EQ(route.stores, (std::vector<Store>{{1, "a", 0}}));
  EXPECT_EQ(Find("z"), "Corruption: bad region record");
  metadata.Put({{"pd/store/1", "garbage"}});
  metadata.Delete("pd/region/1");
  EXPECT_EQ(Find("a"), "Corruption: bad store record");
  EXPECT_EQ(Find("z"), kNotCovered);
  // Torn after its range, which does not cover the key.
  metadata.Put({{"pd/region/6", Encode(good) + "torn"}});
  metadata.Delete("pd/store/1");
  EXPECT_EQ(Find("z"), "Corruption: bad region record");
  EXPECT_EQ(Find("a"), "5");
  EXPECT_EQ(route.leader, good.peers[0]);
  EXPECT_EQ(route.leader_store, Store());
}

// One store with a long address makes any response long.
TEST_F(RegionRouterTest, RefusesStoresThatDoNotFitAFrame) {
  metadata.Put({{"pd/store/1", Encode(Store{1, std::string(1 << 20, 'a'), 0})}});
  Region region;
  region.peers.assign(63, {1, 1, {}});
  ASSERT_TRUE(Upsert({region}).ok());
  EXPECT_EQ(Find("k"), "0");
  region.peers.resize(64, {1, 1, {}});
  ASSERT_TRUE(Upsert({region}).ok());
  EXPECT_EQ(Find("k"), "Corruption: kanrpc: payload too large");
}

}  // namespace
}  // namespace kandb::meta
