// Group commit with a function in place of the engine: who commits what, and who is told.

#include <gtest/gtest.h>

#include <map>
#include <new>
#include <thread>

#include "lsm/commit_queue.h"
#include "support/eventually.h"

namespace kandb::lsm {
namespace {

using testing::Eventually;
using Records = std::vector<std::string>;

class CommitQueueTest : public ::testing::Test {
 protected:
  ~CommitQueueTest() override { Finish(); }

  // Begins the commit of a first group, which does not end before Finish.
  void HoldFirstGroup() {
    held = true;
    const int before = commits;
    Submit("first");
    ASSERT_TRUE(Eventually([&] { return commits == before + 1; }));
  }
  // Submits in a thread of its own, and returns once the record is in the next group.
  void SubmitAndWait(const std::string& record) {
    const std::size_t before = queue.WaitingCount();
    Submit(record);
    ASSERT_TRUE(Eventually([&] { return queue.WaitingCount() == before + 1; }));
  }
  void Finish() {
    held = false;
    for (std::thread& thread : threads) thread.join();
    threads.clear();
  }

  CommitQueue queue{[this](auto group) { return Commit(group); }};
  std::vector<Records> groups;
  std::map<std::string, std::string> results;  // by record; complete after Finish

 private:
  void Submit(const std::string& record) {
    std::string* const result = &results[record];
    threads.emplace_back([this, record, result] {
      *result = queue.Submit({.batch = nullptr, .record = record}).ToString();
    });
  }
  Status Commit(std::span<const WriterSlot* const> group) {
    groups.emplace_back();
    for (const WriterSlot* slot : group) groups.back().push_back(slot->record);
    ++commits;
    EXPECT_TRUE(Eventually([this] { return !held; }));
    if (groups.back()[0] == "fails") return Status::Corruption("disk");
    if (groups.back()[0] == "throws") throw std::bad_alloc();
    return {};
  }

  std::vector<std::thread> threads;
  std::atomic<int> commits = 0;
  std::atomic<bool> held = false;
};

TEST_F(CommitQueueTest, WritersThatArriveDuringAGroupAreTheNextOneInTheirOrder) {
  HoldFirstGroup();
  for (const char* record : {"d", "a", "c"}) SubmitAndWait(record);
  Finish();
  EXPECT_EQ(groups, (std::vector<Records>{{"first"}, {"d", "a", "c"}}));
}

TEST_F(CommitQueueTest, AllWritersOfAGroupGetItsResultAndTheNextGroupIsCommitted) {
  const std::pair<const char*, const char*> cases[] = {
      {"fails", "Corruption: disk"}, {"throws", "Corruption: out of memory"}, {"works", "OK"}};
  for (const auto& [leader, result] : cases) {
    HoldFirstGroup();
    for (const char* record : {leader, "follower", "another"}) SubmitAndWait(record);
    Finish();
    EXPECT_EQ(results["first"], "OK");
    for (const char* record : {leader, "follower", "another"}) EXPECT_EQ(results[record], result);
  }
}

// Each group has a result of its own, so that one that reaches a writer of another group shows.
TEST(CommitQueue, EachOfManyWritersIsCommittedOnceAndToldItsResult) {
  constexpr int kWriters = 64;
  constexpr int kRounds = 300;
  int group_count = 0;
  std::atomic<int> committing = 0;
  std::map<std::string, std::string> expected;  // the result of each record's group
  CommitQueue queue([&](std::span<const WriterSlot* const> group) {
    EXPECT_EQ(++committing, 1) << "two leaders at once";
    Status result = Status::Corruption(std::to_string(++group_count));
    for (const WriterSlot* slot : group) {
      EXPECT_TRUE(expected.emplace(slot->record, result.ToString()).second) << slot->record;
    }
    --committing;
    return result;
  });
  std::map<std::string, std::string> results[kWriters];
  std::vector<std::thread> threads;
  for (int writer = 0; writer < kWriters; ++writer) {
    threads.emplace_back([&, writer] {
      for (int round = 0; round < kRounds; ++round) {
        const std::string record = std::to_string(writer) + " " + std::to_string(round);
        results[writer][record] = queue.Submit({.batch = nullptr, .record = record}).ToString();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::map<std::string, std::string> told;
  for (auto& of_writer : results) told.merge(of_writer);
  EXPECT_EQ(told.size(), kWriters * kRounds);
  EXPECT_EQ(told, expected);
}

}  // namespace
}  // namespace kandb::lsm
