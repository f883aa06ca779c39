// A sorted run of entries that is read forward: a table or a memtable, as a merge sees them.
#pragma once

#include "common/status.h"
#include "lsm/entry.h"

namespace kandb::lsm {

class EntrySource {
 public:
  virtual ~EntrySource() = default;

  // Whether there is a current entry: not behind the last one, and not after a failure.
  bool valid() const { return is_valid; }
  // The failure that ended the run, if one did.
  const Status& status() const { return failure; }

  // The current entry; its bytes live until the next call that moves this source.
  const EntryView& entry() const { return current; }

  // Moves to the first entry whose key is not less than `target`.
  virtual void Seek(std::string_view target) = 0;

  // Moves to the next entry. Only when valid.
  virtual void Next() = 0;

 protected:
  bool is_valid = false;
  EntryView current;
  Status failure;
};

}  // namespace kandb::lsm
