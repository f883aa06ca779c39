// The file work of a flush and of a compaction: each writes one table and opens it. Stateless; no
// lock of the engine is needed. Failures are those of writing and reading tables; std::bad_alloc is
// thrown when there is no memory for the new table.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/status.h"
#include "lsm/memtable.h"
#include "lsm/sst_reader.h"

namespace kandb::lsm {

// Writes all entries of a memtable that takes no more writes to a table at `path`.
Status FlushToTable(const MemTable& memtable, const std::string& path,
                    std::shared_ptr<SstReader>* table);

// Writes the live entries of `tables`, newest first, to one table at `path`. They must be all the
// tables of the engine: deletions are dropped, so nothing older may be left for them to hide.
Status MergeTables(const std::vector<std::shared_ptr<SstReader>>& tables, const std::string& path,
                   std::shared_ptr<SstReader>* merged);

}  // namespace kandb::lsm
