// Merges sorted sources into one run: the memtables and tables of a read, or the tables of a
// compaction. Used by one thread.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "common/status.h"
#include "lsm/entry_source.h"

namespace kandb::lsm {

// The entries of all sources in key order, deletions included. Of entries with equal keys only that
// of the first source is seen.
class MergingIterator {
 public:
  // `ordered_sources`: newest first. The merge ends before the key `end_bound` (borrowed; empty:
  // no bound).
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
  // Finds the source with the smallest key, and the run of its entries that come next.
  void Choose();
  // How many entries of the winner's batch come before the keys of all other sources and the end:
  // one at least.
  std::size_t RunLength() const;

  std::vector<std::unique_ptr<EntrySource>> sources;
  const std::string_view end;
  EntrySource* winner = nullptr;
  // Entries of the winner's batch, from the current one on, that come before those of all other
  // sources: they are returned without a comparison. Neighbouring keys are mostly in one source.
  std::span<const EntryView> run;
  std::size_t run_length = 0;  // when it was chosen
  Status failure;              // of a source: it ends the merge
};

}  // namespace kandb::lsm
