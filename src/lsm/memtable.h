// The sorted table in memory that takes every write: the newest operation on each key, deletions
// included. Owned by shared pointers of the engine, a flush and reads in progress. Thread-safe,
// but one thread at a time may reserve, apply and change `wal_files`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/mutex.h"
#include "lsm/entry.h"
#include "lsm/entry_tree.h"

namespace kandb::lsm {

class MemTable {
 public:
  // Paths of the WALs whose records were applied here, to be deleted once this memtable is flushed.
  // Changed only under the engine's lock, and never once the memtable is immutable.
  std::vector<std::string> wal_files;

  // Allocates in advance for `entry_count` entries with `size` bytes of keys and values in all, so
  // that applying them cannot fail. Throws std::bad_alloc, and nothing has changed. Readers are not
  // disturbed.
  void Reserve(std::size_t entry_count, std::size_t size);

  // Applies entries (Entry or EntryView) in order; no reader sees a part of them. The process ends
  // when it is out of memory.
  template <class Batch>
  void Apply(const Batch& batch) EXCLUDES(mutex) {
    ApplyGroup(std::span<const Batch, 1>(&batch, 1), std::identity());
  }
  // The same for several batches, that of a member being `batch_of(member)`.
  template <class Group, class BatchOf>
  void ApplyGroup(const Group& group, BatchOf batch_of) EXCLUDES(mutex) {
    WriterLock lock(&mutex);
    CompleteOpenChunks();
    for (const auto& member : group) {
      for (const EntryView entry : batch_of(member)) Set(entry);
    }
  }

  // False when the key was never written here; otherwise its operation and, for a put, its value.
  bool Lookup(std::string_view key, std::uint8_t* op, std::string* value) const EXCLUDES(mutex);

  class Chunk;

  // Calls `visit(EntryView)` for every entry in key order, under the lock: for a memtable that
  // takes no more writes.
  template <class Visitor>
  void ForEach(Visitor visit) const EXCLUDES(mutex) {
    ReaderLock lock(&mutex);
    for (auto at = entries.LowerBound({}); at.valid(); at.Next()) visit(at.entry());
  }

  // Bytes. Grows with every operation by 32 and the lengths of its key and value, and never
  // shrinks: overwriting one key again and again fills a memtable like any other writes, because
  // its WAL and its memory grow.
  std::uint64_t ApproximateBytes() const EXCLUDES(mutex);

 private:
  void Set(const EntryView& entry) REQUIRES(mutex);
  void CompleteOpenChunks() REQUIRES(mutex) EXCLUDES(chunks_mutex);

  // Guards the entries and their size. Nothing but chunks_mutex is taken while it is held.
  mutable SharedMutex mutex;
  EntryTree entries GUARDED_BY(mutex);
  std::uint64_t approximate_bytes GUARDED_BY(mutex) = 0;

  // Guards the list of the chunks that the next write must complete. The innermost lock.
  mutable Mutex chunks_mutex;
  mutable std::vector<Chunk*> open_chunks GUARDED_BY(chunks_mutex);
};

// Consecutive entries of a memtable, all of one moment. Listing them takes time, and many scans end
// at the first ones. So a chunk lists a few and stays open; more and more are listed on demand, or
// all of the rest by the next writer before it changes anything. Used by one thread.
class MemTable::Chunk {
 public:
  static constexpr std::size_t kFirstSize = 16;      // entries that are listed at first
  static constexpr std::size_t kGrowth = 8;          // times as many are listed after each Extend
  static constexpr std::size_t kMaxOpenSize = 4096;  // larger chunks are listed at once

  // `source` is borrowed and must outlive the chunk.
  explicit Chunk(const MemTable* source) : memtable(source) {}
  ~Chunk() { Close(); }
  Chunk(const Chunk&) = delete;
  Chunk& operator=(const Chunk&) = delete;

  using Records = std::span<const EntryTree::Record* const>;

  // Starts over with the present entries from the key `start` on, deletions included, at most
  // `limit` of them (0: no limit). Returns those listed at first. Throws std::bad_alloc.
  Records Begin(std::string_view start, std::size_t limit) EXCLUDES(memtable->mutex);

  // Lists more. Returns all that are listed, no more than before when that is the whole chunk. The
  // records live as long as the memtable, the span until Begin.
  Records Extend() EXCLUDES(memtable->mutex);

  // Once the whole chunk is listed: whether it reaches to the end of the memtable.
  bool at_end() const { return !position.valid(); }

  // ApproximateBytes() when the chunk began: two chunks with the same number saw the same contents.
  std::uint64_t moment() const { return begin_bytes; }

 private:
  friend class MemTable;
  void Close();

  const MemTable* const memtable;
  std::size_t max_size = 0;
  std::uint64_t begin_bytes = 0;
  bool open = false;  // in open_chunks, unless a writer has listed the rest
  // The next entry to list. This and the list are guarded by the memtable's lock: the chunk's
  // thread has it shared, a writer exclusively. Both only append, to memory reserved by Begin: the
  // writer cannot fail, and the span that Begin returned stays valid.
  EntryTree::Position position;
  std::vector<const EntryTree::Record*> records;
};

}  // namespace kandb::lsm
