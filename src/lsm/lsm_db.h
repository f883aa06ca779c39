// A small embedded log-structured key-value engine. A write goes to the write-ahead log (WAL) and
// then into the active memtable. A background thread flushes full memtables to table files and,
// when there are too many of these, compacts all of them into one. Keys and values are any bytes,
// keys ordered bytewise. There are no snapshots: a read sees every write that had returned when it
// started, and may see later ones. Reads never wait for a write's sync. Thread-safe.
//
//   Write: CommitQueue forms a group -> its leader: Log (append, sync) -> MemTable (apply)
//          -> when that is full: SwitchMemTable
//   Read:  CaptureView -> the memtables and tables of a ReadView, newest first
//   Background: memtable -> FlushToTable -> table; all tables -> MergeTables -> one table
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "lsm/commit_queue.h"
#include "lsm/directory_lock.h"
#include "lsm/entry.h"
#include "lsm/memtable.h"
#include "lsm/read_view.h"
#include "lsm/sst_reader.h"
#include "lsm/wal.h"

namespace kandb::lsm {

class LsmDb {
  struct Private {};  // only Open can make one

 public:
  struct Options {
    std::uint64_t write_buffer_size = 0;  // bytes; an active memtable of this size is full
    std::uint64_t max_table_files = 0;    // more table files than this are compacted
    bool sync = false;                    // fdatasync the WAL after every write group
  };

  // Opens the engine on `dir`, which is created when missing (its parent is not): reads the
  // manifest, deletes tables that it does not name, replays the logs. On success `*out` is replaced
  // and the engine it held before is destroyed. Everything that a completed write put into a WAL is
  // there again. Throws std::bad_alloc, as do all functions that read or write.
  static Status Open(const std::string& dir, const Options& options, std::unique_ptr<LsmDb>* out);

  LsmDb(Private, const std::string& dir, const Options& engine_options, DirectoryLock lock);

  // Waits for a flush or compaction in progress. Flushes nothing: the WALs have the contents of the
  // memtables.
  ~LsmDb();

  LsmDb(const LsmDb&) = delete;
  LsmDb& operator=(const LsmDb&) = delete;

  // Logs the batch as one record, makes it durable when `sync` is set, and only then lets readers
  // see it, as a whole. Concurrent writers share one sync. InvalidArgument "batch: too large" for
  // an encoding of more than 64 MiB; otherwise the failures of the WAL, and Corruption "out of
  // memory". After a failure nothing of the batch is visible, with one exception: when the memtable
  // was full and the next WAL could not be created, the batch is written and the failure of the
  // switch reported.
  Status Write(const std::vector<Entry>& batch) EXCLUDES(db_mutex);

  // What a read works on (see ReadView), for several reads of the same memtables and tables. Every
  // write that has returned is in it.
  std::shared_ptr<const ReadView> CaptureView() const EXCLUDES(view_mutex);

  // Each of these captures a view. `*value` is set only when `*found`. Fails only as reading a
  // table does.
  Status Get(std::string_view key, std::string* value, bool* found) const EXCLUDES(view_mutex);

  // Hands the live pairs of a range to `visit`, as ForEachLive does.
  Status ForEach(std::string_view start, std::string_view end, std::uint32_t limit,
                 const PairVisitor& visit, bool* of_one_moment = nullptr) const
      EXCLUDES(view_mutex);

  // The pairs of ForEach as a list, which replaces `*out`.
  Status Scan(std::string_view start, std::string_view end, std::uint32_t limit,
              std::vector<Entry>* out) const EXCLUDES(view_mutex);

  // For diagnosis: returns once there is nothing to flush or compact; the counts of what there is.
  void WaitForBackgroundIdle() EXCLUDES(db_mutex);
  std::uint64_t TableFileCount() const EXCLUDES(db_mutex);
  std::uint64_t ImmutableMemTableCount() const EXCLUDES(db_mutex);

 private:
  using WriteGroup = std::span<const WriterSlot* const>;

  Status Start() EXCLUDES(db_mutex);

  Status CommitGroup(WriteGroup group) EXCLUDES(db_mutex);
  Status LogGroup(WriteGroup group) REQUIRES(db_mutex);
  Status SwitchMemTable() REQUIRES(db_mutex);
  // Creates the WAL of the active memtable under the next file number and makes it current.
  Status StartWal() REQUIRES(db_mutex);
  // Makes the present memtables and tables what later reads see. After every change to them.
  void PublishView() REQUIRES(db_mutex);
  void InstallView(std::shared_ptr<const ReadView> next) EXCLUDES(view_mutex);

  // The background thread and its steps. File work is done without db_mutex; that is taken to
  // reserve a file number and to install the result.
  void BackgroundLoop() EXCLUDES(db_mutex);
  Status FlushOldestMemTable() EXCLUDES(db_mutex);
  void DeleteObsoleteWals();
  Status CompactAllTables() EXCLUDES(db_mutex);
  Status SaveManifest() REQUIRES(db_mutex);
  bool TooManyTables() const REQUIRES(db_mutex);

  // Never change after Open.
  const DirectoryLock directory_lock;
  const std::string directory;
  const Options options;

  CommitQueue write_queue{[this](WriteGroup group) { return CommitGroup(group); }};

  // Guards the parts of the engine; held by the leader of a write group while it logs, syncs and
  // applies, so that the WAL has the order of the memtable. A memtable's own lock may be taken
  // while it is held, never the other way round.
  mutable Mutex db_mutex;
  std::shared_ptr<MemTable> active GUARDED_BY(db_mutex);
  std::deque<std::shared_ptr<MemTable>> immutable_memtables GUARDED_BY(db_mutex);  // oldest first
  std::vector<std::shared_ptr<SstReader>> table_readers GUARDED_BY(db_mutex);      // newest first
  std::vector<std::uint64_t> live_tables GUARDED_BY(db_mutex);  // their file numbers, same order
  std::uint64_t next_file GUARDED_BY(db_mutex) = 1;             // for WALs and tables alike
  Log log GUARDED_BY(db_mutex);
  bool stopping GUARDED_BY(db_mutex) = false;
  CondVar background_cv;  // with db_mutex: there may be work, or the engine stops

  // Guards the pointer to the view, and is held for its copy only: a reader never waits for a write
  // group or a flush. May be taken while db_mutex is held.
  mutable Mutex view_mutex;
  std::shared_ptr<const ReadView> view GUARDED_BY(view_mutex);

  // WALs of flushed memtables, oldest first. Used by the background thread alone.
  std::deque<std::string> obsolete_wals;

  std::thread background;
};

}  // namespace kandb::lsm
