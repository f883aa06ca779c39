// The offline commands of kandb-ctl, run as a process: on directories damaged after the engine
// wrote them, and on the files that the document of the formats shows as bytes.

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <future>
#include <regex>

#include "crypto/bloom.h"
#include "lsm/table_format.h"
#include "meta/keys.h"
#include "pdpb/messages.h"
#include "store/value_envelope.h"
#include "support/engine.h"
#include "support/hex.h"
#include "support/run_tool.h"
#include "support/temp_dir.h"

namespace kandb::testing {
namespace {

lsm::Entry Put(const std::string& key, const auto& record) {
  return {lsm::kPut, key, pdpb::Encode(record)};
}

// The findings of verify, without the path of the directory, and without the line that there are
// none.
std::string Verify(const std::string& dir) {
  const ToolResult result = RunTool({"state", "verify", dir});
  const bool sound = result.out.starts_with("nothing found: ");
  EXPECT_EQ(result.exit_status, sound ? 0 : 1);
  return sound ? "" : std::regex_replace(result.out, std::regex(dir + "/"), "") + result.err;
}

// --- Damaged files ---

constexpr char kManifest[] = "MANIFEST";
constexpr char kTable[] = "sst-000003.sst";
constexpr char kWal[] = "wal-000004.log";

// The entries of the table. The last is one of many deletions, so that damage to it affects no
// record.
Batch Entries(const char* last_key = "zzt") {
  Batch entries = {Put("pd/region/10", pdpb::Region{10, "", "m", {}, {{11, 1, {}}}}),
                   Put("pd/region/20", pdpb::Region{20, "m", "", {}, {{21, 1, {}}}}),
                   Put("pd/store/1", pdpb::Store{1, "h:1", 0})};
  for (char c = 'a'; c < 't'; ++c) entries.push_back({lsm::kDelete, std::string("zz") + c, ""});
  entries.push_back({lsm::kDelete, last_key, ""});
  return entries;
}
constexpr std::size_t kCount = 23;

std::string Data(const Batch& entries) {
  std::string data;
  for (const lsm::Entry& entry : entries) AppendEntry(entry, &data);
  return data;
}

std::size_t OffsetOf(std::size_t number) {
  const Batch entries = Entries();
  return Data({entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(number)}).size();
}

// Every 16th entry is indexed.
std::string Index(const char* second_key = "zzn", std::size_t second_offset = OffsetOf(16)) {
  std::string index;
  lsm::AppendIndexElement({"pd/region/10", 0}, &index);
  if (second_key != nullptr) lsm::AppendIndexElement({second_key, second_offset}, &index);
  return index;
}

std::string Filter(const Batch& entries) {
  crypto::BloomFilter filter(kCount, lsm::kFilterBitsPerKey);
  for (const lsm::Entry& entry : entries) filter.Add(entry.key);
  return filter.Serialize();
}

struct TableParts {
  std::string data = Data(Entries());
  std::string index = Index();
  std::string gap = {};
  std::string filter = Filter(Entries());
  std::size_t count = kCount;
};
std::string Table(const TableParts& parts) {
  std::string table = parts.data + parts.index + parts.gap;
  const std::size_t filter_offset = table.size();
  table += parts.filter;
  lsm::AppendFooter(
      {parts.data.size(), parts.index.size(), filter_offset, parts.filter.size(), parts.count},
      &table);
  return table;
}

std::string At(const char* file, std::size_t offset) {
  return file + (" offset " + std::to_string(offset)) + ": ";
}

using Damage = std::function<void(const std::string& dir)>;
Damage Replace(const char* file, const std::string& bytes) {
  return [=](const std::string& dir) { WriteFile(dir + "/" + file, bytes); };
}
Damage Remove(const char* file) {
  return [=](const std::string& dir) { std::filesystem::remove(dir + "/" + file); };
}
Damage Forbid(const char* file) {
  return [=](const std::string& dir) {
    std::filesystem::permissions(dir + "/" + file, std::filesystem::perms::none);
  };
}
Damage MakeDirectory(const char* name) {
  return [=](const std::string& dir) {
    std::filesystem::remove(dir + "/" + name);
    std::filesystem::create_directory(dir + "/" + name);
  };
}

// Every file with its contents and time of change.
std::string Contents(const std::string& dir) {
  std::string all;
  for (const auto& file : std::filesystem::directory_iterator(dir)) {
    all += file.path().string() +
           (file.is_symlink() || file.is_directory() ? "" : ReadFile(file.path()));
    all += std::to_string(file.last_write_time().time_since_epoch().count());
  }
  return all;
}

TEST(StateVerify, NamesTheDamageAndChangesNothing) {
  const TempDir sound;
  WriteDirectory(sound.path(), 1, Entries());
  WriteDirectory(sound.path(), 1 << 20, {{lsm::kPut, "pd/id_alloc", Hex("e907000000000000")}});
  const std::string manifest = ReadFile(sound.File(kManifest));
  const std::string unknown = manifest + "xst 3\n";
  const std::string wal = ReadFile(sound.File(kWal));
  std::string damaged_wal = wal;
  damaged_wal.back() ^= 1;
  const std::string table = Table({});
  ASSERT_EQ(ReadFile(sound.File(kTable)), table);
  const std::string data = Data(Entries());
  const std::size_t last = OffsetOf(kCount - 1);
  const std::size_t footer = table.size() - lsm::kFooterSize;
  const std::string not_checked = "records: not checked, the next start fails\n";
  const std::string misindexed =
      At(kTable, OffsetOf(16)) + "the index does not point here with this key\n";
  const std::string gaps = "data, index, filter and footer have gaps\n";
  const std::pair<Damage, std::string> cases[] = {
      {[](auto&) {}, ""},
      {Replace(kManifest, unknown + "y"),
       At(kManifest, manifest.size()) + "unknown word \"xst\"\n" + At(kManifest, unknown.size()) +
           "no record; the rest is not read\n"},
      {Replace(kManifest, "sst 3\n"), "MANIFEST: no next_file\n"},
      {Replace(kManifest, "next_file 9223372036854775808 sst 3"),
       "MANIFEST: next_file is out of range: the next start fails\n"},
      {Replace(kManifest, manifest + "sst 3"), "sst-000003.sst: named twice by the manifest\n"},
      {Replace("sst-9.tmp", ""), ""},
      {Replace("sst-000009.sst", ""),
       "sst-000009.sst: not named by the manifest: the next start deletes it\n"},
      {Remove(kManifest),
       "MANIFEST: missing: the next start deletes every table\n"
       "sst-000003.sst: not named by the manifest: the next start deletes it\n"},
      {Forbid(kManifest), "MANIFEST: manifest open: Permission denied\n" + not_checked},
      {MakeDirectory(kManifest), "MANIFEST: manifest read: Is a directory\n" + not_checked},
      {Replace("wal-9223372036854775807.log", ""), ""},  // no number that the engine would use

      {Replace("wal-9.log", wal),
       "wal-000009.log: missing; a file with another name for this number is never read\n"},
      {MakeDirectory("wal-000009.log"), "wal-000009.log: no regular file\n"},
      // A file that cannot be read at its start.
      {[](auto& dir) {
         std::filesystem::create_symlink("/proc/self/mem", dir + "/wal-000009.log");
       },
       At("wal-000009.log", 0) +
           "wal read: Input/output error; 0 bytes from here on are not replayed\n"},
      {Remove(kWal), ""},  // the other one is left
      {[](auto& dir) {
         std::filesystem::remove(dir + "/wal-000002.log");
         std::filesystem::remove(dir + "/" + kWal);
       },
       "wal-*.log: none: every start of a server leaves one\n"},
      {Forbid(kWal), "wal-000004.log: wal open wal-000004.log: Permission denied\n" + not_checked},
      {Replace(kWal, wal + "1"),
       At(kWal, wal.size()) + "torn record at the end: an unacknowledged write\n"},
      {Replace(kWal, damaged_wal + wal), At(kWal, 0) + "record crc mismatch; " +
                                             std::to_string(2 * wal.size()) +
                                             " bytes from here on are not replayed\n"},

      {Remove(kTable),
       "sst-000003.sst: sst open sst-000003.sst: No such file or directory\n" + not_checked},
      {Replace(kTable, table.substr(1) + "?"),
       At(kTable, footer) + "sst bad magic\n" + not_checked},
      {Replace(kTable, Table({.index = Index() + "?"})),
       At(kTable, data.size()) + "sst index truncated\n" + not_checked},
      {Replace(kTable, Table({.index = Index() + Index()})),
       At(kTable, data.size()) + "index elements that belong to no record\n"},
      {Replace(kTable, Table({.index = Index(nullptr)})), misindexed},
      {Replace(kTable, Table({.index = Index("zzm")})), misindexed},
      {Replace(kTable, Table({.index = Index("zzn", last)})), misindexed},
      {Replace(kTable, Table({.gap = "?"})), At(kTable, footer + 1) + gaps},
      {Replace(kTable, table.substr(0, footer) + "?" + table.substr(footer)),
       At(kTable, footer + 1) + gaps},
      {Replace(kTable, Table({.data = "\5" + data.substr(1)})),
       At(kTable, 0) + "sst bad record op\nrecords: not checked: sst bad record op\n"},
      {Replace(kTable, Table({.filter = Filter({})})),
       At(kTable, 0) + "the filter denies this key (and 22 more)\n"},
      {Replace(kTable, Table({.data = Data(Entries("zzu"))})),
       At(kTable, last) + "the filter denies this key\n"},
      {Replace(kTable, Table({.data = Data(Entries("zzs"))})),
       At(kTable, last) + "the key is not above the one before\n"},
      {Replace(kTable, Table({.count = 24})),
       At(kTable, footer) + "the footer counts 24 records, there are 23\n"},
  };
  for (const auto& [damage, findings] : cases) {
    const TempDir dir;
    std::filesystem::copy(sound.path(), dir.path(), std::filesystem::copy_options::recursive);
    damage(dir.path());
    const std::string before = Contents(dir.path());
    EXPECT_GE(RunTool({"state", "summary", dir.path()}).exit_status, 0);
    EXPECT_GE(RunTool({"state", "dump", dir.path()}).exit_status, 0);
    EXPECT_EQ(Verify(dir.path()), findings);
    EXPECT_EQ(Contents(dir.path()), before);
  }
}

// --- Records that are wrong, alone or together ---

Batch Regions(const std::vector<pdpb::Region>& regions) {
  Batch batch = {Put("pd/store/1", pdpb::Store{1, "h:1", 0})};
  for (const pdpb::Region& region : regions) {
    batch.push_back(Put(meta::RegionKey(region.id), region));
  }
  return batch;
}

Batch Stores(std::uint64_t count) {
  Batch batch;
  for (std::uint64_t id = 1; id <= count; ++id) {
    batch.push_back(Put(meta::StoreKey(id), pdpb::Store{id, "", 0}));
  }
  return batch;
}

TEST(StateVerify, ComparesTheRecords) {
  const pdpb::Peer peer = {9, 1, {}};
  const std::pair<Batch, const char*> cases[] = {
      {{{lsm::kPut, "pd/bootstrapped", "1"}},
       "pd/region/: no region from the first key to the last key\n"},
      {{{lsm::kPut, "pd/id_alloc", "123"},
        {lsm::kPut, "pd/other", ""},
        {lsm::kPut, "pd/region/1", "x"},
        Put("pd/region/2", pdpb::Region{3, "", "", {}, {peer}}),
        Put("pd/store/1", pdpb::Store{1, "h:1", 0}),
        {lsm::kPut, "pd/store/2", "x"},
        Put("pd/store/3", pdpb::Store{4, "", 0})},
       "pd/id_alloc: 3 bytes, not 8: the next start hands out identifiers from 0 on\n"
       "pd/other: unknown key\npd/region/1: no region record\n"
       "pd/region/2: holds the record of id 3\npd/store/2: no store record\n"
       "pd/store/3: holds the record of id 4\n"},
      {Regions({{1, "b", "k", {}, {peer}}, {2, "c", "d", {}, {peer}}, {3, "j", "m", {}, {peer}}}),
       "pd/region/: no region from the first key to b\n"
       "pd/region/2: overlaps region 1 from c\npd/region/3: overlaps region 1 from j\n"
       "pd/region/3: no region from m to the last key\n"},
      {Regions({{1, "", "b", {}, {peer}}, {2, "c", "", {}, {peer}}, {3, "d", "e", {}, {peer}}}),
       "pd/region/1: no region from b to c\npd/region/3: overlaps region 2 from d\n"},
      {Regions({{1, "", "", {}, {peer}}, {2, "d", "d", {}, {peer}}, {3, "f", "e", {}, {peer}}}),
       "pd/region/2: an empty range: it ends where it starts, or before\n"
       "pd/region/3: an empty range: it ends where it starts, or before\n"},
      {Regions({{1, "", "k", {}, {}}, {2, "k", "", {}, {{6, 1, {}}, {7, 1, {}}, {8, 7, {}}}}}),
       "pd/region/1: no peers\npd/region/2: peer 7 shares store 1\n"
       "pd/region/2: peer 8 is on unknown store 7\n"},
      {Stores(100001),
       "pd/store/: 100001 records, of which the server looks at 100000\n"
       "pd/id_alloc: no mark: ids from 1024 on are handed out, but 100001 is in use\n"},
      {{Put("pd/region/1", pdpb::Region{1, "", "", {}, {{1023, 2, {}}, {1024, 1, {}}}}),
        Put("pd/store/1", pdpb::Store{1, "h:1", 0}),
        Put("pd/store/2", pdpb::Store{2, "", 0}),
        Put("pd/store/3", pdpb::Store{3, "h:1", 0}),
        {lsm::kPut, "pd/id_alloc", Hex("0004000000000000")}},
       "pd/store/2: no address, but 1 replicas\npd/store/3: has the address h:1 of store 1\n"
       "pd/id_alloc: ids from 1024 on are handed out, but 1024 is in use\n"},
  };
  for (const auto& [batch, findings] : cases) {
    const TempDir dir;
    WriteDirectory(dir.path(), 1 << 30, batch);
    EXPECT_EQ(Verify(dir.path()), findings);
  }
}

TEST(StateDump, OpensSealedValuesAndFailsForOthers) {
  const TempDir dir;
  WriteFile(dir.File("p"), "secret\n");
  WriteDirectory(dir.path(), 1 << 20,
                 {{lsm::kPut, "a", "plain"},
                  {lsm::kPut, "b", SealValue(store::CryptoFor("secret"), "value")}});
  const std::string records =
      R"({"key":"a","kind":"unknown","record":"plain","error":"tde: ciphertext too short"}
{"key":"b","kind":"unknown","record":"value"}
)";
  EXPECT_EQ(RunTool({"--json", "state", "dump", dir.path(), "--passphrase-file", dir.File("p")}),
            (ToolResult{1, records, "kandb-ctl: a: tde: ciphertext too short\n"}));
}

TEST(StateRegions, ListsThoseThatAreAskedFor) {
  const pdpb::Peer voter = {9, 1, {}};
  const pdpb::Peer learner = {8, 2, pdpb::PeerRole::kLearner};
  const TempDir dir;
  WriteDirectory(dir.path(), 1 << 20,
                 Regions({{1, "", "b", {}, {voter}},
                          {2, "b", "\xff", {}, {voter, learner}},
                          {3, "\xff", "", {}, {}}}));
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{}, "1,2,3,"},
      {{"--key", ""}, "1,"},
      {{"--key", "b"}, "2,"},
      {{"--key", "hex:ff"}, "3,"},
      {{"--voters", "0"}, "3,"},
      {{"--voters", "0", "1", "--learners", "0"}, "1,3,"}};
  for (const auto& [options, ids] : cases) {
    std::vector<std::string> command = {"--json", "state", "regions", dir.path()};
    command.insert(command.end(), options.begin(), options.end());
    const std::string out = RunTool(command).out;
    EXPECT_EQ(std::regex_replace(out, std::regex("\\{\"id\":([0-9]+,).*\n"), "$1"), ids) << out;
  }
}

// At the same time: each waits for a server that may be ending.
TEST(StateCommands, RefuseADirectoryThatIsInUseOrWithoutState) {
  const TempDir used;
  const auto db = Open(used.path(), {});
  const TempDir empty;
  WriteFile(empty.File("SHA256SUMS"), "");
  std::vector<std::future<void>> commands;
  for (const char* command : {"state summary", "state dump", "state verify", "report --out=page"}) {
    commands.push_back(std::async(std::launch::async, [&, command] {
      std::istringstream words(command);
      std::vector<std::string> arguments{std::istream_iterator<std::string>(words), {}};
      arguments.push_back(used.path());
      EXPECT_EQ(
          RunTool(arguments),
          (ToolResult{3, "", "kandb-ctl: " + used.path() + " is in use by another process\n"}));
      arguments.back() = empty.path();
      const std::string no_state = " has no state: no MANIFEST, no WAL, no table\n";
      EXPECT_EQ(RunTool(arguments), (ToolResult{1, "", "kandb-ctl: " + empty.path() + no_state}));
    }));
  }
}

TEST(StateCommands, CountTheSameFindings) {
  const TempDir dir;
  WriteDirectory(dir.path(), 1 << 20, {Put("pd/region/1", pdpb::Region{1, "b", "", {}, {}})});
  WriteFile(dir.File("wal-000009.log"), "");
  const ToolResult summary = RunTool({"--json", "state", "summary", dir.path()});
  const ToolResult report = RunTool({"report", dir.path(), "--out", dir.File("page")});
  EXPECT_EQ(Verify(dir.path()),
            "pd/region/: no region from the first key to b\npd/region/1: no peers\n");
  EXPECT_TRUE(summary.out.ends_with("\"findings\":2}\n")) << summary.out;
  EXPECT_NE(summary.out.find(R"("next_file":10,"deletes":[])"), summary.out.npos) << summary.out;
  const std::string page = ReadFile(dir.File("page"));
  for (const char* text : {">Next file number</dt><dd>10</dd>", ">wal-000009.log</td>"}) {
    EXPECT_NE(page.find(text), page.npos) << text;
  }
  EXPECT_EQ(report.out, dir.File("page") + ": 2 findings\n");
  EXPECT_EQ(report.exit_status, 1);
  WriteDirectory(dir.path(), 1 << 20, {{lsm::kDelete, "pd/region/1", ""}});
  EXPECT_EQ(RunTool({"report", dir.path(), "--out", dir.File("page")}).exit_status, 0);
}

// --- Single files ---

TEST(FileCommands, ReadTheDocumentedBytes) {
  const TempDir dir;
  const std::string document = ReadFile(KANDB_FORMATS_DOCUMENT);
  const std::regex shown("\n`([^`]+)`, [0-9]+ bytes|\n    [0-9a-f]{2}  (([0-9a-f]{2} )+) ");
  std::string path;
  for (std::sregex_iterator at(document.begin(), document.end(), shown), end; at != end; ++at) {
    if ((*at)[1].matched) path = dir.File((*at)[1]);
    if ((*at)[2].matched) WriteFile(path, ReadFile(path) + Hex((*at)[2].str()));
  }
  EXPECT_EQ(RunTool({"--json", "manifest", dir.File("MANIFEST")}).out +
                RunTool({"--json", "table", dir.File("sst-000002.sst")}).out +
                RunTool({"--json", "wal", dir.File("wal-000003.log")}).out,
            R"({"offset":0,"word":"next_file","number":4}
{"offset":12,"word":"sst","number":2}
{"offset":0,"op":"put","key":"pd/bootstrapped","kind":"bootstrapped","record":"1"}
{"offset":25,"op":"delete","key":"pd/region/9"}
{"offset":0,"op":"put","key":"pd/id_alloc","kind":"id_mark","record":2025}
{"offset":0,"op":"delete","key":"pd/store/3"})"
            "\n");
}

}  // namespace
}  // namespace kandb::testing
