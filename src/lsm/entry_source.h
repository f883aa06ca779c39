// A sorted run of entries that is read forward: a table or a memtable, as a merge sees them. A
// source has a stretch of entries at hand, so that moving within it costs next to nothing.
#pragma once

#include <cassert>
#include <cstddef>
#include <span>
#include <string_view>

#include "common/status.h"
#include "lsm/entry.h"

namespace kandb::lsm {

class EntrySource {
 public:
  virtual ~EntrySource() = default;

  // Moves to the first entry whose key is not less than `target`.
  virtual void Seek(std::string_view target) = 0;

  // Whether there is a current entry: not behind the last one, and not after a failure.
  bool valid() const { return !at_hand.empty(); }
  // The failure that ended the run, if one did.
  const Status& status() const { return failure; }

  // The current entry and some of those that follow. They and their bytes live until this source
  // moves behind the last of them.
  std::span<const EntryView> stretch() const { return at_hand; }
  const EntryView& entry() const { return at_hand.front(); }

  // Moves on by `count` entries of the stretch, at least one.
  void Skip(std::size_t count) {
    assert(count > 0 && count <= at_hand.size());
    at_hand = at_hand.subspan(count);
    if (at_hand.empty()) Refill();
  }
  void Next() { Skip(1); }

 protected:
  // Gets the stretch behind the one that was used up: sets `at_hand`, or leaves it empty at the end
  // or after a failure.
  virtual void Refill() = 0;

  std::span<const EntryView> at_hand;
  Status failure;
};

}  // namespace kandb::lsm
