// File calls that fail, once or for a while: who is told, what stays readable, and what is there
// after reopening.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "lsm/table_writer.h"
#include "lsm/wal.h"
#include "support/engine.h"
#include "support/eventually.h"
#include "support/fault.h"
#include "support/temp_dir.h"

namespace kandb::lsm {
namespace {

using enum testing::CallKind;
using namespace testing;

constexpr LsmDb::Options kLarge = {
    .write_buffer_size = 1 << 20, .max_table_files = 8, .sync = true};
constexpr LsmDb::Options kTiny = {.write_buffer_size = 200, .max_table_files = 1, .sync = true};

// The next group begins where the failed ones did, or the WAL would have a hole before it. The
// sweep below fills memtables too fast to see that.
TEST(Faults, FailedGroupsLeaveNoTraceInTheLog) {
  TempDir dir;
  FaultInjector fault;
  auto db = Open(dir.path(), kLarge);
  fault.Arm({.kind = kFdatasync, .count = 2});
  EXPECT_FALSE(db->Write({{kPut, "a", "1"}}).ok());
  EXPECT_FALSE(db->Write({{kPut, "b", "22"}}).ok());
  EXPECT_TRUE(db->Write({{kPut, "c", "3"}}).ok());
  db.reset();
  EXPECT_EQ(ReadAll(*Open(dir.path(), kLarge)), (Model{{"c", "3"}}));
}

// Syncs take long enough for groups to form.
class SlowSyncs : public FaultInjector {
 public:
  std::atomic<int> syncs = 0;

 private:
  int Before(const FileCall& call) override {
    if (call.kind == kFdatasync) {
      ++syncs;
      ::usleep(500);
    }
    return FaultInjector::Before(call);
  }
};

// Writers of the same keys, in groups that succeed or fail together: each is told so, and the one
// that is last in the WAL is last in the memtable.
TEST(Faults, EveryWriterOfAGroupGetsItsResult) {
  constexpr int kWriters = 8;
  constexpr int kRounds = 30;
  TempDir dir;
  SlowSyncs fault;
  auto db = Open(dir.path(), kLarge);
  for (const bool fails : {false, true}) {
    if (fails) fault.Arm({.kind = kFdatasync, .count = Fault::kForever});
    const Model before = ReadAll(*db);
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
      writers.emplace_back([&, writer] {
        for (int round = 0; round < kRounds; ++round) {
          const Batch batch = {{kPut, std::to_string(round), std::to_string(writer)}};
          EXPECT_EQ(db->Write(batch).ok(), !fails);
        }
      });
    }
    for (std::thread& writer : writers) writer.join();
    EXPECT_LT(fault.syncs, (fails ? 2 : 1) * kWriters * kRounds);
    if (fails) {
      EXPECT_EQ(ReadAll(*db), before);
    }
    fault.Disarm();
    const Model written = ReadAll(*db);
    db.reset();
    db = Open(dir.path(), kLarge);
    EXPECT_EQ(ReadAll(*db), written);
  }
}

// The first sync ends only when it is released.
class HeldSync : public FileCallFilter {
 public:
  std::atomic<bool> reached = false;
  std::atomic<bool> released = false;

 private:
  void After(const FileCall& call) override {
    if (call.kind != kFdatasync || reached.exchange(true)) return;
    EXPECT_TRUE(Eventually([this] { return released.load(); }));
  }
};

// A disk may take seconds for one. What is not durable is not seen.
TEST(Faults, AReaderDoesNotWaitForASync) {
  TempDir dir;
  HeldSync sync;
  sync.reached = true;
  auto db = Open(dir.path(), kLarge);
  ASSERT_TRUE(db->Write({{kPut, "a", "1"}}).ok());
  sync.reached = false;
  std::thread writer([&] { EXPECT_TRUE(db->Write({{kPut, "a", "2"}, {kPut, "b", "2"}}).ok()); });
  EXPECT_TRUE(Eventually([&] { return sync.reached.load(); }));
  EXPECT_TRUE(LookUp(*db, {{"a", "1"}}).ok());
  EXPECT_EQ(ReadAll(*db), (Model{{"a", "1"}}));
  sync.released = true;
  writer.join();
  EXPECT_EQ(ReadAll(*db), (Model{{"a", "2"}, {"b", "2"}}));
}

// Reads of a WAL fail from one byte on: where the system returns what comes before it, and where it
// fails the whole call.
class BadByte : public FileCallFilter {
 public:
  BadByte(off_t offset, bool fails_whole_calls) : bad(offset), whole(fails_whole_calls) {}

 private:
  int Before(const FileCall& call) override {
    if (call.kind != kRead) return 0;
    const off_t before = bad - ::lseek(call.fd, 0, SEEK_CUR);
    if (before <= 0 || (whole && static_cast<off_t>(*call.size) > before)) return EIO;
    *call.size = std::min(*call.size, static_cast<std::size_t>(before));
    return 0;
  }
  const off_t bad;
  const bool whole;
};

TEST(Faults, ALogIsReplayedUpToTheByteThatCannotBeRead) {
  const TempDir dir;
  const std::string record = BuildLogRecord({{kPut, "key", std::string(40000, 'v')}});
  std::string log;
  for (int i = 0; i < 100; ++i) log += record;  // more than is read at once
  WriteFile(dir.File("log"), log);
  for (const bool whole : {false, true}) {
    for (const std::size_t records : {0u, 4u, 26u, 60u, 99u}) {
      const BadByte bad(static_cast<off_t>(records * record.size() + 2), whole);
      LogReader reader;
      bool exists = false;
      ASSERT_TRUE(reader.Open(dir.File("log"), &exists).ok());
      std::vector<EntryView> batch;
      std::size_t replayed = 0;
      while (reader.Next(&batch)) ++replayed;
      EXPECT_EQ(replayed, records);
      EXPECT_EQ(reader.offset(), records * record.size());
      EXPECT_EQ(reader.damage().message(), "wal read: Input/output error");
    }
  }
}

// A process that was just killed may still hold the directory, and an engine of this process that
// is being destroyed; a directory that cannot be locked goes without.
TEST(Faults, OnlyALockThatIsHeldKeepsAnEngineOut) {
  const Fault faults[] = {{.kind = kFlock, .count = 3, .error = EWOULDBLOCK},
                          {.kind = kFlock, .count = Fault::kForever, .error = ENOLCK},
                          {.kind = kOpen, .error = EACCES}};
  for (const Fault& fault : faults) {
    TempDir dir;
    FaultInjector injector;
    injector.Arm(fault);
    EXPECT_NE(Open(dir.path(), kLarge), nullptr);
    EXPECT_TRUE(injector.fired());
  }
}

struct SweptCall {
  Fault fault;
  const char* write_error;  // how the texts of failed writes and reads begin
  const char* read_error = "";
  bool written_all_the_same = false;  // a failed write is in the WAL and in the memtable
  bool cut_fails = false;             // and what a failed write leaves in the WAL stays there
};

// Writes with switches, flushes and compactions, during which a file call fails.
class FaultyWorkload {
 public:
  FaultyWorkload(const SweptCall& swept_call, const Fault& fault)
      : swept(swept_call), cause(fault.error == EIO ? kIoError : kDiskFull) {
    injector.Arm(fault);
    if (swept.cut_fails) injector.Arm({.kind = kFtruncate, .count = Fault::kForever});
  }

  // False when the workload ends before the call that is to fail.
  bool Run() {
    while (rounds < 20) (void)Round();
    if (!injector.fired()) return false;
    EXPECT_TRUE(was_told || !swept.written_all_the_same) << "a switch of WALs that failed";
    injector.Disarm();
    if (swept.cut_fails) Reopen();  // a WAL that could not be cut takes no more records
    while (rounds < 24) EXPECT_TRUE(Round()) << "the fault is over";
    db->WaitForBackgroundIdle();
    EXPECT_EQ(db->TableFileCount(), 1u);
    Reopen();
    // The manifest, the table, the last WAL and that of the reopening; nothing unfinished.
    EXPECT_EQ(FilesIn(dir.path()).size(), 4u);
    return true;
  }

 private:
  static constexpr char kIoError[] = "Input/output error";
  static constexpr char kDiskFull[] = "No space left on device";

  // False when the write or a read failed.
  bool Round() {
    const int i = rounds++;
    const std::string key = "k" + std::to_string(i % 7);
    const std::string value(20, static_cast<char>('a' + i));
    const bool written = Write({{kPut, key, value}, {kPut, key + "!", value}, {kDelete, "x", ""}});
    const bool read = ReadBack();
    // So that the n-th call is about the same in every run.
    EXPECT_TRUE(Eventually([this] {
      return injector.fired() || (db->ImmutableMemTableCount() == 0 && db->TableFileCount() <= 1);
    }));
    return written && read;
  }

  bool Write(const Batch& batch) {
    const Status status = db->Write(batch);
    if (!status.ok()) {
      ExpectCaused(status, swept.write_error);
      if (torn.empty()) {
        torn = expected;
        Apply(batch, &torn);
      }
    }
    if (status.ok() || swept.written_all_the_same) Apply(batch, &expected);
    return status.ok();
  }

  bool ReadBack() {
    Model all;
    Status status = Read(*db, &all);
    if (status.ok()) {
      EXPECT_EQ(all, expected);
      status = LookUp(*db, expected);
    }
    if (!status.ok()) ExpectCaused(status, swept.read_error);
    return status.ok();
  }

  void Reopen() {
    db.reset();
    db = Open(dir.path(), kTiny);
    const Model found = ReadAll(*db);
    if (swept.cut_fails && found == torn) expected = torn;
    EXPECT_EQ(found, expected);
  }

  void ExpectCaused(const Status& status, const char* begin) {
    was_told = true;
    const std::string text = status.ToString();
    EXPECT_TRUE(text.starts_with(begin) && text.ends_with(cause)) << text;
  }

  const SweptCall& swept;
  const std::string cause;
  const TempDir dir;
  FaultInjector injector;
  std::unique_ptr<LsmDb> db = Open(dir.path(), kTiny);
  int rounds = 0;
  bool was_told = false;  // a writer or a reader, of a failure
  Model expected;         // what was acknowledged
  Model torn;             // and the first batch that failed
};

// The n-th call of a kind fails, for every n: writers and readers are told, reads go on, background
// work recovers, and what was acknowledged is there after reopening. A running engine does not call
// read: that is part of opening, below.
TEST(Faults, NothingAcknowledgedIsLostWhicheverCallFails) {
  const SweptCall calls[] = {
      {{.kind = kOpen, .except_path = "/wal-"}, ""},
      {{.kind = kOpen, .only_path = "/wal-"}, "Corruption: wal open ", "", true},
      {{.kind = kWrite}, "Corruption: wal write: "},
      {{.kind = kWrite, .half = true}, "Corruption: wal write: "},
      {{.kind = kWrite, .half = true}, "Corruption: wal write: ", "", false, true},
      {{.kind = kPread}, "", "Corruption: sst pread: "},
      {{.kind = kFsync}, ""},
      {{.kind = kFdatasync}, "Corruption: wal fdatasync: "},
      {{.kind = kFdatasync}, "Corruption: wal fdatasync: ", "", false, true},
      {{.kind = kRename}, ""},
      {{.kind = kUnlink}, ""},
  };
  int tried = 0;
  for (const SweptCall& call : calls) {
    for (const int count : {1, 12, Fault::kForever}) {
      for (int n = 1; !HasFailure(); n += count == 1 && !KANDB_SANITIZED ? 1 : 5) {
        SCOPED_TRACE(::testing::Message() << "call " << &call - calls << ", from the " << n
                                          << "th on, " << count << " times");
        Fault fault = call.fault;
        fault.first = n;
        fault.count = count;
        fault.error = count == 1 ? EIO : ENOSPC;
        if (!FaultyWorkload(call, fault).Run()) break;
        ++tried;
      }
    }
  }
  EXPECT_GT(tried, KANDB_SANITIZED ? 200 : 500);
  std::printf("%d faults\n", tried);
}

// Two tables, two WALs, an unnamed table: each call of Open fails in turn.
TEST(Faults, AnOpenThatFailsCanBeRepeated) {
  const struct {
    testing::CallKind kind;
    std::vector<std::string> errors;  // of the n-th call; "" when Open succeeds all the same
  } cases[] = {
      {kStat, {""}},   // creating what is there does no harm
      {kFlock, {""}},  // a file system without locks
      {kOpen,
       {"", "manifest open", "sst open", "sst open", "wal open", "wal open", "wal open",
        "manifest create"}},
      // The first two, of the manifest, must not make it a shorter one; those of a WAL are
      // repeated.
      {kRead, {"manifest read", "manifest read", "", "", "", "", "", ""}},
      {kOpendir, {""}},
      {kReaddir, std::vector<std::string>(9, "list ")},
      {kPread, std::vector<std::string>(6, "sst pread")},
      {kLseek, {"sst open", "sst open", "wal open"}},
      {kWrite, {"manifest write"}},
      {kFsync, {""}},
      {kRename, {"manifest rename failed"}},
      {kUnlink, {""}},
  };
  const TempDir sound;
  for (const std::uint64_t number : {1u, 2u, 5u}) {
    TableBuilder table;
    table.Add({kPut, number == 1 ? "a" : "b", std::to_string(number)});
    ASSERT_TRUE(WriteTable(TableFileName(sound.path(), number), table).ok());
  }
  ASSERT_TRUE(WriteManifest(sound.path(), {.next_file = 3, .sst_files = {2, 1}}).ok());
  WriteFile(sound.File("wal-000003.log"), BuildLogRecord({{kPut, "c", "3"}}));
  WriteFile(sound.File("wal-000004.log"), BuildLogRecord({{kPut, "d", "4"}}));
  const Model everything = {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}};
  for (const auto& c : cases) {
    for (int n = 0;; ++n) {
      SCOPED_TRACE(::testing::Message() << "kind " << c.kind << ", call " << n + 1);
      const TempDir dir;
      std::filesystem::copy(sound.path(), dir.path());
      FaultInjector fault;
      fault.Arm({.kind = c.kind, .first = n + 1});
      std::unique_ptr<LsmDb> db;
      const Status status = LsmDb::Open(dir.path(), kLarge, &db);
      const bool has_row = static_cast<std::size_t>(n) < c.errors.size();
      ASSERT_EQ(fault.fired(), has_row);
      if (!has_row) break;
      fault.Disarm();
      const std::string& error = c.errors[static_cast<std::size_t>(n)];
      EXPECT_EQ(status.ok(), error.empty()) << status.ToString();
      EXPECT_TRUE(status.message().starts_with(error)) << status.ToString();
      EXPECT_EQ(db != nullptr, status.ok());
      if (status.ok() && c.kind != kOpendir) {  // then no WAL is seen
        EXPECT_EQ(ReadAll(*db), everything);
      }
      db.reset();
      EXPECT_EQ(ReadAll(*Open(dir.path(), kLarge)), everything);
    }
  }
}

// Every transfer is first interrupted and then moves at most three bytes.
class ShortTransfers : public FileCallFilter {
  int Before(const FileCall& call) override {
    if (call.size == nullptr) return 0;
    interrupt = !interrupt;
    *call.size = std::min<std::size_t>(*call.size, 3);
    return interrupt ? EINTR : 0;
  }
  bool interrupt = false;
};

TEST(Faults, InterruptedAndShortTransfersAreContinued) {
  for (const LsmDb::Options& options : {kTiny, kLarge}) {
    TempDir dir;
    const ShortTransfers transfers;
    Model model;
    for (int i = 0; i < 20; ++i) {
      auto db = Open(dir.path(), options);
      EXPECT_EQ(ReadAll(*db), model);
      const Batch batch = {{kPut, "k" + std::to_string(i % 7), std::string(150, 'v')},
                           {kPut, "last", std::to_string(i)}};
      ASSERT_TRUE(db->Write(batch).ok());
      Apply(batch, &model);
      db->WaitForBackgroundIdle();
    }
  }
}

}  // namespace
}  // namespace kandb::lsm
