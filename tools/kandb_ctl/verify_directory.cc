#include "kandb_ctl/verify_directory.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "kandb_ctl/cluster_check.h"
#include "kandb_ctl/key_text.h"
#include "kandb_ctl/state_directory.h"
#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "lsm/read_view.h"
#include "lsm/sst_reader.h"
#include "lsm/wal.h"

namespace kandb::ctl {

namespace {

constexpr std::size_t kReadSize = lsm::SstReader::Iterator::kMaxReadSize;

std::string Place(const std::string& path, std::uint64_t offset) {
  return NameOf(path) + " offset " + std::to_string(offset);
}

// 0 when it is unknown: opening the file then fails with the cause.
std::uint64_t SizeOf(const std::string& path) {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(path, error);
  return error ? 0 : size;
}

// How often a fault was found in a file, and where first: a damaged filter can deny every key.
struct Tally {
  std::uint64_t count = 0;
  std::uint64_t first_offset = 0;

  void Add(std::uint64_t offset) {
    if (count++ == 0) first_offset = offset;
  }
};

// The WALs and tables that the file checks read become the view from which the records come, so
// that no WAL is read twice.
class Verification {
 public:
  Verification(const std::string& dir, const store::StoreCrypto& store_crypto,
               const std::function<void(double)>& progress)
      : directory(dir), crypto(store_crypto), report_share(progress) {}

  Verified Run() {
    if (Status s = lsm::ListFileNumbers(directory, &files); !s.ok()) {
      opens = false;
      Add(directory, s.message());
    }
    CheckManifest();
    CheckNumbers();
    for (const std::uint64_t number : files.logs) {
      total_bytes += SizeOf(lsm::LogFileName(directory, number));
    }
    for (const std::uint64_t number : live_tables) {
      total_bytes += SizeOf(lsm::TableFileName(directory, number));
    }
    verified.bytes = total_bytes + SizeOf(lsm::ManifestFileName(directory));
    verified.files += files.logs.size() + live_tables.size();
    total_bytes *= 2;  // read once as files and once as records
    for (const std::uint64_t number : live_tables) {
      CheckTable(lsm::TableFileName(directory, number));
    }
    for (const std::uint64_t number : files.logs) CheckLog(lsm::LogFileName(directory, number));
    CheckRecords();
    report_share(1);
    return std::move(verified);
  }

 private:
  void Add(std::string where, std::string text) {
    verified.findings.push_back({std::move(where), std::move(text)});
  }
  void Add(const std::string& path, const Tally& tally, const std::string& text) {
    if (tally.count == 0) return;
    const std::string more =
        tally.count > 1 ? " (and " + std::to_string(tally.count - 1) + " more)" : "";
    Add(Place(path, tally.first_offset), text + more);
  }

  void CheckManifest();
  void CheckNumbers();
  void CheckLog(const std::string& path);
  void CheckTable(const std::string& path);
  void CheckEntries(const std::string& path, const lsm::SstReader& table);
  void CheckRecords();
  void Advance(std::uint64_t bytes);

  const std::string directory;
  const store::StoreCrypto& crypto;
  const std::function<void(double)>& report_share;
  std::uint64_t total_bytes = 0;
  std::uint64_t done_bytes = 0;

  lsm::FileNumbers files;
  std::vector<std::uint64_t> live_tables;
  const std::shared_ptr<lsm::MemTable> memtable = std::make_shared<lsm::MemTable>();
  std::vector<std::shared_ptr<const lsm::SstReader>> tables;
  bool opens = true;  // the next start does not fail
  Verified verified;
};

void Verification::Advance(std::uint64_t bytes) {
  constexpr std::uint64_t kStep = std::uint64_t{1} << 20;
  const std::uint64_t before = done_bytes;
  done_bytes += bytes;
  if (before / kStep == done_bytes / kStep) return;
  report_share(std::min(1.0, static_cast<double>(done_bytes) / static_cast<double>(total_bytes)));
}

void Verification::CheckManifest() {
  const std::string path = lsm::ManifestFileName(directory);
  std::uint64_t next_file = 1;
  bool says_next_file = false;
  const auto take = [&](const lsm::ManifestRecord& record) {
    if (record.word == "next_file") {
      next_file = record.number;
      says_next_file = true;
    } else if (record.word == "sst") {
      live_tables.push_back(record.number);
    } else {
      Add(Place(path, record.offset), "unknown word \"" + KeyText(record.word) + "\"");
    }
  };
  bool exists = false;
  std::optional<std::uint64_t> damage_offset;
  if (Status s = lsm::ForEachManifestRecord(path, take, &exists, &damage_offset); !s.ok()) {
    opens = false;
    return Add(NameOf(path), s.message());
  }
  if (!exists) {
    if (!files.tables.empty()) Add(NameOf(path), "missing: the next start deletes every table");
    return;
  }
  verified.files = 1;
  if (damage_offset) Add(Place(path, *damage_offset), "no record; the rest is not read");
  if (!says_next_file) Add(NameOf(path), "no next_file");
  if (next_file > lsm::kMaxFileNumber)
    Add(NameOf(path), "next_file is out of range: the next start fails");
}

void Verification::CheckNumbers() {
  if (files.logs.empty()) Add("wal-*.log", "none: every start of a server leaves one");
  for (const std::uint64_t number : files.tables) {
    const std::string path = lsm::TableFileName(directory, number);
    const auto live = std::count(live_tables.begin(), live_tables.end(), number);
    if (live > 1) Add(NameOf(path), "named twice by the manifest");
    if (!opens) continue;  // a start that fails at the manifest deletes nothing
    std::error_code ignored;
    if (live > 0 || !std::filesystem::exists(path, ignored)) continue;
    Add(NameOf(path), "not named by the manifest: the next start deletes it");
  }
}

void Verification::CheckLog(const std::string& path) {
  std::error_code ignored;
  const auto status = std::filesystem::status(path, ignored);
  if (!std::filesystem::exists(status)) {
    return Add(NameOf(path), "missing; a file with another name for this number is never read");
  }
  if (!std::filesystem::is_regular_file(status)) return Add(NameOf(path), "no regular file");
  lsm::LogReader reader;
  bool exists = false;
  if (Status s = reader.Open(path, &exists); !s.ok()) {
    opens = false;
    return Add(NameOf(path), s.message());
  }
  std::vector<lsm::EntryView> batch;
  std::uint64_t start = 0;
  while (reader.Next(&batch)) {
    memtable->Apply(batch);
    Advance(reader.offset() - std::exchange(start, reader.offset()));
  }

  if (reader.damage().ok()) return;
  const std::uint64_t rest = SizeOf(path) - start;
  const std::string& damage = reader.damage().message();
  if (damage.starts_with("torn")) {
    // Older WALs may end so too: no start repairs a record that a crash tore.
    Add(Place(path, start), "torn record at the end: an unacknowledged write");
  } else {
    Add(Place(path, start),
        damage + "; " + std::to_string(rest) + " bytes from here on are not replayed");
  }
}

void Verification::CheckTable(const std::string& path) {
  std::shared_ptr<lsm::SstReader> table;
  std::optional<std::uint64_t> damage_offset;
  if (Status s = OpenTable(path, &table, &damage_offset); !s.ok()) {
    opens = false;
    return Add(damage_offset ? Place(path, *damage_offset) : NameOf(path), s.message());
  }
  tables.push_back(table);
  const lsm::TableFooter& footer = table->Footer();
  if (footer.index_offset + footer.index_size != footer.filter_offset ||
      footer.filter_offset + footer.filter_size + lsm::kFooterSize != SizeOf(path)) {
    Add(Place(path, SizeOf(path) - lsm::kFooterSize), "data, index, filter and footer have gaps");
  }
  CheckEntries(path, *table);
}

void Verification::CheckEntries(const std::string& path, const lsm::SstReader& table) {
  const std::vector<lsm::IndexElement>& index = table.Index();
  Tally denied;
  Tally unordered;
  Tally misplaced;
  std::string last_key;
  std::uint64_t count = 0;
  lsm::SstReader::Iterator iterator(&table, kReadSize);
  for (iterator.Seek(""); iterator.valid(); iterator.Next(), ++count) {
    const std::string_view key = iterator.entry().key;
    const std::uint64_t offset = iterator.offset();
    if (!table.MayContain(key)) denied.Add(offset);
    if (count > 0 && key <= last_key) unordered.Add(offset);
    last_key = key;
    if (count % lsm::kIndexInterval == 0) {
      const std::uint64_t place = count / lsm::kIndexInterval;
      const bool indexed =
          place < index.size() && index[place].key == key && index[place].offset == offset;
      if (!indexed) misplaced.Add(offset);
    }
    Advance(lsm::EncodedSize(iterator.entry()));
  }
  Add(path, denied, "the filter denies this key");
  Add(path, unordered, "the key is not above the one before");
  Add(path, misplaced, "the index does not point here with this key");
  if (!iterator.status().ok()) {
    return Add(Place(path, iterator.offset()), iterator.status().message());
  }

  const std::uint64_t wanted = (count + lsm::kIndexInterval - 1) / lsm::kIndexInterval;
  if (index.size() > wanted) {
    Add(Place(path, table.Footer().index_offset), "index elements that belong to no record");
  }
  if (count != table.EntryCount()) {
    Add(Place(path, SizeOf(path) - lsm::kFooterSize),
        "the footer counts " + std::to_string(table.EntryCount()) + " records, there are " +
            std::to_string(count));
  }
}

void Verification::CheckRecords() {
  if (!opens) return Add("records", "not checked, the next start fails");
  ClusterState& cluster = verified.cluster;
  const lsm::ReadView view{.memtables = {memtable}, .tables = tables};
  const auto take = [&](std::string_view key, std::string_view stored) {
    const std::string warning = AddToCluster(key, stored, crypto, &cluster);
    if (!warning.empty()) Add(KeyText(key), warning);
    ++verified.records;
    Advance(key.size() + stored.size());
    return true;
  };
  if (Status s = ForEachRecord(view, take); !s.ok()) {
    return Add("records", "not checked: " + s.message());
  }
  verified.has_records = true;
  CheckCluster(cluster, &verified.findings);
}

}  // namespace

Verified VerifyDirectory(const std::string& dir, const store::StoreCrypto& crypto,
                         const std::function<void(double)>& progress) {
  return Verification(dir, crypto, progress).Run();
}

}  // namespace kandb::ctl
