// Builds a table in memory and publishes it as a file. The layout is in lsm/table_format.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/status.h"
#include "crypto/bloom.h"
#include "lsm/entry.h"

namespace kandb::lsm {

// The encoded entries of a new table. Not thread-safe.
class TableBuilder {
 public:
  // `expected_size`: bytes of encoded entries, reserved so that they are not moved while they grow;
  // too much costs only address space.
  explicit TableBuilder(std::size_t expected_size = 0) { data.reserve(expected_size); }

  // Keys must ascend, each once: otherwise the process ends, because lookups in the table would
  // miss some of its entries.
  void Add(const EntryView& entry);

 private:
  friend Status WriteTable(const std::string& path, const TableBuilder& table);

  std::string data;
  std::size_t last_entry = 0;  // offset in `data` of the entry added last
  std::string index;
  std::vector<crypto::BloomHash> hashes;  // of every key: the filter's size needs their number
};

// Writes `path` + ".tmp", syncs it and renames it to `path`, so that this file is whole or missing.
// Corruption "sst create: " and the temporary path, "sst write: " and the system's text, "sst fsync
// failed" or "sst rename failed"; the temporary file is then removed.
Status WriteTable(const std::string& path, const TableBuilder& table);

}  // namespace kandb::lsm
