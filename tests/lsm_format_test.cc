// The engine's files against bytes written by hand: batches, WALs, tables, manifests.

#include <gtest/gtest.h>

#include <array>
#include <tuple>

#include "crypto/crc32c.h"
#include "lsm/manifest.h"
#include "lsm/sst_reader.h"
#include "lsm/wal.h"
#include "lsm/write_batch.h"
#include "support/hex.h"
#include "support/temp_dir.h"

namespace kandb::lsm {
namespace {

using namespace testing;

// put "k" = "vw", delete "x"
constexpr char kBatchBytes[] = "02000000  01 01000000 6b 02000000 7677  02 01000000 78 00000000";

// The WAL record of any payload.
std::string LogRecord(const std::string& payload) {
  std::string record;
  AppendU32(crypto::Crc32c(payload), &record);
  AppendU32(static_cast<std::uint32_t>(payload.size()), &record);
  return record + payload;
}

TEST(Batch, NamesTheDamage) {
  const std::tuple<const char*, std::size_t, const char*> cases[] = {
      {kBatchBytes, 2, "OK"},
      {"00000000 ff", 0, "OK"},
      {"01000000 02 00000000 00000000 01", 1, "OK"},  // bytes after the last entry
      {"010000", 0, "Corruption: batch: too short"},
      {"ffffffff", 0, "Corruption: batch: truncated entry"},
      {"01000000 03000000", 0, "Corruption: batch: truncated entry"},
      {"01000000 00 00000000 00000000", 0, "Corruption: batch: bad op"},
      {"01000000 03 00000000", 0, "Corruption: batch: bad op"},
      {"01000000 01 01000000 6b 000000", 0, "Corruption: batch: truncated key"},
      {"01000000 01 ffffffff 6b6b6b6b", 0, "Corruption: batch: truncated key"},  // length wraps
      {"01000000 01 01000000 6b 02000000 76", 0, "Corruption: batch: truncated value"},
  };
  for (const auto& [bytes, entry_count, status] : cases) {
    std::vector<EntryView> entries;
    EXPECT_EQ(DecodeBatch(Hex(bytes), &entries).ToString(), status) << bytes;
    EXPECT_EQ(entries.size(), entry_count) << bytes;
  }
}

TEST(Wal, IsWrittenAndReplayed) {
  TempDir dir;
  Log log;
  ASSERT_TRUE(OpenLogForAppend(dir.File("log"), &log).ok());
  ASSERT_TRUE(log.Append(BuildLogRecord({{kPut, "k", "vw"}, {kDelete, "x", ""}})).ok());
  ASSERT_TRUE(log.Sync().ok());
  EXPECT_EQ(ReadFile(dir.File("log")), LogRecord(Hex(kBatchBytes)));

  std::string replayed;
  const auto collect = [&](const std::vector<EntryView>& batch) {
    for (const EntryView& entry : batch) AppendEntry(entry, &replayed);
  };
  EXPECT_TRUE(ReplayLog(dir.File("missing"), collect).ok());
  EXPECT_EQ(replayed, "");
  EXPECT_TRUE(ReplayLog(dir.File("log"), collect).ok());
  EXPECT_EQ(replayed, Hex(kBatchBytes).substr(4));
}

std::string With(std::string bytes, std::size_t offset, char byte) {
  bytes[offset] = byte;
  return bytes;
}

TEST(Wal, ReplaysUpToTheDamage) {
  const std::string good = LogRecord(Hex(kBatchBytes));
  // Larger than the reader's buffer, so that it grows and records straddle its pieces.
  const std::string large = BuildLogRecord({{kPut, "large", std::string(3 << 20, 'l')}});
  std::vector<std::tuple<std::string, std::string, std::size_t>> cases = {
      {"whole", good + large + good + LogRecord(Hex("00000000")), 4},
      {"last byte missing", good + large + good.substr(0, good.size() - 1), 2},
      {"record too long", good + Hex("00000000 01000004") + good, 1},
      {"longest record cut", good + Hex("00000000 00000004") + good, 1},
      {"empty payload", good + LogRecord("") + good, 1},
      {"undecodable payload", good + LogRecord(Hex("01000000 07")) + good, 1},
  };
  const std::string log = good + good + good;
  for (std::size_t i = 0; i < log.size(); ++i) {
    const std::string place = std::to_string(i);
    cases.emplace_back("cut at " + place, log.substr(0, i), i / good.size());
    const auto flipped = static_cast<char>(log[i] ^ (1 << (i % 8)));
    cases.emplace_back("flipped at " + place, With(log, i, flipped), i / good.size());
  }
  TempDir dir;
  for (const auto& [name, bytes, batches] : cases) {
    WriteFile(dir.File("log"), bytes);
    std::size_t replayed = 0;
    EXPECT_TRUE(ReplayLog(dir.File("log"), [&](const auto&) { ++replayed; }).ok());
    EXPECT_EQ(replayed, batches) << name;
  }
}

// index_offset, index_size, filter_offset, filter_size, entry_count
std::string Footer(const std::array<std::uint64_t, 5>& fields) {
  std::string footer;
  for (const std::uint64_t field : fields) AppendU64(field, &footer);
  AppendU32(crypto::Crc32c(footer), &footer);
  return footer + Hex("3737 2746 e616 b606");
}

TEST(Table, DamageIsNamed) {
  const std::string record = Hex("01 01000000 6b 01000000 76");  // put "k" = "v", 11 bytes
  const std::string empty = Footer({});
  const std::uint64_t far = std::uint64_t{0xff} << 56;
  const std::tuple<const char*, std::string, std::string, std::string> cases[] = {
      {"empty table", empty, "OK", "OK"},
      {"51 bytes", empty.substr(1), "Corruption: sst too small: ", ""},
      {"magic", With(empty, 51, 7), "Corruption: sst bad magic", ""},
      {"footer bit", With(empty, 0, 1), "Corruption: sst footer crc mismatch", ""},
      {"index outside", Footer({0, far, 0, 0, 0}), "Corruption: sst: unexpected EOF", ""},
      {"index wraps", Footer({far, far, 0, 0, 0}), "Corruption: sst: unexpected EOF", ""},
      {"filter outside", Footer({0, 0, far, 1, 0}), "Corruption: sst: unexpected EOF", ""},
      {"torn index", record + Footer({0, 11, 0, 0, 0}), "Corruption: sst index truncated", ""},
      {"no index, no filter", record + Footer({11, 0, 0, 0, 1}), "OK", "OK"},
      {"op 3", With(record, 0, 3) + Footer({11, 0, 0, 0, 1}), "OK",
       "Corruption: sst bad record op"},
      {"record longer than the data", record + Footer({10, 0, 0, 0, 1}), "OK",
       "Corruption: sst record truncated"},
      {"data outside", Hex("01 00ffffff") + Footer({far, 0, 0, 0, 1}), "OK",
       "Corruption: sst: unexpected EOF"},
  };
  TempDir dir;
  for (const auto& [name, bytes, open_status, scan_status] : cases) {
    SCOPED_TRACE(name);
    WriteFile(dir.File("t"), bytes);
    std::shared_ptr<SstReader> reader;
    const std::string status = SstReader::Open(dir.File("t"), &reader).ToString();
    EXPECT_TRUE(status.starts_with(open_status)) << status;
    if (scan_status.empty()) continue;
    SstReader::Iterator iterator(reader.get(), 64);
    for (iterator.Seek(""); iterator.valid();) iterator.Next();
    EXPECT_EQ(iterator.status().ToString(), scan_status);
  }
}

TEST(Manifest, IsTextThatToleratesStrangers) {
  using Numbers = std::vector<std::uint64_t>;
  const std::tuple<const char*, std::uint64_t, Numbers> cases[] = {
      {"next_file 12\nsst 9\nsst 3\n", 12, {9, 3}},
      {"", 77, {}},
      {"next_file 5\nsst 1\nfoo 7\nsst 2\nnext_file 6\n", 6, {1, 2}},
      {"sst 1\nsst x\nsst 2\n", 77, {1}},
      {"sst 1\nsst", 77, {1}},
      {"\v sst +7sst\t-1 next_file\n\n9next_file 8x", 8, {7, 0xffffffffffffffff}},
      {"sst 99999999999999999999 sst -99999999999999999999", 77, {~0ull, ~0ull}},
      {"a-word-of-thirty-one-bytes-and-5 sst 4", 77, {4}},
      {"sst 1 sst - 2", 77, {1}}};
  TempDir dir;
  for (const auto& [text, next_file, tables] : cases) {
    WriteFile(dir.File("MANIFEST"), text);
    ManifestState state{.next_file = 77, .sst_files = {8}};
    bool exists = false;
    ASSERT_TRUE(ReadManifest(dir.path(), &state, &exists).ok());
    EXPECT_TRUE(exists);
    EXPECT_EQ(state.next_file, next_file) << text;
    EXPECT_EQ(state.sst_files, tables) << text;
  }

  ASSERT_TRUE(WriteManifest(dir.path(), {.next_file = 12, .sst_files = {9, 3}}).ok());
  EXPECT_EQ(ReadFile(dir.File("MANIFEST")), std::get<0>(cases[0]));
}

}  // namespace
}  // namespace kandb::lsm
