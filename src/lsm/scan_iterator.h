// Merges sorted runs into one: a read's memtables and tables, or the tables of a compaction.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/status.h"
#include "lsm/entry_source.h"
#include "lsm/memtable.h"
#include "lsm/sst_reader.h"

namespace kandb::lsm {

// What a read looks at, newest first. Never changes once made; keeps all it refers to alive.
struct ReadView {
  std::vector<std::shared_ptr<const MemTable>> memtables;
  std::vector<std::shared_ptr<const SstReader>> tables;
};

// A memtable as a source. It is read in chunks, so that a long scan neither holds the memtable's
// lock for long nor lists all of it. A chunk is of one moment; of keys written after the current
// chunk was taken, those in later chunks are seen.
class MemTableSource final : public EntrySource {
 public:
  static constexpr std::size_t kChunkSize = MemTable::Chunk::kMaxOpenSize;  // entries

  // A `chunk_limit` of 0 makes everything one chunk. `*of_one_moment` (borrowed) becomes false when
  // the memtable was written to between two chunks.
  MemTableSource(std::shared_ptr<const MemTable> source, std::size_t chunk_limit,
                 bool* of_one_moment)
      : memtable(std::move(source)),
        chunk_size(chunk_limit),
        same_moment(of_one_moment),
        chunk(memtable.get()) {}

  void Seek(std::string_view target) override;

 private:
  void Refill() override;
  void BeginChunk(std::string_view start);
  void DecodeBatch();

  const std::shared_ptr<const MemTable> memtable;
  const std::size_t chunk_size;
  bool* const same_moment;
  MemTable::Chunk chunk;
  bool complete = false;          // `rest` goes to the end of the chunk
  std::size_t decoded = 0;        // records of the chunk
  MemTable::Chunk::Records rest;  // those after them
  std::vector<EntryView> batch;
};

// The entries of several sources in key order, deletions included. Of entries with equal keys only
// that of the source which stands first is seen.
class MergingIterator {
 public:
  // `ordered_sources`: newest first. The merge ends before the key `end_bound` (borrowed, empty is
  // none).
  MergingIterator(std::vector<std::unique_ptr<EntrySource>> ordered_sources,
                  std::string_view end_bound)
      : sources(std::move(ordered_sources)), end(end_bound) {}

  void Seek(std::string_view target);
  void Next() {
    run = run.subspan(1);
    if (run.empty()) NextRun();
  }

  // As those of a source.
  bool valid() const { return !run.empty(); }
  const Status& status() const { return failure; }
  // Lives until the next call that moves the iterator.
  const EntryView& entry() const { return run.front(); }

 private:
  void NextRun();
  // Finds the source with the smallest key and how far its entries are the next ones of the merge.
  void Choose();
  // How many entries of the winner's stretch stand before the keys of the others and the end: one
  // at least.
  std::size_t RunLength() const;

  std::vector<std::unique_ptr<EntrySource>> sources;
  const std::string_view end;
  EntrySource* winner = nullptr;
  // Entries at the front of the winner's stretch, from the current one on, that all others follow:
  // they are handed out without a comparison. Data of one kind mostly stands in one source.
  std::span<const EntryView> run;
  std::size_t run_length = 0;  // when it was chosen
  Status failure;              // of a source: it ends the merge
};

// Hands the live pairs of `view` with start <= key < end (an empty bound is none) to `visit`, in
// key order and at most `limit` of them; `visit` returns false to end the walk. The views that it
// is given live only during the call. Fails only as reading a table does.
//
// `*of_one_moment`, unless null, becomes whether what was visited is the state of one moment:
// nothing was written meanwhile, or no memtable has more than `chunk_limit` entries in the range.
// Of a limit of 0 it always is; each memtable is then listed as a whole, under its lock and in 8
// bytes an entry.
using PairVisitor = std::function<bool(std::string_view key, std::string_view value)>;
Status ForEachLive(const ReadView& view, std::string_view start, std::string_view end,
                   std::uint32_t limit, const PairVisitor& visit,
                   std::size_t chunk_limit = MemTableSource::kChunkSize,
                   bool* of_one_moment = nullptr);

}  // namespace kandb::lsm
