// A sorted run of entries that is read forward: a table or a memtable, as a merge sees it. A source
// keeps a batch of decoded entries buffered, so that moving within it costs next to nothing. Used
// by one thread.
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

  // Whether there is a current entry: false after the last one, and after a failure.
  bool valid() const { return !buffered.empty(); }
  // The failure that ended the run, if one did.
  const Status& status() const { return failure; }

  // The current entry and those buffered after it. They and their bytes live until this source
  // moves past the last of them.
  std::span<const EntryView> batch() const { return buffered; }
  const EntryView& entry() const { return buffered.front(); }

  // Moves on by `count` entries of the batch, at least one.
  void Skip(std::size_t count) {
    assert(count > 0 && count <= buffered.size());
    buffered = buffered.subspan(count);
    if (buffered.empty()) Refill();
  }
  void Next() { Skip(1); }

 protected:
  // Buffers the batch after the one that was used up; leaves `buffered` empty at the end or after a
  // failure.
  virtual void Refill() = 0;

  std::span<const EntryView> buffered;
  Status failure;
};

}  // namespace kandb::lsm
