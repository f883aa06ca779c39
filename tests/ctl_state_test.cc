// The offline commands of kandb-ctl, run as a process: on directories that were damaged after the
// engine wrote them, and on the files that the document of the formats shows as bytes.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "lsm/lsm_db.h"
#include "lsm/table_format.h"
#include "pdpb/messages.h"
#include "store/value_envelope.h"
#include "support/hex.h"
#include "support/run_tool.h"
#include "support/temp_dir.h"

namespace kandb::testing {
namespace {

lsm::Entry Put(const char* key, const auto& record) {
  return {lsm::kPut, key, pdpb::Encode(record)};
}

// The batch stands in a log; with a small buffer in a table.
void Write(const std::string& dir, std::uint64_t buffer, const std::vector<lsm::Entry>& batch) {
  std::unique_ptr<lsm::LsmDb> db;
  ASSERT_TRUE(lsm::LsmDb::Open(dir, {buffer, 8, false}, &db).ok());
  ASSERT_TRUE(db->Write(batch).ok());
  db->WaitForBackgroundIdle();
}

// A sound cluster: a table of 23 entries, and a log with the mark of the identifiers.
void WriteCluster(const std::string& dir) {
  std::vector<lsm::Entry> batch = {
      Put("pd/store/1", pdpb::Store{1, "h:1", 0}),
      Put("pd/region/10", pdpb::Region{10, "", "m", {}, {{11, 1, {}}}}),
      Put("pd/region/20", pdpb::Region{20, "m", "", {}, {{21, 1, {}}}})};
  for (char c = 'a'; c < 'u'; ++c) batch.push_back({lsm::kDelete, std::string("zz") + c, ""});
  Write(dir, 1, batch);
  Write(dir, 1 << 20, {{lsm::kPut, "pd/id_alloc", Hex("e907000000000000")}});
}

// Every file with its time of change.
std::string ReadAll(const std::string& dir) {
  std::string all;
  for (const auto& file : std::filesystem::directory_iterator(dir)) {
    all += file.path().string() + ReadFile(file.path());
    all += std::to_string(file.last_write_time().time_since_epoch().count());
  }
  return all;
}

TEST(StateVerify, NamesTheDamageAndChangesNothing) {
  std::string miscounting;
  lsm::AppendFooter({556, 39, 595, 34, 24}, &miscounting);
  // Where a file is overwritten, with what, and part of what is then found.
  const std::tuple<const char*, std::size_t, std::string, const char*> cases[] = {
      {"wal-000004.log", 40, "", ""},
      {"wal-000004.log", 40, "1", "offset 40: torn record at the end: an unacknowledged write"},
      {"wal-000004.log", 20, "!", "offset 0: record crc mismatch; 40 bytes from here on are not"},
      {"sst-000003.sst", 0, "\5", "offset 0: sst bad record op\nrecords: not checked"},
      {"sst-000003.sst", 5, "~", "offset 0: the filter denies this key\n"},
      {"sst-000003.sst", 5, "~", "offset 130: the key is not above the one before\n"},
      {"sst-000003.sst", 556, "~", "offset 556: sst index truncated\nrecords: not checked"},
      {"sst-000003.sst", 587, "~", "offset 472: the index does not point here with this key\n"},
      {"sst-000003.sst", 629, miscounting, "the footer counts 24 records, there are 23\n"},
      {"MANIFEST", 12, "xst 3\ny", "unknown word \"xst\"\nMANIFEST offset 18: no record"}};
  for (const auto& [file, offset, bytes, finding] : cases) {
    const TempDir dir;
    WriteCluster(dir.path());
    WriteFile(dir.File(file), ReadFile(dir.File(file)).replace(offset, bytes.size(), bytes));
    const std::string before = ReadAll(dir.path());
    EXPECT_GE(RunTool({"state", "summary", dir.path()}).exit_status, 0);
    EXPECT_GE(RunTool({"state", "dump", dir.path()}).exit_status, 0);
    const ToolResult result = RunTool({"state", "verify", dir.path()});
    EXPECT_NE(result.out.find(finding), std::string::npos) << finding << result.out;
    EXPECT_EQ(result.exit_status, bytes.empty() ? 0 : 1) << result.out;
    EXPECT_EQ(ReadAll(dir.path()), before);
  }
}

TEST(StateVerify, ComparesTheRecords) {
  const TempDir dir;
  WriteCluster(dir.path());
  Write(dir.path(), 1 << 20,
        {{lsm::kPut, "pd/id_alloc", "123"},
         {lsm::kPut, "pd/region/9", "x"},
         Put("pd/region/10", pdpb::Region{10, "b", "k", {}, {{11, 1, {}}, {12, 1, {}}}}),
         Put("pd/region/30", pdpb::Region{31, "c", "d", {}, {{32, 7, {}}}})});
  EXPECT_EQ(RunTool({"state", "verify", dir.path()}).out,
            "pd/id_alloc: 3 bytes, not 8: the next start hands out identifiers from 0 on\n"
            "pd/region/30: holds the record of id 31\npd/region/9: no region record\n"
            "pd/region/: no region from the first key to b\n"
            "pd/region/31: overlaps region 10 from c\npd/region/10: no region from k to m\n"
            "pd/region/10: peer 12 shares store 1\npd/region/31: peer 32 is on unknown store 7\n");
}

TEST(StateDump, OpensSealedValues) {
  const TempDir dir;
  WriteFile(dir.File("p"), "secret\n");
  Write(dir.path(), 1 << 20, {{lsm::kPut, "k", SealValue(store::CryptoFor("secret"), "value")}});
  EXPECT_EQ(
      RunTool({"--json", "state", "dump", dir.path(), "--passphrase-file", dir.File("p")}).out,
      "{\"key\":\"k\",\"kind\":\"unknown\",\"record\":\"value\"}\n");
}

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
