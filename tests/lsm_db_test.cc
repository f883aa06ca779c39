// The engine: the same behaviour under several option sets, recovery, concurrency.

#include "lsm/lsm_db.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <thread>

#include "lsm/merging_iterator.h"
#include "lsm/table_writer.h"
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
  // Of many lengths, with common prefixes longer than a node of the memtable keeps.
  const auto key = [&] {
    const auto number = random() % 300;
    return std::string(number % 40, 'k') + std::to_string(number);
  };
  TempDir dir;
  auto db = Open(dir.path(), GetParam());
  Model model;
  for (int step = 0; step < 1500; ++step) {
    Batch batch;
    for (unsigned i = 0; i <= random() % 4; ++i) {
      batch.push_back({kPut, key(), std::string(random() % 50, static_cast<char>(random()))});
      if (random() % 4 == 0) batch.back() = {kDelete, key(), ""};
      if (random() % 20 == 0) batch.back() = {7, key(), ""};  // an unknown op is a deletion
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

// Readers run beside writers, flushes and compactions; every batch is seen whole, and by every
// reader once its writer was answered.
TEST_P(LsmDbTest, ConcurrentBatchesAreSeenWholeOnceAnswered) {
  constexpr int kWriters = 4;
  constexpr int kRounds = 150;
  TempDir dir;
  auto db = Open(dir.path(), GetParam());
  std::atomic<int> writers_left = kWriters;
  std::atomic<int> answered[kWriters] = {-1, -1, -1, -1};  // rounds
  std::vector<std::thread> threads;
  for (int writer = 0; writer < kWriters; ++writer) {
    threads.emplace_back([&, writer] {
      const std::string name = "a" + std::to_string(writer);
      for (int round = 0; round < kRounds; ++round) {
        const std::string value = std::to_string(round);
        EXPECT_TRUE(db->Write({{kPut, name, value}, {kPut, name + "!", value}}).ok());
        answered[writer] = round;
      }
      --writers_left;
    });
  }
  while (writers_left > 0) {
    int rounds[kWriters];
    std::copy(std::begin(answered), std::end(answered), rounds);
    std::string value = "-1";
    bool found = false;
    ASSERT_TRUE(db->Get("a3!", &value, &found).ok());
    EXPECT_GE(std::stoi(value), rounds[3]);
    const Model seen = ReadAll(*db);
    for (int writer = 0; writer < kWriters; ++writer) {
      const auto first = seen.find("a" + std::to_string(writer));
      EXPECT_GE(first == seen.end() ? -1 : std::stoi(first->second), rounds[writer]);
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

// Operations on the keys `first`, `first` + 1, ...
Batch Numbered(std::uint8_t op, std::size_t first, std::size_t count, const std::string& value) {
  Batch batch;
  for (std::size_t i = 0; i < count; ++i) batch.push_back({op, std::to_string(first + i), value});
  return batch;
}

// All entries of a chunk of which `listed` are listed.
std::vector<EntryView> ListAll(MemTable::Chunk* chunk, MemTable::Chunk::Records listed) {
  for (std::size_t before = 0; before < listed.size();) {
    before = listed.size();
    listed = chunk->Extend();
  }
  std::vector<EntryView> entries;
  EntryTree::Decode(listed, &entries);
  return entries;
}

TEST(MemTable, ABatchIsSeenWhole) {
  MemTable memtable;
  std::atomic<bool> done = false;
  std::thread writer([&] {
    for (int round = 0; round < 2000; ++round) {
      memtable.Apply(Numbered(kPut, 100, 200, std::to_string(round)));
    }
    done = true;
  });
  MemTable::Chunk chunk(&memtable);
  while (!done) {
    const std::vector<EntryView> entries = ListAll(&chunk, chunk.Begin("", 4096));
    EXPECT_TRUE(entries.empty() || entries.size() == 200);
    for (const EntryView& entry : entries) ASSERT_EQ(entry.value, entries[0].value);
  }
  writer.join();
}

// Whatever is written after it began, and however much of it is listed by then.
TEST(MemTable, AChunkIsOfOneMoment) {
  for (const std::size_t limit : {0u, 1u, 16u, 17u, 100u, 2000u}) {
    for (int extensions = 0; extensions < 5; ++extensions) {
      MemTable memtable;
      memtable.Apply(Numbered(kPut, 1000, 1000, "old"));
      MemTable::Chunk written_to(&memtable);
      MemTable::Chunk::Records listed = written_to.Begin("1001", limit);
      const std::size_t expected = limit == 0 ? 999 : std::min<std::size_t>(limit, 999);
      EXPECT_EQ(listed.size(), limit == 0 ? 999 : std::min<std::size_t>(16, limit));
      for (int i = 0; i < extensions; ++i) listed = written_to.Extend();
      memtable.Apply(Numbered(kDelete, 10000, 3000, ""));
      const std::vector<EntryView> entries = ListAll(&written_to, listed);
      ASSERT_EQ(entries.size(), expected);
      for (std::size_t i = 0; i < expected; ++i) {
        EXPECT_EQ(entries[i].key, std::to_string(1001 + i));
        EXPECT_EQ(entries[i].value, "old");
      }
      MemTable::Chunk later(&memtable);
      EXPECT_EQ(ListAll(&later, later.Begin("", 1 << 20)).size(), 4000u);
      EXPECT_NE(later.moment(), written_to.moment());
    }
  }
}

// 4,096 entries are one chunk; one more is in another, of a later moment unless all are taken at
// once.
TEST(MemTable, AScanSeesOneMomentOrSaysThatItDoesNot) {
  for (const std::size_t size : {4096u, 4097u}) {
    for (const bool at_once : {false, true}) {
      TempDir dir;
      auto db = Open(dir.path(), {.write_buffer_size = 1 << 20, .max_table_files = 8});
      ASSERT_TRUE(db->Write(Numbered(kPut, 10000, size, "")).ok());
      std::size_t visited = 0;
      const auto write_once = [&](std::string_view, std::string_view) {
        if (++visited == 20) {
          EXPECT_TRUE(db->Write({{kPut, "a", ""}, {kPut, "b", ""}, {kDelete, "14000", ""}}).ok());
        }
        return true;
      };
      bool of_one_moment = at_once;
      const Status walked = at_once ? ForEachLiveAtOnce(*db->CaptureView(), "", "", ~0u, write_once)
                                    : db->ForEach("", "", ~0u, write_once, &of_one_moment);
      EXPECT_TRUE(walked.ok());
      EXPECT_EQ(of_one_moment, at_once || size == 4096);
      EXPECT_EQ(visited, of_one_moment ? size : size + 2);
    }
  }
}

// A source in batches of random sizes, whose bytes live no longer than they must.
class ListSource final : public EntrySource {
 public:
  ListSource(const Model& list, std::mt19937* generator) : entries(list), random(*generator) {}

  void Seek(std::string_view target) override {
    next = entries.lower_bound(std::string(target));
    Refill();
  }

 private:
  void Refill() override {
    batch = {};
    for (auto left = 1 + random() % 9; left > 0 && next != entries.end(); --left, ++next) {
      batch.push_back({kPut, next->first, next->second});
    }
    views.assign(batch.begin(), batch.end());
    buffered = views;
  }

  const Model entries;
  std::mt19937& random;
  Model::const_iterator next;
  Batch batch;
  std::vector<EntryView> views;
};

// Keys of few distinct bytes, the greatest and the smallest among them: many are in several
// sources, begin another one, or differ only after more bytes than are compared at once.
TEST(MergingIterator, AgreesWithAMap) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 1000; ++round) {
    const std::string prefix(random() % 20, 'p');
    const auto key = [&] {
      std::string bytes = random() % 20 == 0 ? "" : prefix;
      for (auto left = random() % 14; left > 0; --left) bytes += "\0aa\xff"[random() % 4];
      return bytes;
    };
    Model expected;
    std::vector<std::unique_ptr<EntrySource>> sources;
    for (auto source = random() % 12; source > 0; --source) {
      Model list;
      for (auto left = random() % 60; left > 0; --left) list[key()] = std::to_string(source);
      expected.insert(list.begin(), list.end());  // keeps newer ones
      sources.push_back(std::make_unique<ListSource>(list, &random));
    }
    const std::string end = random() % 2 == 0 ? "" : key();
    MergingIterator merged(std::move(sources), end);
    for (const std::string& start : {std::string(), key()}) {
      Model found;
      for (merged.Seek(start); merged.valid(); merged.Next()) {
        const EntryView& entry = merged.entry();
        ASSERT_TRUE(found.empty() || found.rbegin()->first < entry.key);
        found.emplace(entry.key, entry.value);
      }
      const auto first = expected.lower_bound(start);
      const auto last = end.empty() ? expected.end() : expected.lower_bound(std::max(start, end));
      ASSERT_EQ(found, Model(first, last)) << round;
    }
  }
}

// A scan of a memtable lists its first entries, then a chunk, and decodes them in batches; a table
// is read in pieces. Lengths around each of these sizes.
TEST(LsmDb, ScansOfEveryLengthAreComplete) {
  const Batch batch = Numbered(kPut, 100000, 9000, "v");
  for (const std::uint64_t buffer_size : {1u << 20, 1u}) {
    TempDir dir;
    auto db = Open(dir.path(), {.write_buffer_size = buffer_size, .max_table_files = 8});
    ASSERT_TRUE(db->Write(batch).ok());
    db->WaitForBackgroundIdle();
    ASSERT_EQ(db->TableFileCount(), buffer_size == 1 ? 1u : 0u);
    for (const std::size_t length :
         {0u, 1u, 15u, 16u, 17u, 127u, 128u, 129u, 4095u, 4096u, 4097u, 8192u, 8193u, 8990u}) {
      SCOPED_TRACE(length);
      const auto begin = batch.begin() + 10;
      const auto distance = static_cast<std::ptrdiff_t>(length);
      const Batch expected(begin, begin + distance);
      Batch found = {{kPut, "old", ""}};
      ASSERT_TRUE(db->Scan(begin->key, "", static_cast<std::uint32_t>(length), &found).ok());
      EXPECT_TRUE(found == expected) << "by its limit: " << found.size();
      ASSERT_TRUE(db->Scan(begin->key, (begin + distance)->key, 10000, &found).ok());
      EXPECT_TRUE(found == expected) << "by its end: " << found.size();
    }
  }
}

TEST(LsmDb, SwitchesWhenTheBufferIsExactlyFull) {
  TempDir dir;
  auto db = Open(dir.path(), {.write_buffer_size = 36 + 33, .max_table_files = 8, .sync = true});
  ASSERT_TRUE(db->Write({{kPut, "a", "xyz"}}).ok());
  EXPECT_EQ(FilesIn(dir.path()), (std::vector<std::string>{"MANIFEST", "wal-000001.log"}));
  ASSERT_TRUE(db->Write({{kDelete, "a", ""}}).ok());
  // The WAL of the flushed memtable is deleted last: closing waits for it.
  db->WaitForBackgroundIdle();
  db.reset();
  EXPECT_EQ(FilesIn(dir.path()),
            (std::vector<std::string>{"MANIFEST", "sst-000003.sst", "wal-000002.log"}));
  EXPECT_EQ(ReadFile(dir.File("MANIFEST")), "next_file 4\nsst 3\n");
}

// A compaction writes live values only.
TEST(LsmDb, ACompactionDropsDeletions) {
  TempDir dir;
  auto db = Open(dir.path(), {.write_buffer_size = 1, .max_table_files = 1, .sync = false});
  ASSERT_TRUE(db->Write({{kPut, "a", "1"}, {kPut, "b", "2"}, {kDelete, "never", ""}}).ok());
  db->WaitForBackgroundIdle();
  ASSERT_TRUE(db->Write({{kDelete, "a", ""}, {kPut, "b", "3"}}).ok());
  db->WaitForBackgroundIdle();
  db.reset();
  std::shared_ptr<SstReader> table;
  ASSERT_TRUE(SstReader::Open(dir.File(FilesIn(dir.path())[1]), &table).ok());
  EXPECT_EQ(table->EntryCount(), 1u);
}

// Lookups in the table would miss some of its entries.
TEST(TableBuilderDeathTest, EndsTheProcessWhenKeysDoNotAscend) {
  TableBuilder builder;
  builder.Add({kPut, "b", ""});
  EXPECT_DEATH(builder.Add({kPut, "b", ""}),
               "lsm/table_writer.cc:[0-9]+: check failed: .* key \"b\" after \"b\"");
}

TEST(LsmDb, RefusesABatchThatIsTooLargeForAReplay) {
  TempDir dir;
  constexpr LsmDb::Options kLogOnly = {.write_buffer_size = 1 << 30};
  auto db = Open(dir.path(), kLogOnly);
  const std::string value(kMaxLogPayloadSize - 4 - 9 - 1, 'v');
  EXPECT_TRUE(db->Write({{kPut, "k", value}}).ok());
  EXPECT_EQ(db->Write({{kPut, "l", value + "v"}}).ToString(), "InvalidArgument: batch: too large");
  db.reset();
  EXPECT_TRUE(ReadAll(*Open(dir.path(), kLogOnly)) == (Model{{"k", value}}));
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
  // Numbers after which none is left; a sign counts as in any number.
  WriteFile(dir.File("wal--5.log"), "");
  WriteFile(dir.File("sst-99999999999999999999.sst"), "");
  WriteFile(dir.File("MANIFEST"), "next_file 1\n");
  auto db = Open(dir.path(), kLarge);
  EXPECT_EQ(ReadAll(*db), (Model{{"j", "1"}, {"k", "new"}, {"l", "last"}}));
  EXPECT_EQ(ReadFile(dir.File("MANIFEST")), "next_file 32\n");
  EXPECT_EQ(
      FilesIn(dir.path()),
      (std::vector<std::string>{"MANIFEST", "sst-30.sst.tmp", "sst-99999999999999999999.sst",
                                "wal--5.log", "wal-000001.log", "wal-000002.log", "wal-000010.log",
                                "wal-000031.log", "wal-3.log", "wal-x.log", "xwal-50.log"}));
  // The engine in the pointer is destroyed only after the new one is open.
  ASSERT_TRUE(LsmDb::Open(dir.path(), kLarge, &db).ok());
  EXPECT_EQ(ReadAll(*db).size(), 3u);
}

TEST(Open, NamesTheFileThatItFailsOn) {
  TempDir dir;
  for (const char* name : {"table", "log/wal-000001.log", "numbers", "unreadable/MANIFEST"}) {
    std::filesystem::create_directories(dir.File(name));
  }
  WriteFile(dir.File("table/MANIFEST"), "sst 7\n");
  WriteFile(dir.File("numbers/MANIFEST"), "next_file 18446744073709551615\n");
  const std::string missing = ": No such file or directory";
  const std::pair<const char*, std::string> cases[] = {
      {"no/dir", "mkdir " + dir.File("no/dir") + missing},
      {"table", "sst open " + dir.File("table/sst-000007.sst") + missing},
      {"numbers", "file number out of range in " + dir.File("numbers")},
      {"unreadable", "manifest read: Is a directory"},
  };
  for (const auto& [name, error] : cases) {
    std::unique_ptr<LsmDb> db;
    EXPECT_EQ(LsmDb::Open(dir.File(name), kLarge, &db).ToString(), "Corruption: " + error);
    EXPECT_EQ(db, nullptr);
  }
  // A WAL that cannot be read is empty, like one whose first record is damaged.
  EXPECT_EQ(ReadAll(*Open(dir.File("log"), kLarge)).size(), 0u);
}

}  // namespace
}  // namespace kandb::lsm
