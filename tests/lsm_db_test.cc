// The engine: the same behaviour under several option sets, recovery, concurrency.

#include "lsm/lsm_db.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <thread>

#include "lsm/manifest.h"
#include "lsm/write_batch.h"
#include "support/engine.h"
#include "support/temp_dir.h"

namespace kandb::lsm {
namespace {

using namespace testing;

constexpr LsmDb::Options kLarge = {
    .write_buffer_size = 1 << 20, .max_table_files = 8, .sync = false};
constexpr LsmDb::Options kTiny = {.write_buffer_size = 200, .max_table_files = 1, .sync = true};
constexpr LsmDb::Options kManyTables = {
    .write_buffer_size = 500, .max_table_files = 1000, .sync = false};

class LsmDbTest : public ::testing::TestWithParam<LsmDb::Options> {};
std::string NameOfOptions(const ::testing::TestParamInfo<LsmDb::Options>& test) {
  const char* const names[] = {"Large", "Tiny", "ManyTables"};
  return names[test.index];
}
INSTANTIATE_TEST_SUITE_P(Options, LsmDbTest, ::testing::Values(kLarge, kTiny, kManyTables),
                         NameOfOptions);

// Random batches, with reads, scans and reopening in between, against a std::map.
TEST_P(LsmDbTest, AgreesWithAMap) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto key = [&] { return "k" + std::to_string(random() % 300); };
  TempDir dir;
  auto db = Open(dir.path(), GetParam());
  Model model;
  for (int step = 0; step < 1500; ++step) {
    Batch batch;
    for (unsigned i = 0; i <= random() % 4; ++i) {
      batch.push_back({kPut, key(), std::string(random() % 50, static_cast<char>(random()))});
      if (random() % 4 == 0) batch.back() = {kDelete, key(), ""};
    }
    ASSERT_EQ(db->Write(batch).ToString(), "OK");
    Apply(batch, &model);

    const std::string wanted = key();
    std::string value;
    bool found = false;
    ASSERT_EQ(db->Get(wanted, &value, &found).ToString(), "OK");
    ASSERT_EQ(found, model.count(wanted) == 1) << wanted;
    ASSERT_TRUE(!found || value == model[wanted]) << wanted;
    if (step % 100 == 0) {
      const std::string start = key();
      const std::string end = key();
      Model expected;
      if (start < end) expected = {model.lower_bound(start), model.lower_bound(end)};
      ASSERT_EQ(ReadAll(*db, start, end), expected);
      ASSERT_EQ(ReadAll(*db), model);
    }
    if (random() % 200 == 0) {
      db.reset();
      db = Open(dir.path(), GetParam());
    }
  }
  db->WaitForBackgroundIdle();
  EXPECT_EQ(db->ImmutableMemTableCount(), 0u);
  EXPECT_LE(db->TableFileCount(), GetParam().max_table_files);
  EXPECT_EQ(ReadAll(*db), model);
}

// Readers run beside writers, flushes and compactions; every batch is seen whole.
TEST_P(LsmDbTest, ConcurrentBatchesAreWhole) {
  constexpr int kWriters = 4;
  constexpr int kRounds = 150;
  TempDir dir;
  auto db = Open(dir.path(), GetParam());
  std::atomic<int> writers_left = kWriters;
  std::vector<std::thread> threads;
  for (int writer = 0; writer < kWriters; ++writer) {
    threads.emplace_back([&, writer] {
      const std::string name = "a" + std::to_string(writer);
      for (int round = 0; round < kRounds; ++round) {
        const std::string value = std::to_string(round);
        EXPECT_TRUE(db->Write({{kPut, name, value}, {kPut, name + "!", value}}).ok());
        EXPECT_TRUE(LookUp(*db, {{name, value}}).ok());
      }
      --writers_left;
    });
  }
  while (writers_left > 0) {
    const Model seen = ReadAll(*db);
    for (int writer = 0; writer < kWriters; ++writer) {
      const auto first = seen.find("a" + std::to_string(writer));
      if (first == seen.end()) continue;
      ASSERT_EQ(std::next(first)->first, first->first + "!");
      EXPECT_EQ(std::next(first)->second, first->second);
    }
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ReadAll(*db).size(), 2u * kWriters);
  db.reset();
  EXPECT_EQ(ReadAll(*Open(dir.path(), GetParam())).size(), 2u * kWriters);
}

TEST(LsmDb, ScansLongerThanAChunkInBothDirectionsOfTheLimit) {
  // In a memtable, and in a table, whose entries straddle the pieces that are read.
  for (const std::uint64_t buffer_size : {1u << 20, 1u}) {
    TempDir dir;
    auto db = Open(dir.path(), {.write_buffer_size = buffer_size, .max_table_files = 8});
    Batch batch;
    for (int i = 0; i < 9000; ++i) batch.push_back({kPut, std::to_string(100000 + i), "value"});
    ASSERT_TRUE(db->Write(batch).ok());
    db->WaitForBackgroundIdle();
    EXPECT_EQ(db->TableFileCount(), buffer_size == 1 ? 1u : 0u);
    EXPECT_EQ(ReadAll(*db).size(), 9000u);
    EXPECT_EQ(ReadAll(*db, "100010", "104106").size(), 4096u);
    Batch out = {{kPut, "old", ""}};
    ASSERT_TRUE(db->Scan("104095", "", 2, &out).ok());
    EXPECT_EQ(out, (Batch{{kPut, "104095", "value"}, {kPut, "104096", "value"}}));
    ASSERT_TRUE(db->Scan("", "", 0, &out).ok());
    EXPECT_EQ(out.size(), 0u);
  }
}

TEST(LsmDb, SwitchesWhenTheBufferIsExactlyFull) {
  TempDir dir;
  auto db = Open(dir.path(), {.write_buffer_size = 36 + 33, .max_table_files = 8, .sync = true});
  ASSERT_TRUE(db->Write({{kPut, "a", "xyz"}}).ok());
  EXPECT_EQ(FilesIn(dir.path()), (std::vector<std::string>{"MANIFEST", "wal-000001.log"}));
  ASSERT_TRUE(db->Write({{kDelete, "a", ""}}).ok());
  db->WaitForBackgroundIdle();
  // The log of the flushed memtable goes last, after the queue is empty: closing waits for it.
  db.reset();
  EXPECT_EQ(FilesIn(dir.path()),
            (std::vector<std::string>{"MANIFEST", "sst-000003.sst", "wal-000002.log"}));
  EXPECT_EQ(ReadFile(dir.File("MANIFEST")), "next_file 4\nsst 3\n");
}

TEST(LsmDb, RefusesABatchThatAReplayWouldNotTakeBack) {
  TempDir dir;
  auto db = Open(dir.path(), kLarge);
  Batch batch = {{kPut, "k", std::string(kMaxLogPayloadSize - 4 - 9 - 1, 'v')}};
  ASSERT_EQ(BatchSize(batch), kMaxLogPayloadSize);
  EXPECT_TRUE(db->Write(batch).ok());
  batch[0].value += "v";
  batch[0].key = "l";
  EXPECT_EQ(db->Write(batch).ToString(), "InvalidArgument: batch: too large");
  db.reset();
  const Model kept = ReadAll(*Open(dir.path(), kLarge));
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(kept.begin()->second.size(), kMaxLogPayloadSize - 14);
}

TEST(Open, ReplaysLogsInOrderAndClearsOrphans) {
  TempDir dir;
  WriteFile(dir.File("wal-000002.log"), BuildLogRecord({{kPut, "k", "new"}}) + "torn");
  WriteFile(dir.File("wal-000010.log"), BuildLogRecord({{kPut, "l", "last"}}));
  WriteFile(dir.File("wal-000001.log"), BuildLogRecord({{kPut, "k", "old"}, {kPut, "j", "1"}}));
  WriteFile(dir.File("wal-3.log"), BuildLogRecord({{kPut, "ignored", ""}}));
  WriteFile(dir.File("sst-000020.sst"), "orphan");
  WriteFile(dir.File("sst-30.sst.tmp"), "stays");
  WriteFile(dir.File("xwal-50.log"), "");
  WriteFile(dir.File("wal-x.log"), "");
  WriteFile(dir.File("MANIFEST"), "next_file 1\n");
  auto db = Open(dir.path(), kLarge);
  EXPECT_EQ(ReadAll(*db), (Model{{"j", "1"}, {"k", "new"}, {"l", "last"}}));
  EXPECT_EQ(ReadFile(dir.File("MANIFEST")), "next_file 32\n");
  EXPECT_EQ(FilesIn(dir.path()),
            (std::vector<std::string>{"MANIFEST", "sst-30.sst.tmp", "wal-000001.log",
                                      "wal-000002.log", "wal-000010.log", "wal-000031.log",
                                      "wal-3.log", "wal-x.log", "xwal-50.log"}));
  // The engine in the pointer goes only once the new one stands.
  ASSERT_TRUE(LsmDb::Open(dir.path(), kLarge, &db).ok());
  EXPECT_EQ(ReadAll(*db).size(), 3u);
}

TEST(Open, NamesWhatStandsInItsWay) {
  TempDir dir;
  std::filesystem::create_directory(dir.File("table"));
  WriteFile(dir.File("table/MANIFEST"), "sst 7\n");
  std::filesystem::create_directories(dir.File("log/wal-000001.log"));
  std::filesystem::create_directory(dir.File("numbers"));
  WriteFile(dir.File("numbers/wal-18446744073709551615.log"), "");
  const struct {
    const char* name;
    std::string error;
  } cases[] = {
      {"no/dir", "Corruption: mkdir " + dir.File("no/dir") + ": No such file or directory"},
      {"table",
       "Corruption: sst open " + dir.File("table/sst-000007.sst") + ": No such file or directory"},
      {"numbers", "Corruption: file number out of range in " + dir.File("numbers")},
  };
  for (const auto& c : cases) {
    std::unique_ptr<LsmDb> db;
    EXPECT_EQ(LsmDb::Open(dir.File(c.name), kLarge, &db).ToString(), c.error);
    EXPECT_EQ(db, nullptr);
  }
  // A log that cannot be read holds nothing, like any damaged one.
  EXPECT_EQ(ReadAll(*Open(dir.File("log"), kLarge)).size(), 0u);
}

}  // namespace
}  // namespace kandb::lsm
