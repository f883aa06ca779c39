#include "lsm/lsm_db.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "common/check.h"
#include "common/posix_file.h"
#include "lsm/compaction.h"
#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "lsm/recovery.h"
#include "lsm/write_batch.h"

namespace kandb::lsm {

namespace {

Status EnsureDirectory(const std::string& dir) {
  struct stat info {};
  if (file_calls.stat(dir.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return {};
    return Status::InvalidArgument(dir + " exists and is not a directory");
  }
  if (file_calls.mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
    const int error = errno;
    return Status::Corruption("mkdir " + dir + ": " + ErrnoText(error));
  }
  return {};
}

}  // namespace

// --- Opening and closing ---

Status LsmDb::Open(const std::string& dir, const Options& options, std::unique_ptr<LsmDb>* out) {
  if (Status s = EnsureDirectory(dir); !s.ok()) return s;
  // Before anything in the directory is looked at: another process may be about to change it.
  DirectoryLock lock;
  if (Status s = LockDirectory(dir, &lock); !s.ok()) return s;
  auto db = std::make_unique<LsmDb>(Private(), dir, options, std::move(lock));
  if (Status s = db->Start(); !s.ok()) return s;
  db->background = std::thread([engine = db.get()] { engine->BackgroundLoop(); });
  *out = std::move(db);
  return {};
}

LsmDb::LsmDb(Private, const std::string& dir, const Options& engine_options, DirectoryLock lock)
    : directory_lock(std::move(lock)), directory(dir), options(engine_options) {}

LsmDb::~LsmDb() {
  {
    MutexLock lock(&db_mutex);
    stopping = true;
  }
  background_cv.NotifyAll();
  if (background.joinable()) background.join();
}

Status LsmDb::Start() {
  RecoveredState state;
  if (Status s = Recover(directory, &state); !s.ok()) return s;
  MutexLock lock(&db_mutex);
  live_tables = std::move(state.live_tables);
  table_readers = std::move(state.table_readers);
  active = std::move(state.memtable);
  next_file = state.next_file;
  if (Status s = StartWal(); !s.ok()) return s;
  PublishView();
  return SaveManifest();
}

// --- Writing ---
//
// Memory may run out anywhere here. What a group needs is allocated before its first record is
// written, so that a failure leaves the WAL and the memtable as they were.

Status LsmDb::Write(const std::vector<Entry>& batch) {
  if (BatchSize(batch) > kMaxLogPayloadSize) return Status::InvalidArgument("batch: too large");
  // Encoded here, by each writer for itself, to keep the leader's time under the lock short.
  return write_queue.Submit({.batch = &batch, .record = BuildLogRecord(batch)});
}

Status LsmDb::CommitGroup(WriteGroup group) {
  MutexLock lock(&db_mutex);
  std::size_t entry_count = 0;
  std::size_t size = 0;
  for (const WriterSlot* slot : group) {
    entry_count += slot->batch->size();
    size += slot->record.size();
  }
  active->Reserve(entry_count, size);
  if (Status s = LogGroup(group); !s.ok()) return s;
  // Apply after the sync: a value that was read must still be there after a crash.
  active->ApplyGroup(
      group, [](const WriterSlot* slot) -> const auto& { return *slot->batch; });
  if (active->ApproximateBytes() >= options.write_buffer_size) return SwitchMemTable();
  return {};
}

Status LsmDb::LogGroup(WriteGroup group) {
  const std::uint64_t group_start = log.size();
  Status status;
  try {
    for (const WriterSlot* slot : group) {
      status = log.Append(slot->record);
      if (!status.ok()) break;
    }
    if (status.ok() && options.sync) status = log.Sync();
  } catch (const std::bad_alloc&) {
    status = OutOfMemory();  // for the text of a failure
  }
  if (!status.ok()) log.CutBack(group_start, status);
  return status;
}

Status LsmDb::SwitchMemTable() {
  auto next = std::make_shared<MemTable>();
  auto next_view = std::make_shared<ReadView>(*CaptureView());
  next_view->memtables.insert(next_view->memtables.begin(), next);
  immutable_memtables.push_back(active);
  // Nothing between these two may fail: readers must see the memtable that writers write to.
  active = std::move(next);
  InstallView(std::move(next_view));
  // When this fails, later writes go to the new memtable, but still to the old WAL. That WAL is
  // deleted once the old memtable is flushed: the one case in which an acknowledged write can be
  // lost.
  if (Status s = StartWal(); !s.ok()) return s;
  background_cv.NotifyOne();
  return {};
}

Status LsmDb::StartWal() {
  std::string path = LogFileName(directory, next_file++);
  // Reserve first: a WAL in use must be in the list, or it would never be deleted.
  active->wal_files.reserve(active->wal_files.size() + 1);
  if (Status s = OpenLogForAppend(path, &log); !s.ok()) return s;
  active->wal_files.push_back(std::move(path));
  return {};
}

// --- Reading ---

std::shared_ptr<const ReadView> LsmDb::CaptureView() const {
  MutexLock lock(&view_mutex);
  return view;
}

void LsmDb::InstallView(std::shared_ptr<const ReadView> next) {
  MutexLock lock(&view_mutex);
  view.swap(next);  // the old one is destroyed after the lock
}

void LsmDb::PublishView() {
  auto next = std::make_shared<ReadView>();
  next->memtables.push_back(active);
  next->memtables.insert(next->memtables.end(), immutable_memtables.rbegin(),
                         immutable_memtables.rend());
  next->tables.assign(table_readers.begin(), table_readers.end());
  InstallView(std::move(next));
}

Status LsmDb::Get(std::string_view key, std::string* value, bool* found) const {
  return GetLive(*CaptureView(), key, value, found);
}

Status LsmDb::ForEach(std::string_view start, std::string_view end, std::uint32_t limit,
                      const PairVisitor& visit, bool* of_one_moment) const {
  return ForEachLive(*CaptureView(), start, end, limit, visit, of_one_moment);
}

Status LsmDb::Scan(std::string_view start, std::string_view end, std::uint32_t limit,
                   std::vector<Entry>* out) const {
  out->clear();
  return ForEach(start, end, limit, [out](std::string_view key, std::string_view value) {
    out->push_back({kPut, std::string(key), std::string(value)});
    return true;
  });
}

// --- Background ---

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
    // A failure is dropped on purpose: the work remains and is tried again at once, until it
    // succeeds or the engine stops. Nothing is lost meanwhile: the WALs have all of it.
    try {
      (void)(flush ? FlushOldestMemTable() : CompactAllTables());
    } catch (const std::bad_alloc&) {
      // A failure like others: the next attempt may find memory.
    }
  }
}

// The order makes a crash harmless at every step: the table is durable and has its name before the
// manifest names it, and the WALs are deleted only after that. A crash leaves a table that is not
// in the manifest, or WALs that are replayed although a table has their contents too.
Status LsmDb::FlushOldestMemTable() {
  std::shared_ptr<const MemTable> oldest;
  std::uint64_t number = 0;
  {
    MutexLock lock(&db_mutex);
    if (immutable_memtables.empty()) return {};
    oldest = immutable_memtables.front();
    number = next_file++;
  }

  std::shared_ptr<SstReader> reader;
  if (Status s = FlushToTable(*oldest, TableFileName(directory, number), &reader); !s.ok()) {
    return s;
  }

  {
    MutexLock lock(&db_mutex);
    table_readers.reserve(table_readers.size() + 1);
    live_tables.reserve(live_tables.size() + 1);  // both lists grow or, without memory, neither
    table_readers.insert(table_readers.begin(), std::move(reader));
    live_tables.insert(live_tables.begin(), number);
    PublishView();
    // On failure the table stays, and the memtable stays queued and is flushed again to another.
    if (Status s = SaveManifest(); !s.ok()) return s;
    obsolete_wals.insert(obsolete_wals.end(), oldest->wal_files.begin(), oldest->wal_files.end());
    immutable_memtables.pop_front();
    PublishView();
  }
  DeleteObsoleteWals();
  return {};
}

// Strictly from the oldest on: the next Open replays the remaining WALs, and they hide the tables.
// If an old WAL outlived a newer one, its values would hide newer ones that are only in tables. So
// a WAL that cannot be deleted keeps the later ones too; the next flush tries again.
void LsmDb::DeleteObsoleteWals() {
  while (!obsolete_wals.empty()) {
    if (file_calls.unlink(obsolete_wals.front().c_str()) != 0 && errno != ENOENT) return;
    obsolete_wals.pop_front();
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

  std::shared_ptr<SstReader> reader;
  if (Status s = MergeTables(merged_readers, TableFileName(directory, number), &reader); !s.ok()) {
    return s;
  }

  {
    MutexLock lock(&db_mutex);
    // The merged tables are the oldest, at the end of the list; the new table replaces them.
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
    // On failure the old files stay, as orphans, until the next Open deletes them.
    if (Status s = SaveManifest(); !s.ok()) return s;
  }
  for (const std::uint64_t merged_number : merged_numbers) {
    (void)file_calls.unlink(TableFileName(directory, merged_number).c_str());
  }
  return {};
}

bool LsmDb::TooManyTables() const { return table_readers.size() > options.max_table_files; }

Status LsmDb::SaveManifest() {
  KANDB_CHECK(live_tables.size() == table_readers.size(),
              live_tables.size() << " numbers, " << table_readers.size() << " tables");
  return WriteManifest(directory, {.next_file = next_file, .sst_files = live_tables});
}

void LsmDb::WaitForBackgroundIdle() {
  for (;;) {
    {
      MutexLock lock(&db_mutex);
      if (immutable_memtables.empty() && !TooManyTables()) return;
    }
    background_cv.NotifyOne();
    timespec pause{.tv_sec = 0, .tv_nsec = 1000000};
    while (::nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
  }
}

std::uint64_t LsmDb::TableFileCount() const {
  MutexLock lock(&db_mutex);
  return table_readers.size();
}

std::uint64_t LsmDb::ImmutableMemTableCount() const {
  MutexLock lock(&db_mutex);
  return immutable_memtables.size();
}

}  // namespace kandb::lsm
