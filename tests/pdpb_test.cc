// Messages against bytes written by hand, and hostile input.

#include <gtest/gtest.h>

#include "pdpb/messages.h"
#include "support/hex.h"

namespace kandb::pdpb {
namespace {

using testing::Hex;

// A region with two peers, as it travels and is stored.
constexpr char kRegionBytes[] =
    "0100 08000000 0004000000000000"  // id 1024
    "0200 01000000 62"                // start_key "b"
    "0300 02000000 6400"              // end_key "d\0"
    "0400 1c000000"                   // epoch
    "  0100 08000000 0500000000000000 0200 08000000 ffffffffffffffff"
    "0500 2a000000"  // peers
    "  0100 08000000 0100000000000000 0200 08000000 0700000000000000"
    "  0300 08000000 0000000000000000"
    "0500 2a000000"
    "  0100 08000000 0200000000000000 0200 08000000 0800000000000000"
    "  0300 08000000 0100000000000000";

Region MakeRegion() {
  return {.id = 1024,
          .start_key = "b",
          .end_key = std::string("d\0", 2),
          .epoch = {.conf_version = 5, .version = ~std::uint64_t{0}},
          .peers = {{1, 7, PeerRole::kVoter}, {2, 8, PeerRole::kLearner}}};
}

TEST(Messages, EncodeToTheseBytes) {
  EXPECT_EQ(Encode(MakeRegion()), Hex(kRegionBytes));
  EXPECT_EQ(Encode(Region()).size(), 60u);
  EXPECT_EQ(Encode(Store{.id = 3, .address = "h:1", .state = 255}),
            Hex("0100 08000000 0300000000000000 0200 03000000 683a31"
                "0300 08000000 ff00000000000000"));
  EXPECT_EQ(Encode(TsoRequest{.count = 0xfffffffe}), Hex("0100 08000000 feffffff00000000"));
  EXPECT_EQ(Encode(BootstrapResponse{.already_bootstrapped = true}), Hex("0100 01000000 01"));
  EXPECT_EQ(Encode(UpsertRegionResponse{}), "");
  EXPECT_EQ(Encode(UpsertRegionResponse{.message = "m"}), Hex("0100 01000000 6d"));
  EXPECT_EQ(Encode(UpsertRegionRequest{.regions = {}, .removed_region_ids = {9, 10}}),
            Hex("0200 08000000 0900000000000000 0200 08000000 0a00000000000000"));
  EXPECT_EQ(Encode(RegionHeartbeatResponse{.commands = {{ScheduleKind::kAddPeer, 9, 5, "a"}}}),
            Hex("0100 31000000"
                "  0100 08000000 0200000000000000 0200 08000000 0900000000000000"
                "  0300 08000000 0500000000000000 0400 01000000 61"));
  EXPECT_EQ(Encode(RegionHeartbeatRequest{.store_id = 1,
                                          .regions = {{.region_id = 2,
                                                       .member_store_ids = {3},
                                                       .caught_up_learner_store_ids = {4},
                                                       .candidate_store_ids = {5}}},
                                          .region_ids = {6}}),
            Hex("0100 08000000 0100000000000000"
                "0200 38000000"
                "  0100 08000000 0200000000000000 0200 08000000 0300000000000000"
                "  0300 08000000 0400000000000000 0400 08000000 0500000000000000"
                "0300 08000000 0600000000000000"));
}

TEST(Messages, DecodeFromTheseBytes) {
  Region region;
  ASSERT_TRUE(Decode(Hex(kRegionBytes), &region));
  EXPECT_EQ(region, MakeRegion());

  const std::string bytes = Hex(kRegionBytes);  // which the range looks into
  RegionRange range, front;
  ASSERT_TRUE(Decode(bytes, &range));
  ASSERT_TRUE(DecodeFront(bytes, &front));
  EXPECT_EQ(range.start_key, region.start_key);
  EXPECT_EQ(front.start_key, region.start_key);
  EXPECT_EQ(range.end_key, region.end_key);
  EXPECT_EQ(front.end_key, region.end_key);
}

// The fuzz target says more of it.
TEST(DecodeFront, LeavesWhatIsLaidOutOtherwiseToDecode) {
  const std::string id = "0100 08000000 0700000000000000", start = "0200 01000000 62",
                    end = "0300 01000000 64", epoch = Hex("0400 1c000000") + Encode(RegionEpoch()),
                    peer = Hex("0500 2a000000") + Encode(Peer());
  const std::pair<std::string, bool> cases[] = {
      {Hex(id + start + end) + epoch + peer + peer, true},
      {Hex(id + start + end) + epoch, true},
      {Hex(id + start + end), false},
      {Hex(id + start + end) + epoch + Hex(end), false},
      {Hex(id + end + start) + epoch, false},
      {Hex(id + start + start + end) + epoch + peer, false},
      {Hex(start + end) + epoch + Hex(id), false},
      {epoch + peer + Hex(id + start + end), false},
      {Hex(id + start + "0300 ffffffff 64") + epoch, false},
      {"", false},
  };
  for (const auto& [bytes, taken] : cases) {
    RegionRange range;
    EXPECT_EQ(DecodeFront(bytes, &range), taken);
    EXPECT_TRUE(!taken || (range.start_key == "b" && range.end_key == "d"));
  }
}

TEST(Decode, FollowsTheRules) {
  const struct {
    const char* name;
    const char* bytes;
    bool good;
    std::uint64_t id;
    const char* start_key;
    std::size_t peers;
  } cases[] = {
      {"empty", "", true, 0, "", 0},
      {"torn header", "0100 08", false, 0, "", 0},
      {"overrun", "0200 02000000 61", false, 0, "", 0},
      {"length wraps", "0200 ffffffff 61", false, 0, "", 0},
      {"integer of 4 bytes", "0100 04000000 01000000", false, 0, "", 0},
      {"integer of 9 bytes", "0100 09000000 010000000000000000", false, 0, "", 0},
      {"unknown tags are skipped", "6300 00000000 0101 01000000 ff 0200 01000000 61", true, 0, "a",
       0},
      {"any order, last one wins",
       "0200 01000000 61 0100 08000000 0500000000000000 0200 01000000 62", true, 5, "b", 0},
      {"bad nested message", "0400 03000000 010008", false, 0, "", 0},
      {"role of 1 byte", "0500 07000000 0300 01000000 01", false, 0, "", 0},
      {"repeated elements add up", "0500 00000000 0500 00000000", true, 0, "", 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Region region;
    EXPECT_EQ(Decode(Hex(c.bytes), &region), c.good);
    if (!c.good) continue;
    EXPECT_EQ(region.id, c.id);
    EXPECT_EQ(region.start_key, c.start_key);
    EXPECT_EQ(region.peers.size(), c.peers);
  }

  BootstrapResponse flag;
  EXPECT_TRUE(Decode(Hex("0100 01000000 02"), &flag));
  EXPECT_TRUE(flag.already_bootstrapped);
  EXPECT_FALSE(Decode(Hex("0100 08000000 0100000000000000"), &flag));
  TsoRequest truncated;
  EXPECT_TRUE(Decode(Hex("0100 08000000 0200000001000000"), &truncated));
  EXPECT_EQ(truncated.count, 2u);
  // A nested message that occurs again replaces the first one whole.
  BootstrapRequest twice;
  EXPECT_TRUE(Decode(Hex("0200 07000000 0200 01000000 61 0200 07000000 0300 01000000 62"), &twice));
  EXPECT_EQ(twice.region.start_key, "");
  EXPECT_EQ(twice.region.end_key, "b");
}

// Lists that are read in place: of fields in any order, an unknown one and the last among them.
TEST(Decode, ReadsIdsWhereTheyAreEncoded) {
  const std::string bytes =
      Hex("0200 08000000 0300000000000000 0400 08000000 0500000000000000 6300 01000000 02"
          "0200 08000000 0400000000000000 0100 08000000 0900000000000000"
          "0200 08000000 ffffffffffffffff");
  RegionHeartbeatEntryView entry;
  ASSERT_TRUE(Decode(bytes, &entry));
  const auto ids = [](const IntegersView& view) { return std::vector(view.begin(), view.end()); };
  EXPECT_EQ(ids(entry.member_store_ids), (std::vector<std::uint64_t>{3, 4, ~std::uint64_t{0}}));
  EXPECT_EQ(ids(entry.caught_up_learner_store_ids), std::vector<std::uint64_t>());
  EXPECT_EQ(ids(entry.candidate_store_ids), std::vector<std::uint64_t>{5});
  EXPECT_FALSE(Decode(Hex("0200 04000000 03000000"), &entry));
}

// Six bytes in a message are an empty region, many times that in memory: some thousands are fine, a
// million are not.
TEST(Decode, RefusesElementsThatTakeMuchMoreMemoryThanTheirEncoding) {
  const std::string empty_region = Hex("0100 00000000");
  std::string bytes;
  for (int i = 0; i < 10000; ++i) bytes += empty_region;
  UpsertRegionRequest some;
  EXPECT_TRUE(Decode(bytes, &some));
  EXPECT_EQ(some.regions.size(), 10000u);

  for (int i = 0; i < 1000000; ++i) bytes += empty_region;
  UpsertRegionRequest many;
  EXPECT_FALSE(Decode(bytes, &many));
  EXPECT_EQ(many.regions.capacity(), 0u);

  // The entries with the least that an encoder writes for them.
  RegionHeartbeatRequest heartbeat;
  heartbeat.regions.resize(100000);
  RegionHeartbeatRequest decoded;
  EXPECT_TRUE(Decode(Encode(heartbeat), &decoded));
}

}  // namespace
}  // namespace kandb::pdpb
