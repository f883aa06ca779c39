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

// A memtable as a source. It is read in chunks of some hundred entries, so that a long scan
// neither holds the memtable's lock for long nor lists all of it. Each chunk is consistent; keys
// written behind the current position later on may or may not be seen.
class MemTableSource final : public EntrySource {
 public:
  // Entries at or after `end_bound` (borrowed, empty is none) need not be seen.
  MemTableSource(std::shared_ptr<const MemTable> source, std::string_view end_bound)
      : memtable(std::move(source)), end(end_bound) {}

  void Seek(std::string_view target) override { FillChunk(target); }

 private:
  void Refill() override;
  void FillChunk(std::string_view start);

  const std::shared_ptr<const MemTable> memtable;
  const std::string_view end;
  std::vector<EntryView> chunk;
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
using PairVisitor = std::function<bool(std::string_view key, std::string_view value)>;
Status ForEachLive(const ReadView& view, std::string_view start, std::string_view end,
                   std::uint32_t limit, const PairVisitor& visit);

}  // namespace kandb::lsm
