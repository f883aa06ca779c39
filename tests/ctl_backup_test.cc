// kandb-ctl on the directory of a running server, backups, restores and salvage.

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>
#include <utility>

#include "common/posix_file.h"
#include "kandb_ctl/salvage.h"
#include "kandb_ctl/state_capture.h"
#include "kandb_ctl/state_directory.h"
#include "kandb_ctl/verify_directory.h"
#include "lsm/file_names.h"
#include "lsm/lsm_db.h"
#include "lsm/recovery.h"
#include "lsm/wal.h"
#include "meta/keys.h"
#include "pdpb/messages.h"
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
    const TempDir wals;
    const std::string names[] = {"/wal-000001.log", "/wal-000002.log", "/wal-000003.log"};
    AtCall at_call;
    for (int start = 1; start <= 2; ++start) CountingEngine(dir.path()).Write(7);
    CountingEngine engine(dir.path());
    for (const auto& name : names)
      std::filesystem::create_hard_link(dir.path() + name, wals.path() + name);
    engine.WriteTable();
    EXPECT_TRUE(Eventually([&] { return !std::filesystem::exists(dir.path() + names[2]); }));
    for (const auto& name : names)
      std::filesystem::create_hard_link(wals.path() + name, dir.path() + name);
    at_call.Arm(n, [&] {
      for (const auto& name : names) std::filesystem::remove(dir.path() + name);
    });
    ctl::ReadableDirectory copy;
    EXPECT_EQ(copy.Open(dir.path(), true).ToString(), "OK");
    reached = at_call.Disarm();
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
  constexpr std::uint64_t kSkip = 100000;
  const TempDir dir;
  const TempDir restored;
  std::uint64_t acknowledged = 0;
  std::atomic<std::uint64_t> highest_id = 0;
  {
    const ListeningServer server(dir.path());
    std::atomic<std::uint64_t> written[4] = {};
    std::atomic<bool> stop = false;
    std::vector<std::thread> writers;
    for (std::uint64_t w = 0; w < std::size(written); ++w) {
      writers.emplace_back([&, w] {
        Caller pd(server.port());
        for (std::uint64_t n = 1; !stop; ++n) {
          pdpb::AllocIdResponse id;
          pdpb::UpsertRegionResponse unused;
          // 200 kB each, so that memtables fill up.
          pdpb::Region region{w * 1000000 + n, std::string(200000, 'k'), "l", {}, {}};
          if (!pd.AllocId({1}, &id).ok() || !pd.UpsertRegion({{region}, {}}, &unused).ok()) break;
          written[w] = n;
          if (id.first_id > highest_id) highest_id = id.first_id;
        }
      });
    }
    const auto count = [&] {
      std::uint64_t sum = 0;
      for (const auto& n : written) sum += n;
      return sum;
    };
    EXPECT_TRUE(Eventually([&] { return count() > 450; }));  // more than a memtable takes
    std::uint64_t before[4];
    for (std::size_t w = 0; w < 4; ++w) before[w] = written[w];
    const ToolResult backup =
        RunTool({"--json", "backup", ServerDir(dir), "--out", dir.File("backup")});
    EXPECT_EQ(backup.exit_status, 1) << "its regions overlap";
    EXPECT_EQ(backup.out.find("\"verified\":true") == backup.out.npos, false) << backup.err;
    stop = true;
    for (std::thread& writer : writers) writer.join();
    lsm::ReadView view;
    EXPECT_TRUE(lsm::LoadReadOnly(dir.File("backup"), &view).ok());
    for (std::uint64_t w = 0; w < 4; ++w) {
      for (std::uint64_t n = 1; n <= before[w]; ++n, ++acknowledged) {
        std::string value;
        bool found = false;
        EXPECT_TRUE(lsm::GetLive(view, meta::RegionKey(w * 1000000 + n), &value, &found).ok() &&
                    found);
      }
    }
    EXPECT_GT(acknowledged, 450);
  }
  const ToolResult restore = RunTool(
      {"restore", dir.File("backup"), ServerDir(restored), "--skip-ids", std::to_string(kSkip)});
  EXPECT_EQ(restore.exit_status, 0) << restore.err;
  EXPECT_EQ(restore.err, "");
  const ListeningServer server(restored.path());
  pdpb::AllocIdResponse id;
  EXPECT_TRUE(Caller(server.port()).AllocId({1}, &id).ok());
  EXPECT_GT(id.first_id, highest_id);
  EXPECT_NE(restore.out.find("ids go on from " + std::to_string(id.first_id) + "\n"),
            restore.out.npos)
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
    const ToolResult result = RunTool({"restore", dir.File(backup), dir.File("new")});
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(result.err, "kandb-ctl: " + message + "\n");
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

// Two tables and two WALs with puts and deletions of the same keys.
Places MakeState(const std::string& dir) {
  for (int round = 0; round < 4; ++round) {
    const std::unique_ptr<lsm::LsmDb> db = Open(dir, {round < 2 ? 1u : 1u << 20, 8, false});
    Batch batch;
    for (std::uint64_t id = 10; id < 50; ++id) {
      // Some are only in the oldest table, where a damaged deletion may hit them.
      const bool old = id / 10 == 3;
      if (old && round > 0) continue;
      const auto kind = old ? 1 : (id + static_cast<std::uint64_t>(round)) % 4;
      const pdpb::Region region = {
          id, "k" + std::to_string(id * 10 + kind), "l", {1, 2}, {{id, 1}}};
      if (kind == 0) batch.push_back({lsm::kDelete, meta::RegionKey(id), ""});
      if (kind == 1) batch.push_back({lsm::kPut, meta::RegionKey(id), pdpb::Encode(region)});
      if (round > 1 && batch.size() == 5) {
        EXPECT_TRUE(db->Write(batch).ok());
        batch.clear();
      }
    }
    EXPECT_TRUE(db->Write(batch).ok());
    db->WaitForBackgroundIdle();
  }
  Places places;
  lsm::FileNumbers files;
  EXPECT_TRUE(lsm::ListFileNumbers(dir, &files).ok());
  for (const std::uint64_t number : files.tables) {
    const std::string path = lsm::TableFileName(dir, number);
    std::shared_ptr<lsm::SstReader> table;
    EXPECT_TRUE(lsm::SstReader::Open(path, &table).ok());
    lsm::SstReader::Iterator at(table.get(), 65536);
    for (at.Seek(""); at.valid(); at.Next()) {
      places[std::string(at.entry().key)] = {path, at.offset(),
                                             at.offset() + lsm::EncodedSize(at.entry()),
                                             at.entry().op == lsm::kPut};
    }
  }
  for (const std::uint64_t number : files.logs) {
    const std::string path = lsm::LogFileName(dir, number);
    lsm::LogReader reader;
    bool exists = false;
    EXPECT_TRUE(reader.Open(path, &exists).ok());
    std::vector<lsm::EntryView> batch;
    for (std::uint64_t begin = 0; reader.Next(&batch); begin = reader.offset()) {
      for (const lsm::EntryView& entry : batch) {
        places[std::string(entry.key)] = {path, begin, reader.offset(), entry.op == lsm::kPut};
      }
    }
  }
  return places;
}

#ifndef KANDB_SALVAGE_STRIDE
#define KANDB_SALVAGE_STRIDE 3
#endif

TEST(Salvage, BringsBackWhatIsNotDamaged) {
  const TempDir sound;
  const Places places = MakeState(sound.path());
  const FileCallFilter no_syncs;
  const Model contents = ReadCopy(sound.path());
  int count = 0;
  const auto expect = [&](const std::string& file, std::uint64_t begin, std::uint64_t end,
                          const std::string& bytes) {
    SCOPED_TRACE(file + " " + std::to_string(begin) + " to " + std::to_string(end));
    ++count;
    const std::string original = ReadFile(file);
    bytes.empty() ? (void)std::filesystem::remove(file) : WriteFile(file, bytes);
    const TempDir out;
    ctl::Salvaged salvaged;
    EXPECT_EQ(ctl::Salvage(sound.path(), out.File("new"), 1000, {}, &salvaged).ToString(), "OK");
    Model found = ReadCopy(out.File("new"));
    for (const auto& [key, place] : places) {
      const bool damaged = place.file == file && place.begin < end && begin < place.end;
      if (damaged) continue;
      EXPECT_EQ(found.contains(key), place.live) << key;
      EXPECT_EQ(found[key], place.live ? contents.at(key) : "") << key;
    }
    const ctl::Verified verified = ctl::VerifyDirectory(out.File("new"), {}, [](double) {});
    for (const auto& [where, text] : verified.findings) {
      EXPECT_TRUE(where.starts_with("pd/region/")) << where << ": " << text;
    }
    EXPECT_GE(verified.cluster.id_mark, 2024);  // 1024, where ids begin, and those skipped
    WriteFile(file, original);
  };
  for (const auto& item : std::filesystem::directory_iterator(sound.path())) {
    const std::string file = item.path();
    const std::string bytes = ReadFile(file);
    const std::size_t size = bytes.size();
    expect(file, 0, size, "");
    const std::size_t footer = size - std::min(size, lsm::kFooterSize);
    for (std::size_t at = 0; at < size; at += at < footer ? KANDB_SALVAGE_STRIDE : 1) {
      for (const char bit : {'\x02', '\x80'}) {
        std::string changed = bytes;
        changed[at] = static_cast<char>(changed[at] ^ bit);
        expect(file, at, at + 1, changed);
      }
      if (at % 7 == 1) expect(file, at, size, bytes.substr(0, at));
      if (at % 7 == 2)
        expect(file, at, at + 3,
               bytes.substr(0, at) + "???" + bytes.substr(std::min(at + 3, size)));
    }
  }
  EXPECT_GT(count, 100);
}

}  // namespace
}  // namespace kandb::testing
