// kandb-ctl on the directory of a running server, backups, restores and salvage.

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "common/posix_file.h"
#include "kandb_ctl/salvage.h"
#include "kandb_ctl/state_capture.h"
#include "kandb_ctl/state_directory.h"
#include "kandb_ctl/verify_directory.h"
#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "lsm/recovery.h"
#include "lsm/table_writer.h"
#include "lsm/wal.h"
#include "meta/keys.h"
#include "pdpb/messages.h"
#include "support/answer.h"
#include "support/engine.h"
#include "support/eventually.h"
#include "support/fault.h"
#include "support/run_tool.h"
#include "support/server_process.h"
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

// Once armed, calls an action within the n-th call of this thread that opens or reads a file.
// Installed before an engine starts and removed after it has ended.
class AtCall {
 public:
  AtCall() : real(file_calls) {
    current = this;
    file_calls.open = [](const char* path, int flags, mode_t mode) {
      Count();
      return current->real.open(path, flags, mode);
    };
    file_calls.pread = [](int fd, void* buffer, std::size_t size, off_t offset) {
      Count();
      return current->real.pread(fd, buffer, size, offset);
    };
  }
  ~AtCall() {
    (void)Disarm();
    file_calls = real;
  }
  void Arm(int n, std::function<void()> act) {
    action = std::move(act);
    countdown = n;
  }
  // Whether the call was reached.
  static bool Disarm() { return std::exchange(countdown, 0) == 0; }

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
      AtCall at_call;
      CountingEngine engine(dir.path());
      for (int i = 0; i < 2; ++i) engine.Change();
      const std::uint64_t before = engine.written;
      ctl::ReadableDirectory copy;
      at_call.Arm(n, [&] {
        for (int i = 0; i < changes; ++i) engine.Change();
      });
      EXPECT_EQ(copy.Open(dir.path(), true).ToString(), "OK");
      reached = at_call.Disarm();
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
    const std::string wals[] = {dir.File("wal-000001.log"), dir.File("wal-000002.log")};
    WriteFile(wals[0], lsm::BuildLogRecord({{lsm::kPut, "k", "old"}}));
    WriteFile(wals[1], lsm::BuildLogRecord({{lsm::kPut, "k", "new"}}));
    WriteFile(dir.File("wal-000003.log"), "");
    lsm::TableBuilder table;
    table.Add({lsm::kPut, "k", "new"});
    EXPECT_TRUE(WriteTable(dir.File("sst-000004.sst"), table).ok());
    EXPECT_TRUE(lsm::WriteManifest(dir.path(), {.next_file = 5, .sst_files = {4}}).ok());
    AtCall at_call;
    at_call.Arm(n, [&] {
      for (const std::string& wal : wals) std::filesystem::remove(wal);
    });
    ctl::ReadableDirectory copy;
    EXPECT_EQ(copy.Open(dir.path(), true).ToString(), "OK");
    reached = at_call.Disarm();
    EXPECT_EQ(ReadCopy(copy.path()), (Model{{"k", "new"}}));
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
      AtCall at_call;
      at_call.Arm(n, [&] { WriteFile(wal, sound + sound.substr(0, grows ? 10 : 9)); });
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

// --- Backup and restore ---

std::string ServerDir(const TempDir& dir) { return dir.File("pd-data"); }

TEST(Backup, HasEveryAcknowledgedRecordAndNoIdIsGivenTwice) {
  const TempDir dir;
  const TempDir restored;
  std::uint64_t highest_id = 0;  // when the backup began
  {
    const ListeningServer server(dir.path());
    const auto add_store = [](Caller& pd, std::uint64_t id) {
      // 200 kB each, so that memtables fill up.
      const pdpb::Store store = {id, std::to_string(id) + std::string(200000, 's'), 0};
      Answer(pd, &Caller::Bootstrap, {store, {1, "", "", {}, {{2, id}}}, {}});
    };
    std::mutex mutex;
    std::vector<std::uint64_t> acknowledged;
    const auto copy_acknowledged = [&] {
      const std::lock_guard lock(mutex);
      return acknowledged;
    };
    Caller first(server.port());
    add_store(first, 3);  // creates the cluster
    std::atomic<bool> stop = false;
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 4; ++writer) {
      writers.emplace_back([&] {
        for (Caller pd(server.port()); !stop;) {
          const std::uint64_t id = Answer(pd, &Caller::AllocId, {1}).first_id;
          add_store(pd, id);
          const std::lock_guard lock(mutex);
          acknowledged.push_back(id);
        }
      });
    }
    // More than a memtable takes.
    EXPECT_TRUE(Eventually([&] { return copy_acknowledged().size() > 450; }));
    const std::vector<std::uint64_t> before = copy_acknowledged();
    const ToolResult backup =
        RunTool({"--json", "backup", ServerDir(dir), "--out", dir.File("backup")});
    EXPECT_EQ(backup.exit_status, 0) << backup.out << backup.err;
    EXPECT_NE(backup.out.find("\"verified\":true"), backup.out.npos);
    stop = true;
    for (std::thread& writer : writers) writer.join();
    const Model contents = ReadCopy(dir.File("backup"));
    for (const std::uint64_t id : before) EXPECT_TRUE(contents.contains(meta::StoreKey(id))) << id;
    highest_id = *std::max_element(before.begin(), before.end());
  }
  const ToolResult restore =
      RunTool({"restore", dir.File("backup"), ServerDir(restored), "--skip-ids", "100000"});
  EXPECT_EQ(restore.exit_status, 0);
  EXPECT_EQ(restore.err, "");
  const ListeningServer server(restored.path());
  const std::uint64_t next_id = Answer(Caller(server.port()), &Caller::AllocId, {1}).first_id;
  EXPECT_GT(next_id, highest_id + 100000);
  EXPECT_NE(restore.out.find("ids go on from " + std::to_string(next_id) + "\n"), restore.out.npos)
      << restore.out;
}

std::uint64_t Links(const std::string& path) { return std::filesystem::hard_link_count(path); }

TEST(Backup, IsIncrementalAndARestoreChecksIt) {
  const TempDir dir;
  const std::string state = dir.File("state");
  std::filesystem::create_directory(state);
  const auto change = [&] { CountingEngine(state).Change(); };
  const auto back_up = [&](std::vector<std::string> options) {
    options.insert(options.begin(), {"backup", state, "--out"});
    const ToolResult result = RunTool(options);
    EXPECT_EQ(result.exit_status, 1) << "unknown keys";
    return result.out;
  };
  change();
  const std::string table = "/sst-000003.sst";
  back_up({dir.File("b1"), "--copy"});
  EXPECT_EQ(Links(state + table), 1);
  change();
  back_up({dir.File("b2"), "--copy", "--since", dir.File("b1")});
  EXPECT_EQ(Links(dir.File("b2") + table), 2);
  back_up({dir.File("b3")});
  EXPECT_EQ(Links(state + table), 2);
  // What is damaged in the earlier backup is taken from the source; a torn record is left out.
  WriteFile(dir.File("b1") + table, "?" + ReadFile(state + table).substr(1));
  lsm::FileNumbers files;
  EXPECT_TRUE(lsm::ListFileNumbers(state, &files).ok());
  const std::string wal = lsm::LogFileName(state, files.logs.back());
  const std::string sound = ReadFile(wal);
  WriteFile(wal, sound + sound.substr(0, 9));
  const std::string out = back_up({dir.File("b4"), "--copy", "--since", dir.File("b1")});
  EXPECT_NE(out.find(": 9 bytes of an unfinished record left out\n"), out.npos) << out;
  EXPECT_EQ(ReadFile(lsm::LogFileName(dir.File("b4"), files.logs.back())), sound);
  EXPECT_EQ(ReadFile(dir.File("b4") + table), ReadFile(state + table));

  const std::pair<const char*, std::string> refused[] = {
      {"b1", dir.File("b1") + table +
                 " does not have the sum in SHA256SUMS: take another backup, " + dir.File("new") +
                 " is not complete"},
      {"b3", dir.File("new") + " is not empty: move its files aside"},
      {"state", state + "/SHA256SUMS is missing: no complete backup"}};
  for (const auto& [backup, message] : refused) {
    EXPECT_EQ(RunTool({"restore", dir.File(backup), dir.File("new")}),
              (ToolResult{1, "", "kandb-ctl: " + message + "\n"}));
  }
  // No server starts on the half of a backup.
  std::unique_ptr<lsm::LsmDb> db;
  EXPECT_EQ(lsm::LsmDb::Open(dir.File("new"), {4000, 2, false}, &db).message(),
            "file number out of range in " + dir.File("new"));
  std::filesystem::remove_all(dir.File("new"));
  EXPECT_EQ(RunTool({"restore", dir.File("b4"), dir.File("new")}).exit_status, 0);
  Model contents = ReadCopy(dir.File("new"));
  contents.erase("pd/id_alloc");
  EXPECT_EQ(contents, ReadCopy(state));
  EXPECT_EQ(
      std::system(("cd " + dir.File("b4") + " && sha256sum --quiet -c SHA256SUMS" +
                   // From now on it was made long after today.
                   " && sed -i 's/unix_ms\": /&9/' backup.json && sed -i '/json/d' SHA256SUMS")
                      .c_str()),
      0);
  const ToolResult early = RunTool({"restore", dir.File("b4"), dir.File("early")});
  EXPECT_EQ(early.exit_status, 0);
  EXPECT_NE(early.err.find(" s behind the backup: timestamps would be handed out again\n"),
            early.err.npos)
      << early.err;
}

// --- Salvage ---

// Where the newest operation on a key is.
struct Newest {
  std::string file;
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  bool live = false;
};
using Places = std::map<std::string, Newest>;

// What is done to a record in one of four rounds, if anything. A third of the records are only in
// the first one, where a damaged deletion may hit them.
std::optional<lsm::Entry> Operation(std::uint64_t round, std::uint64_t id) {
  const bool old = id / 10 == 3;
  const std::uint64_t kind = old ? 1 : (id + round) % 4;
  if (kind > 1 || (old && round > 0)) return {};
  if (kind == 0) return lsm::Entry{lsm::kDelete, meta::RegionKey(id), ""};
  const pdpb::Region region = {id, "k" + std::to_string(id * 10 + round), "l", {1, 2}, {{id, 1}}};
  return lsm::Entry{lsm::kPut, meta::RegionKey(id), pdpb::Encode(region)};
}

// Two tables and two WALs with puts and deletions of the same keys.
Places MakeState(const std::string& dir) {
  Places places;
  for (std::uint64_t round = 0; round < 4; ++round) {
    const bool is_table = round < 2;
    const std::string path =
        is_table ? lsm::TableFileName(dir, round + 1) : lsm::LogFileName(dir, round + 1);
    lsm::TableBuilder table;
    std::string log;
    std::uint64_t end = 0;
    for (std::uint64_t id = 20; id < 50; ++id) {
      const std::optional<lsm::Entry> entry = Operation(round, id);
      if (!entry) continue;
      const std::string record = lsm::BuildLogRecord({*entry});
      if (is_table) table.Add(*entry);
      if (!is_table) log += record;
      const std::uint64_t begin = end;
      end += is_table ? lsm::EncodedSize(*entry) : record.size();
      places[entry->key] = {path, begin, end, entry->op == lsm::kPut};
    }
    is_table ? (void)WriteTable(path, table) : WriteFile(path, log);
  }
  EXPECT_TRUE(lsm::WriteManifest(dir, {.next_file = 5, .sst_files = {2, 1}}).ok());
  return places;
}

// What becomes of a file, which differs from the sound one from `begin` to `end`.
struct Damage {
  std::uint64_t begin;
  std::uint64_t end;
  std::string bytes;  // none: the file is missing
};

// Bytes changed, overwritten and cut off, everywhere and in the footer of a table more often.
std::vector<Damage> DamagesOf(const std::string& bytes) {
  constexpr std::size_t kStride = KANDB_SANITIZED ? 23 : 3;
  const std::size_t size = bytes.size();
  const std::size_t footer = size - std::min(size, lsm::kFooterSize);
  std::vector<Damage> damages = {{0, size, ""}};
  for (std::size_t at = 0; at < size; at += at < footer || KANDB_SANITIZED ? kStride : 1) {
    for (const char bit : {'\x02', '\x80'}) {
      damages.push_back({at, at + 1, bytes});
      damages.back().bytes[at] = static_cast<char>(bytes[at] ^ bit);
    }
    if (at % 7 == 1) damages.push_back({at, size, bytes.substr(0, at)});
    if (at % 7 == 2) damages.push_back({at, at + 3, std::string(bytes).replace(at, 3, "???")});
  }
  return damages;
}

// Not in place: some file systems write a file to the disk at once that is cut and written again.
void Replace(const std::string& file, const std::string& bytes) {
  std::filesystem::remove(file);
  if (!bytes.empty()) WriteFile(file, bytes);
}

TEST(Salvage, BringsBackWhatIsNotDamaged) {
  const TempDir dir;
  const Places places = MakeState(dir.path());
  const FileCallFilter no_syncs;
  const Model contents = ReadCopy(dir.path());
  std::size_t count = 0;
  for (const std::string& name : FilesIn(dir.path())) {
    const std::string file = dir.File(name);
    const std::string sound = ReadFile(file);
    for (const auto& [begin, end, bytes] : DamagesOf(sound)) {
      SCOPED_TRACE(name + " " + std::to_string(begin) + " to " + std::to_string(end));
      ++count;
      Replace(file, bytes);
      const TempDir out;
      ctl::Salvaged salvaged;
      EXPECT_EQ(ctl::Salvage(dir.path(), out.File("new"), 1000, {}, &salvaged).ToString(), "OK");
      Model found = ReadCopy(out.File("new"));
      for (const auto& [key, place] : places) {
        if (place.file == file && place.begin < end && begin < place.end) continue;
        EXPECT_EQ(found.contains(key), place.live) << key;
        EXPECT_EQ(found[key], place.live ? contents.at(key) : "") << key;
      }
      const ctl::Verified verified = ctl::VerifyDirectory(out.File("new"), {}, [](double) {});
      for (const auto& [where, text] : verified.findings) {
        EXPECT_TRUE(where.starts_with("pd/region/")) << where << ": " << text;
      }
      EXPECT_GE(verified.cluster.id_mark, 2024);  // 1024, where ids begin, and those skipped
    }
    Replace(file, sound);
  }
  EXPECT_GT(count, KANDB_SANITIZED ? 200 : 2000);
}

}  // namespace
}  // namespace kandb::testing
