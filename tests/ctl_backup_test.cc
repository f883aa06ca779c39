// kandb-ctl on the directory of a running server, backups, restores and salvage.

#include <gtest/gtest.h>

#include <functional>

#include "common/posix_file.h"
#include "kandb_ctl/state_capture.h"
#include "kandb_ctl/state_directory.h"
#include "kandb_ctl/verify_directory.h"
#include "lsm/lsm_db.h"
#include "lsm/recovery.h"
#include "support/engine.h"
#include "support/eventually.h"
#include "support/run_tool.h"
#include "support/temp_dir.h"

namespace kandb::testing {
namespace {

// An engine with small memtables and tables, to which numbers are written, ascending, to keys in
// turn.
class CountingEngine {
 public:
  static constexpr std::uint64_t kKeys = 7;

  explicit CountingEngine(const std::string& dir) : db(Open(dir, {4000, 2, false})) {}

  void Write(std::uint64_t count) {
    for (; count > 0; --count) {
      const std::string key = "k" + std::to_string(++written % kKeys);
      EXPECT_TRUE(db->Write({{lsm::kPut, key, std::to_string(written)}}).ok());
    }
  }
  // Switches memtables, flushes, and every other time compacts.
  void Change() {
    Write(150);
    db->WaitForBackgroundIdle();
    Write(1);
  }

  // Writes until a memtable is a table; nothing is in the WAL then.
  void WriteTable() {
    for (const std::uint64_t tables = db->TableFileCount(); db->TableFileCount() == tables;) {
      Write(1);
      db->WaitForBackgroundIdle();
    }
  }

  // The contents of one moment have a largest number, and for each key the largest one up to it
  // that the key was given. Returns it.
  static std::uint64_t NewestOf(const Model& contents) {
    std::uint64_t newest = 0;
    for (const auto& [key, number] : contents)
      newest = std::max<std::uint64_t>(newest, std::stoull(number));
    for (const auto& [key, number] : contents) EXPECT_LT(newest - std::stoull(number), kKeys);
    EXPECT_EQ(contents.size(), kKeys);
    return newest;
  }

  std::uint64_t written = 0;

 private:
  const std::unique_ptr<lsm::LsmDb> db;
};

// Calls `action` within the n-th call of this thread that opens or reads a file.
class AtCall {
 public:
  AtCall(int n, std::function<void()> act) : real(file_calls) {
    countdown = n;
    current = this;
    action = std::move(act);
    file_calls.open = [](const char* path, int flags, mode_t mode) {
      Count();
      return current->real.open(path, flags, mode);
    };
    file_calls.pread = [](int fd, void* buffer, std::size_t size, off_t offset) {
      Count();
      return current->real.pread(fd, buffer, size, offset);
    };
  }
  ~AtCall() { file_calls = real; }
  bool reached() const { return countdown <= 0; }

 private:
  static void Count() {
    if (countdown > 0 && --countdown == 0) current->action();
  }
  static inline thread_local int countdown = 0;
  static inline AtCall* current = nullptr;
  const FileCalls real;
  std::function<void()> action;
};

Model ReadCopy(const std::string& dir) {
  lsm::ReadView view;
  EXPECT_EQ(lsm::LoadReadOnly(dir, &view).ToString(), "OK");
  Model contents;
  EXPECT_TRUE(ctl::ForEachRecord(view, [&](std::string_view key, std::string_view value) {
                contents.emplace(key, value);
                return true;
              }).ok());
  return contents;
}

TEST(StateCapture, IsOfOneMomentWhateverHappensMeanwhile) {
  for (int changes = 1; changes <= 3; ++changes) {
    int n = 1;
    for (bool reached = true; reached; ++n) {
      SCOPED_TRACE(n);
      const TempDir dir;
      CountingEngine engine(dir.path());
      for (int i = 0; i < 2; ++i) engine.Change();
      const std::uint64_t before = engine.written;
      ctl::ReadableDirectory copy;
      {
        const AtCall at_call(n, [&] {
          for (int i = 0; i < changes; ++i) engine.Change();
        });
        EXPECT_EQ(copy.Open(dir.path(), true).ToString(), "OK");
        reached = at_call.reached();
      }
      engine.Change();
      EXPECT_GE(CountingEngine::NewestOf(ReadCopy(copy.path())), before);
      // A copy does not change, and is checked like a directory of a stopped server.
      EXPECT_EQ(ctl::VerifyDirectory(copy.path(), {}, [](double) {}).findings.size(),
                CountingEngine::kKeys);  // that its keys are unknown
    }
    EXPECT_GT(n, 8);  // manifest, tables, WALs, manifest, copy of the newest
  }
}

// An old WAL without the newer ones would hide what only the table has of them.
TEST(StateCapture, IsOfOneMomentWhileAFlushDeletesItsWals) {
  int n = 1;
  for (bool reached = true; reached; ++n) {
    const TempDir dir;
    const TempDir wals;
    const std::string names[] = {"/wal-000001.log", "/wal-000002.log", "/wal-000003.log"};
    for (int start = 1; start <= 2; ++start) CountingEngine(dir.path()).Write(7);
    CountingEngine engine(dir.path());
    for (const auto& name : names)
      std::filesystem::create_hard_link(dir.path() + name, wals.path() + name);
    engine.WriteTable();
    EXPECT_TRUE(Eventually([&] { return !std::filesystem::exists(dir.path() + names[2]); }));
    for (const auto& name : names)
      std::filesystem::create_hard_link(wals.path() + name, dir.path() + name);
    const AtCall at_call(n, [&] {
      for (const auto& name : names) std::filesystem::remove(dir.path() + name);
    });
    ctl::ReadableDirectory copy;
    EXPECT_EQ(copy.Open(dir.path(), true).ToString(), "OK");
    reached = at_call.reached();
    EXPECT_EQ(CountingEngine::NewestOf(ReadCopy(copy.path())), engine.written);
  }
  EXPECT_GT(n, 8);
}

// The second look at the newest WAL tells a write in progress from damage.
TEST(StateCapture, CutsARecordThatIsBeingWritten) {
  for (const bool grows : {true, false}) {
    const TempDir dir;
    CountingEngine(dir.path()).Write(50);
    const std::string wal = dir.File("wal-000001.log");
    const std::string sound = ReadFile(wal);
    WriteFile(wal, sound + sound.substr(0, 9));
    ctl::ReadableDirectory copy;
    int reads = 0;
    for (int n = 1; n < 20; ++n) {
      const AtCall at_call(n, [&] { WriteFile(wal, sound + sound.substr(0, grows ? 10 : 9)); });
      ctl::StateCapture capture;
      EXPECT_TRUE(TakeCapture(dir.path(), &capture).ok());
      reads += ReadFile(capture.logs.back().path()) == sound ? 1 : 0;
      WriteFile(wal, sound + sound.substr(0, 9));
    }
    EXPECT_EQ(reads > 0, grows);
  }
}

TEST(Live, TheCommandsReadARunningServer) {
  const TempDir dir;
  CountingEngine engine(dir.path());
  engine.Change();
  for (const char* command : {"dump", "summary", "verify", "regions", "stores"}) {
    const ToolResult result = RunTool({"--json", "state", command, dir.path(), "--live"});
    EXPECT_NE(result.exit_status, 3);
    EXPECT_TRUE(result.err.starts_with("kandb-ctl: " + dir.path() + " was read live at 2"))
        << result.err;
    EXPECT_EQ(result.out.find("missing"), result.out.npos);
  }
}

}  // namespace
}  // namespace kandb::testing
