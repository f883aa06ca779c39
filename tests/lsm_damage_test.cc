// Torn and flipped files: what an engine makes of a directory in which one file is damaged
// anywhere.

#include <gtest/gtest.h>

#include <filesystem>
#include <initializer_list>

#include "lsm/manifest.h"
#include "lsm/table_format.h"
#include "lsm/table_writer.h"
#include "lsm/wal.h"
#include "support/engine.h"
#include "support/fault.h"
#include "support/temp_dir.h"

namespace kandb::lsm {
namespace {

using namespace testing;

using Directory = std::map<std::string, std::string>;  // bytes by file name

constexpr LsmDb::Options kQuiet = {
    .write_buffer_size = 1 << 20, .max_table_files = 100, .sync = false};

const std::vector<Batch> log_batches[] = {
    {{{kPut, "a", "3"}, {kDelete, "kB", ""}}, {{kPut, "b", "3"}}, {{kPut, "a", "4"}}},
    {{{kPut, "b", "5"}}, {{kPut, "kB", "6"}, {kDelete, "a", ""}}, {{kPut, "c", "7"}}}};
const std::string log_names[] = {"wal-000003.log", "wal-000004.log"};
const std::string table_names[] = {"sst-000001.sst", "sst-000002.sst"};

class Damage : public ::testing::Test {
 protected:
  // Two tables that overlap, the newer one with a deletion, and two logs.
  Damage() {
    for (int t = 0; t < 2; ++t) {
      TableBuilder table;
      for (char i = 0; i < 17; ++i) {
        Entry entry = {kPut, {'k', static_cast<char>('A' + i)}, std::to_string(t)};
        if (t == 1 && i == 5) entry = {kDelete, entry.key, ""};
        table.Add(entry);
        Apply({entry}, &tables);
      }
      EXPECT_TRUE(WriteTable(dir.File(table_names[t]), table).ok());
      sound[table_names[t]] = ReadFile(dir.File(table_names[t]));
      for (const Batch& batch : log_batches[t]) sound[log_names[t]] += BuildLogRecord(batch);
    }
    sound["MANIFEST"] = "next_file 5\nsst 2\nsst 1\n";
  }

  // Opens a directory like the sound one but for the bytes of one file, and reads everything.
  void OpenDamaged(const std::string& name, const std::string& bytes) {
    std::filesystem::remove_all(dir.path());
    std::filesystem::create_directory(dir.path());
    for (const auto& [sound_name, sound_bytes] : sound) {
      testing::WriteFile(dir.File(sound_name), sound_name == name ? bytes : sound_bytes);
    }
    found.clear();
    read_error = "";
    std::unique_ptr<LsmDb> db;
    const Status opened = LsmDb::Open(dir.path(), kQuiet, &db);
    open_error = opened.ok() ? "" : opened.ToString();
    if (!opened.ok()) return;
    std::vector<Entry> entries;
    if (Status s = db->Scan("", "", 1000, &entries); !s.ok()) read_error = s.ToString();
    for (const Entry& entry : entries) found[entry.key] = entry.value;
    for (const auto& [key, value] : tables) {
      std::string got;
      bool exists = false;
      if (Status s = db->Get(key, &got, &exists); !s.ok()) read_error = s.ToString();
    }
  }

  // Hands each place and the file's bytes with one bit flipped there to `check`.
  template <class Check>
  void FlipEachByte(const std::string& name, Check check) {
    std::string bytes = sound[name];
    for (std::size_t i = 0; i < bytes.size() && !HasFailure(); ++i) {
      SCOPED_TRACE(name + " at " + std::to_string(i));
      const char sound_byte = bytes[i];
      bytes[i] = static_cast<char>(sound_byte ^ (1 << (i % 8)));
      OpenDamaged(name, bytes);
      check(i);
      bytes[i] = sound_byte;
    }
  }

  // What the tables and both logs hold when one of these ends in front of byte `end`.
  Model UpTo(int damaged_log, std::size_t end) const {
    Model model = tables;
    for (int log = 0; log < 2; ++log) {
      std::size_t offset = 0;
      for (const Batch& batch : log_batches[log]) {
        offset += BuildLogRecord(batch).size();
        if (log == damaged_log && offset > end) break;
        Apply(batch, &model);
      }
    }
    return model;
  }

  const testing::FileCallFilter without_syncs;
  TempDir dir;
  Directory sound;
  Model tables;
  Model found;
  std::string open_error;
  std::string read_error;
};

bool IsOneOf(const std::string& text, std::initializer_list<const char*> beginnings) {
  return std::any_of(beginnings.begin(), beginnings.end(),
                     [&](const char* beginning) { return text.starts_with(beginning); });
}

TEST_F(Damage, OfALogEndsThatLogOnly) {
  for (int log = 0; log < 2; ++log) {
    const std::string& name = log_names[log];
    for (std::size_t size = 0; size <= sound[name].size(); ++size) {
      SCOPED_TRACE(name + " cut to " + std::to_string(size));
      OpenDamaged(name, sound[name].substr(0, size));
      EXPECT_EQ(open_error + read_error, "");
      EXPECT_EQ(found, UpTo(log, size));
    }
    FlipEachByte(name, [&](std::size_t place) {
      EXPECT_EQ(open_error + read_error, "");
      EXPECT_EQ(found, UpTo(log, place));
    });
  }
}

TEST_F(Damage, OfATableIsNamedOrHarmless) {
  for (const std::string& name : table_names) {
    const std::size_t size = sound[name].size();
    TableFooter footer;
    ASSERT_TRUE(
        DecodeFooter(std::string_view(sound[name]).substr(size - kFooterSize), &footer).ok());
    FlipEachByte(name, [&](std::size_t place) {
      if (place >= size - 8) {
        EXPECT_EQ(open_error, "Corruption: sst bad magic");
      } else if (place >= size - kFooterSize) {
        EXPECT_EQ(open_error, "Corruption: sst footer crc mismatch");
      } else if (place >= footer.filter_offset) {
        EXPECT_EQ(open_error + read_error, "");
        EXPECT_EQ(found, UpTo(-1, 0));  // no more than a Get can miss
      } else if (place >= footer.index_offset) {
        EXPECT_TRUE(open_error.empty() || open_error == "Corruption: sst index truncated");
      } else {
        EXPECT_EQ(open_error, "");
      }
      EXPECT_TRUE(read_error.empty() || IsOneOf(read_error, {"Corruption: sst bad record op",
                                                             "Corruption: sst record truncated",
                                                             "Corruption: sst: unexpected EOF"}))
          << read_error;
    });
  }
}

TEST_F(Damage, OfTheManifestIsSurvived) {
  const auto check = [&](std::size_t) {
    EXPECT_TRUE(open_error.empty() || IsOneOf(open_error, {"Corruption: sst open ",
                                                           "Corruption: file number out of range"}))
        << open_error;
    EXPECT_EQ(read_error, "");
    EXPECT_TRUE(!open_error.empty() || found["c"] == "7");  // the logs are always read
  };
  FlipEachByte("MANIFEST", check);
  for (std::size_t size = 0; size < sound["MANIFEST"].size(); ++size) {
    OpenDamaged("MANIFEST", sound["MANIFEST"].substr(0, size));
    check(size);
  }
}

}  // namespace
}  // namespace kandb::lsm
