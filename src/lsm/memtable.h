// The sorted table in memory that takes every write: the newest operation of each key, deletions
// too. Held by shared pointers (the engine, a flush, reads in progress) and freed with the last.
// Thread-safe but for `wal_files`.
#pragma once

#include <cstddef>
#include <cstdint>
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
  // Paths of the logs whose records were applied here, to be deleted once this table is flushed.
  // Changed only under the engine's lock, and not at all once the table is immutable.
  std::vector<std::string> wal_files;

  // Gets the memory for `entry_count` entries with `size` bytes of keys and values, so that
  // applying them cannot fail. Throws std::bad_alloc, and nothing has changed.
  void Reserve(std::size_t entry_count, std::size_t size) EXCLUDES(mutex);

  // Applies entries (Entry or EntryView) in order; no reader sees a part of them. Without memory,
  // reserved or not, the process ends.
  template <class Batch>
  void Apply(const Batch& batch) EXCLUDES(mutex) {
    WriterLock lock(&mutex);
    CompleteOpenChunks();
    for (const EntryView entry : batch) Set(entry);
  }

  // False when the key was never written here; else its operation and, for a put, its value.
  bool Lookup(std::string_view key, std::uint8_t* op, std::string* value) const EXCLUDES(mutex);

  class Chunk;

  // Calls `visit(EntryView)` for every entry in key order, under the lock: for a table that takes
  // no more writes.
  template <class Visitor>
  void ForEach(Visitor visit) const EXCLUDES(mutex) {
    ReaderLock lock(&mutex);
    for (auto at = entries.LowerBound({}); at.valid(); at.Next()) visit(at.entry());
  }

  // Grows with every operation by 32 and the lengths of its key and value, and never shrinks: a
  // table that keeps overwriting one key fills up like any other, because its log and its memory
  // do.
  std::uint64_t ApproximateBytes() const EXCLUDES(mutex);

 private:
  void Set(const EntryView& entry) REQUIRES(mutex);
  void CompleteOpenChunks() REQUIRES(mutex) EXCLUDES(chunks_mutex);

  // Guards the entries and their size. Nothing but chunks_mutex is taken while it is held.
  mutable SharedMutex mutex;
  EntryTree entries GUARDED_BY(mutex);
  std::uint64_t approximate_bytes GUARDED_BY(mutex) = 0;

  // Guards the list of those chunks that the next write has to complete. The innermost lock.
  mutable Mutex chunks_mutex;
  mutable std::vector<Chunk*> open_chunks GUARDED_BY(chunks_mutex);
};

// Entries of a memtable that follow one another, all as they stood at one moment. Listing them
// takes time, and many scans end at the first. So a chunk lists a few at first and stays open; the
// rest is listed when it is wanted, or by the next writer before it changes anything. Used by one
// thread.
class MemTable::Chunk {
 public:
  static constexpr std::size_t kFirstSize = 16;      // entries that are listed at first
  static constexpr std::size_t kMaxOpenSize = 4096;  // larger chunks are listed at once

  // `source` is borrowed and must outlive the chunk.
  explicit Chunk(const MemTable* source) : memtable(source) {}
  ~Chunk() { Close(); }
  Chunk(const Chunk&) = delete;
  Chunk& operator=(const Chunk&) = delete;

  using Records = std::span<const EntryTree::Record* const>;

  // Starts over with the first entries whose keys are not less than `start`, deletions included, as
  // they are now; the chunk has `limit` of them at most (0: no limit). Returns the first ones.
  Records Begin(std::string_view start, std::size_t limit) EXCLUDES(memtable->mutex);

  // Returns all of the chunk. The records live as long as the memtable, the span until Begin.
  Records Complete() EXCLUDES(memtable->mutex);

  // Once complete: whether no entry followed those of the chunk.
  bool at_end() const { return !position.valid(); }

  // ApproximateBytes() when the chunk began: chunks with the same number are of the same contents.
  std::uint64_t moment() const { return begin_bytes; }

 private:
  friend class MemTable;
  void Close();

  const MemTable* const memtable;
  std::size_t max_size = 0;
  std::uint64_t begin_bytes = 0;
  bool listed = false;  // in open_chunks, unless a writer has completed it
  // Where the list goes on. This and the list belong to whoever holds the memtable's lock: shared,
  // the thread of the chunk, exclusively, the writer. Nothing is moved by either: the memory for
  // the rest was reserved, so that the writer cannot fail and the span of Begin stays valid.
  EntryTree::Position position;
  std::vector<const EntryTree::Record*> records;
};

}  // namespace kandb::lsm
