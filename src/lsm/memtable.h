// The sorted table in memory that takes every write: the newest operation of each key, deletions
// too. Held by shared pointers (the engine, a flush, reads in progress) and freed with the last.
// Thread-safe but for `wal_files`.
#pragma once

#include <cstddef>
#include <cstdint>
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
    for (const EntryView entry : batch) Set(entry);
  }

  // False when the key was never written here; else its operation and, for a put, its value.
  bool Lookup(std::string_view key, std::uint8_t* op, std::string* value) const EXCLUDES(mutex);

  // Replaces `*out` by the first `limit` entries with start <= key < end, deletions included; an
  // empty bound is none. The entries live as long as the memtable.
  void Dump(std::string_view start, std::string_view end, std::size_t limit,
            std::vector<EntryView>* out) const EXCLUDES(mutex);

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

  // Guards the entries and their size. The innermost lock: nothing is taken while it is held.
  mutable SharedMutex mutex;
  EntryTree entries GUARDED_BY(mutex);
  std::uint64_t approximate_bytes GUARDED_BY(mutex) = 0;
};

}  // namespace kandb::lsm
