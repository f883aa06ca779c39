// What is in a state directory, read back: the steps that opening an engine shares with those who
// only look. Nothing here changes a file. Stateless.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/status.h"
#include "lsm/memtable.h"
#include "lsm/read_view.h"
#include "lsm/sst_reader.h"

namespace kandb::lsm {

// Opens the tables with these numbers, in their order. Fails as SstReader::Open does.
Status OpenTables(const std::string& dir, const std::vector<std::uint64_t>& numbers,
                  std::vector<std::shared_ptr<SstReader>>* tables);

// Applies the logs with these numbers, in their order, and notes their paths in `wal_files`. Fails
// as ReplayLog does.
Status ReplayLogs(const std::string& dir, const std::vector<std::uint64_t>& numbers,
                  MemTable* memtable);

// Everything that an engine opened on `dir` would hold. For a directory on which no engine is open.
// InvalidArgument "<dir> is not a directory"; else the failures of the manifest, tables and logs.
Status LoadReadOnly(const std::string& dir, ReadView* view);

}  // namespace kandb::lsm
