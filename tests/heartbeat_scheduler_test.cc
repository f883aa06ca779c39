// The policies of a heartbeat, on a real metadata store.

#include "meta/heartbeat_scheduler.h"

#include <gtest/gtest.h>

#include "support/metadata.h"

namespace kandb::meta {
namespace {

using pdpb::Region;
using pdpb::RegionHeartbeatEntry;
using pdpb::Store;
using Commands = std::vector<std::string>;

// "add 9 on 10 at s10": the command, the region, the store and its address unless empty.
std::string Text(const pdpb::ScheduleCommand& command) {
  const char* const names[] = {"none", "promote", "add", "remove", "destroy", "transfer"};
  return names[static_cast<int>(command.kind)] + (" " + std::to_string(command.region_id)) +
         " on " + std::to_string(command.store_id) +
         (command.address.empty() ? "" : " at " + command.address);
}

class HeartbeatSchedulerTest : public ::testing::Test {
 protected:
  void SetTarget(std::uint32_t target_replicas) {
    scheduler.emplace(metadata.store.get(), target_replicas);
  }

  // Records stores with the addresses "s<id>".
  void RegisterStores(std::initializer_list<std::uint64_t> ids) {
    for (const std::uint64_t id : ids) {
      metadata.Put(
          {{"pd/store/" + std::to_string(id), Encode(Store{id, "s" + std::to_string(id), 0})}});
    }
  }

  // As it arrives: the lists of the request are views into its encoding.
  std::string Send(const pdpb::RegionHeartbeatRequest& sent,
                   std::vector<pdpb::ScheduleCommand>* commands) {
    const std::string payload = Encode(sent);
    pdpb::RegionHeartbeatRequestView request;
    EXPECT_TRUE(Decode(payload, &request));
    return scheduler->Schedule(request, commands).ToString();
  }

  Commands Heartbeat(std::uint64_t store_id, std::vector<RegionHeartbeatEntry> regions,
                     std::vector<std::uint64_t> region_ids = {}) {
    std::vector<pdpb::ScheduleCommand> commands;
    EXPECT_EQ(Send({store_id, std::move(regions), std::move(region_ids)}, &commands), "OK");
    Commands texts;
    for (const pdpb::ScheduleCommand& command : commands) texts.push_back(Text(command));
    return texts;
  }

  testing::Metadata metadata;
  std::optional<HeartbeatScheduler> scheduler{std::in_place, metadata.store.get(), 0};
};

TEST_F(HeartbeatSchedulerTest, PromotesLearnersAndKeepsTheReplicaCount) {
  RegisterStores({1, 2, 10, 3});
  // A store under a foreign key too does not displace others.
  metadata.Put({{"pd/store/0", "garbage"}, {"pd/store/1x", Encode(Store{1, "s1", 0})}});
  const struct {
    std::uint32_t target;
    RegionHeartbeatEntry entry;  // region, members, caught up, candidates
    Commands commands;
  } cases[] = {
      {0, {9, {1}, {5}, {}}, {"promote 9 on 5"}},                           // no target
      {3, {9, {1, 2}, {5}, {}}, {"promote 9 on 5", "add 9 on 10 at s10"}},  // first free by key
      {3, {9, {10, 1}, {}, {}}, {"add 9 on 2 at s2"}},                      // after all members
      {5, {9, {10, 1, 2}, {}, {}}, {"add 9 on 3 at s3"}},                   // one at a time
      {9, {9, {1, 2, 10, 3}, {}, {}}, {}},                                  // no store left
      {2, {9, {1, 2}, {}, {}}, {}},                                         // at the target
      {2, {9, {1, 2, 3}, {}, {7, 3, 1}}, {"remove 9 on 3"}},  // a candidate is removed first,
      {1, {9, {1, 6}, {}, {}}, {"remove 9 on 6"}},            // else the first member,
      {1, {9, {1, 1}, {}, {1}}, {}},                          // but never the reporter's own,
      {1, {9, {1, 0, 2}, {}, {}}, {}},                        // nor store 0
  };
  for (const auto& c : cases) {
    SetTarget(c.target);
    EXPECT_EQ(Heartbeat(1, {c.entry}), c.commands);
  }
  // A store without an address cannot take a replica.
  metadata.Put({{"pd/store/10", Encode(Store{10, "", 0})}});
  SetTarget(3);
  EXPECT_EQ(Heartbeat(1, {{9, {1, 2}, {}, {}}}), Commands{"add 9 on 3 at s3"});
}

TEST_F(HeartbeatSchedulerTest, DestroysReplicasOnlyOnTheEvidenceOfARecord) {
  metadata.Put({{"pd/region/8", Encode(Region{8, "", "", {}, {{80, 1, {}}, {81, 2, {}}}})},
                {"pd/region/7", "garbage"}});
  EXPECT_EQ(Heartbeat(1, {}, {8, 7, 404}), Commands{});
  EXPECT_EQ(Heartbeat(3, {}, {8, 7, 404, 8}), (Commands{"destroy 8 on 3", "destroy 8 on 3"}));
}

TEST_F(HeartbeatSchedulerTest, MovesLeadersToClearlyEmptierCandidates) {
  RegisterStores({1});
  const auto report = [&](std::uint64_t store_id, std::uint64_t first_region, std::uint64_t count) {
    std::vector<RegionHeartbeatEntry> entries;
    for (std::uint64_t i = 0; i < count; ++i) entries.push_back({first_region + i, {}, {}, {}});
    EXPECT_EQ(Heartbeat(store_id, entries), Commands{});
  };
  report(1, 100, 5);
  EXPECT_EQ(Heartbeat(1, {{100, {1, 2}, {}, {2}}}), Commands{});  // a single store
  RegisterStores({2, 3, 4});
  report(2, 132, 2);  // ids with low bits in common
  report(3, 164, 4);
  report(4, 196, 2);
  // Regions led: 5 by store 1, 2 by store 2, 4 by store 3, 2 by store 4, none by store 99.
  const struct {
    std::vector<std::uint64_t> members, candidates;
    Commands commands;
  } cases[] = {
      {{1, 3, 2, 4}, {3, 2, 4}, {"transfer 100 on 2"}},  // the fewest; of equals the earlier one
      {{1, 3}, {3}, {}},                                 // 4 is not below 5 - 1
      {{1, 2}, {}, {}},                                  // not a candidate
      {{1, 3, 99}, {3, 99}, {"transfer 100 on 99"}},
      {{1, 4}, {4}, {"transfer 100 on 4"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Heartbeat(1, {{100, c.members, {}, c.candidates}}), c.commands);
  }
  // Store 2 takes four regions over: store 1 leads 1. When they return, it leads 5 again.
  report(2, 101, 4);
  EXPECT_EQ(Heartbeat(1, {{100, {1, 99}, {}, {99}}}), Commands{});
  report(1, 101, 4);
  EXPECT_EQ(Heartbeat(1, {{100, {1, 2}, {}, {2}}}), Commands{"transfer 100 on 2"});
}

TEST_F(HeartbeatSchedulerTest, RefusesCommandsThatDoNotFitAFrameButCountsTheReport) {
  metadata.Put({{"pd/store/1", Encode(Store{1, std::string(1 << 20, 'a'), 0})}});
  RegisterStores({2});
  SetTarget(3);
  const auto beat = [&](std::size_t entry_count) {
    std::vector<RegionHeartbeatEntry> entries;
    for (std::size_t i = 0; i < entry_count; ++i) entries.push_back({i, {2}, {}, {}});
    std::vector<pdpb::ScheduleCommand> commands;
    return Send({2, std::move(entries), {}}, &commands);
  };
  EXPECT_EQ(beat(63), "OK");
  SetTarget(3);
  EXPECT_EQ(beat(64), "Corruption: kanrpc: payload too large");
  EXPECT_EQ(Heartbeat(2, {{0, {2, 99, 98}, {}, {99}}}), Commands{"transfer 0 on 99"});
}

}  // namespace
}  // namespace kandb::meta
