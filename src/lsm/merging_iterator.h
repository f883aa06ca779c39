// Merges sorted sources into one run: the memtables and tables of a read, or the tables of a
// compaction. Used by one thread.
//
// The sources play a tournament (Knuth, "The Art of Computer Programming", volume 3, 5.4.1: a tree
// of losers). Each inner node keeps the loser of its match, so after the winner has moved on, it
// only meets the losers on its way to the root: one comparison a level. The keys of a scan begin
// alike, and after their common prefix six bytes mostly decide. They are kept in the nodes as
// numbers, so that a match reads no key.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
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
  // What a match compares, in one number: 48 bits of the contestant's first key, above its index.
  using Node = std::uint64_t;
  static constexpr Node kIndexMask = 0xffff;
  static constexpr Node kNobody = ~Node{0};  // loses every match

  // A source that has entries left.
  struct Contestant {
    EntrySource* source;
    std::span<const EntryView> batch = {};  // the rest of the source's, up to the end of the merge
    Node next = kNobody;                    // of the second entry of the batch, if there is one
    bool at_end = false;                    // the end of the merge is in the batch
    bool hidden = false;                    // a newer entry has the key of the first one
  };

  // Takes over the batch of the source; false when it has no entry before the end.
  bool TakeBatch(Contestant* contestant);
  void HoldTournament();
  // Plays the matches of a contestant from its leaf to the root, given the node of its first
  // entry; gives the winner's index.
  std::size_t PlayAgain(std::size_t contestant, Node node);
  // Puts the node first that comes first in the merge.
  void Play(Node* winning, Node* losing);
  bool WinsTie(Node a, Node b);
  Node NodeOf(std::string_view key, std::size_t contestant) const;
  void FindNext(std::size_t contestant);

  void NextRun();
  // Replaces the used-up batch of the winner; false when there are no more entries.
  bool Refill();
  bool WinnerIsAlone() const;
  void Merge();

  const std::vector<std::unique_ptr<EntrySource>> sources;
  const std::string_view end;

  std::vector<Contestant> contestants;  // newest first
  std::string prefix;                   // of all keys in their batches
  std::vector<Node> losers;  // node i is above the nodes 2i and 2i+1; 0 is unused; a power of two
  std::size_t winner = 0;    // a contestant's index
  std::size_t ties = 0;      // matches that nodes did not decide, since the prefix was chosen

  // What is returned next: a batch, or entries that were merged up to the end of one.
  std::span<const EntryView> run;
  std::vector<EntryView> merged;
  Status failure;  // of a source: it ends the merge
};

}  // namespace kandb::lsm
