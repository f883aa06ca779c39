// Background work: flushing full memtables into tables, and merging all tables into one. File work
// is done without the engine's lock; that is taken to reserve a file number and to install the
// result.

#include <algorithm>
#include <cerrno>
#include <new>

#include "common/check.h"
#include "lsm/file_names.h"
#include "lsm/lsm_db.h"
#include "lsm/manifest.h"
#include "lsm/merging_iterator.h"
#include "lsm/table_writer.h"

namespace kandb::lsm {

namespace {

// Of each table that is merged: the disk may have to seek from one to the other.
constexpr std::size_t kMergeReadSize = 262144;  // bytes

}  // namespace

bool LsmDb::TooManyTables() const { return table_readers.size() > options.max_table_files; }

Status LsmDb::SaveManifest() {
  KANDB_CHECK(live_tables.size() == table_readers.size(),
              live_tables.size() << " numbers, " << table_readers.size() << " tables");
  return WriteManifest(directory, {.next_file = next_file, .sst_files = live_tables});
}

void LsmDb::BackgroundLoop() {
  for (;;) {
    bool flush = false;
    {
      MutexLock lock(&db_mutex);
      while (!stopping && immutable_memtables.empty() && !TooManyTables()) {
        background_cv.Wait(&db_mutex);
      }
      if (stopping) return;
      flush = !immutable_memtables.empty();
    }
    // A failure is dropped on purpose: the work is still there and is tried again at once, until it
    // succeeds or the engine stops. Nothing is lost meanwhile, the logs hold it.
    try {
      (void)(flush ? FlushOldestMemTable() : CompactAllTables());
    } catch (const std::bad_alloc&) {
      // A failure like others: memory may be there the next time.
    }
  }
}

// The order makes a crash harmless at every step: the table is in place and durable before the
// manifest names it, and the logs go only after that. What a crash leaves is a table that nobody
// names, or logs whose contents are replayed though a table holds them too.
Status LsmDb::FlushOldestMemTable() {
  std::shared_ptr<const MemTable> oldest;
  std::uint64_t number = 0;
  {
    MutexLock lock(&db_mutex);
    if (immutable_memtables.empty()) return {};
    oldest = immutable_memtables.front();
    number = next_file++;
  }

  TableBuilder builder(oldest->ApproximateBytes());
  oldest->ForEach([&](const EntryView& entry) { builder.Add(entry); });
  const std::string path = TableFileName(directory, number);
  if (Status s = WriteTable(path, builder); !s.ok()) return s;
  std::shared_ptr<SstReader> reader;
  if (Status s = SstReader::Open(path, &reader); !s.ok()) return s;

  {
    MutexLock lock(&db_mutex);
    table_readers.reserve(table_readers.size() + 1);
    live_tables.reserve(live_tables.size() + 1);  // both lists grow or, without memory, neither
    table_readers.insert(table_readers.begin(), std::move(reader));
    live_tables.insert(live_tables.begin(), number);
    PublishView();
    // On failure the table stays, and the memtable stays queued and is flushed again into another
    // one.
    if (Status s = SaveManifest(); !s.ok()) return s;
    obsolete_logs.insert(obsolete_logs.end(), oldest->wal_files.begin(), oldest->wal_files.end());
    immutable_memtables.pop_front();
    PublishView();
  }
  DeleteObsoleteLogs();
  return {};
}

// Strictly from the oldest on: the next Open replays what is left over the tables. If an old log
// outlived a newer one, its values would hide those that the tables have from the newer one. So a
// log that cannot be deleted keeps the later ones too; the next flush tries again.
void LsmDb::DeleteObsoleteLogs() {
  while (!obsolete_logs.empty()) {
    if (file_calls.unlink(obsolete_logs.front().c_str()) != 0 && errno != ENOENT) return;
    obsolete_logs.pop_front();
  }
}

Status LsmDb::CompactAllTables() {
  std::vector<std::shared_ptr<SstReader>> merged_readers;
  std::vector<std::uint64_t> merged_numbers;
  std::uint64_t number = 0;
  {
    MutexLock lock(&db_mutex);
    merged_readers = table_readers;
    merged_numbers = live_tables;
    number = next_file++;
  }
  if (merged_readers.size() < 2) return {};

  std::vector<std::unique_ptr<EntrySource>> sources;
  sources.reserve(merged_readers.size());
  std::size_t data_size = 0;  // the output has no more
  for (const auto& reader : merged_readers) {
    data_size += reader->DataSize();
    sources.push_back(std::make_unique<SstReader::Iterator>(reader.get(), kMergeReadSize));
  }
  MergingIterator merged(std::move(sources), "");
  TableBuilder builder(data_size);
  for (merged.Seek(""); merged.valid(); merged.Next()) {
    // Deletions end here: the merge covers every table, and memtables are newer than all of them.
    if (merged.entry().op == kPut) builder.Add(merged.entry());
  }
  if (!merged.status().ok()) return merged.status();

  const std::string path = TableFileName(directory, number);
  if (Status s = WriteTable(path, builder); !s.ok()) return s;
  std::shared_ptr<SstReader> reader;
  if (Status s = SstReader::Open(path, &reader); !s.ok()) return s;

  {
    MutexLock lock(&db_mutex);
    // The merged tables are the oldest ones and end the list; the new table takes their place.
    const std::size_t count = merged_numbers.size();
    KANDB_CHECK(live_tables.size() >= count &&
                    std::equal(merged_numbers.begin(), merged_numbers.end(),
                               live_tables.end() - static_cast<std::ptrdiff_t>(count)),
                count << " tables were merged, " << live_tables.size() << " are live");
    live_tables.resize(live_tables.size() - count);
    table_readers.resize(table_readers.size() - count);
    live_tables.push_back(number);
    table_readers.push_back(std::move(reader));
    PublishView();
    // On failure the old files stay, unnamed, until the next Open deletes them.
    if (Status s = SaveManifest(); !s.ok()) return s;
  }
  for (const std::uint64_t merged_number : merged_numbers) {
    (void)file_calls.unlink(TableFileName(directory, merged_number).c_str());
  }
  return {};
}

}  // namespace kandb::lsm
