// Reads the files of a state directory back: for an engine that starts, and for tools that only
// look. Stateless.
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

struct RecoveredState {
  std::vector<std::uint64_t> live_tables;                 // file numbers, newest first
  std::vector<std::shared_ptr<SstReader>> table_readers;  // in the same order
  std::shared_ptr<MemTable> memtable;  // the entries of all WALs, which are its `wal_files`
  std::uint64_t next_file = 0;         // greater than the number of every file found
};

// For an engine that starts on `dir`: deletes the tables that the manifest does not name, and reads
// the rest. Fails as reading the manifest, listing the directory, opening a table or replaying a
// WAL does; Corruption "file number out of range in <dir>". Throws std::bad_alloc.
Status Recover(const std::string& dir, RecoveredState* state);

// Everything that an engine opened on `dir` would hold; changes no file. For a directory on which
// no engine is open. InvalidArgument "<dir> is not a directory"; otherwise fails as Recover does.
Status LoadReadOnly(const std::string& dir, ReadView* view);

}  // namespace kandb::lsm
