// Hands out identifiers, none of them twice, across restarts too: the metadata store holds a mark
// above all that were handed out. Thread-safe.
#pragma once

#include <cstdint>

#include "common/mutex.h"
#include "common/status.h"
#include "store/meta_store.h"

namespace kandb::meta {

class IdAllocator {
 public:
  // `metadata_store` is borrowed and must outlive the allocator. Reads the mark: numbering
  // continues there. Without one, or when it cannot be read, it starts at 1024. A damaged one
  // restarts it at 0: identifiers are then handed out again.
  explicit IdAllocator(store::MetaStore* metadata_store);

  // Hands out `count` consecutive identifiers, at least 1; `*first_id` is the first. Fails as the
  // store's write does: nothing is handed out then.
  Status Allocate(std::uint32_t count, std::uint64_t* first_id) EXCLUDES(id_mutex);

 private:
  store::MetaStore* const metadata;

  // Guards the identifiers. Held while the mark in the metadata store is read and written.
  Mutex id_mutex;
  std::uint64_t next_id GUARDED_BY(id_mutex);
};

}  // namespace kandb::meta
