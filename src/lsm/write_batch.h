// A write batch: entries that are logged as one record and become visible together.
//
//   offset   size  field
//   0        4     number of entries, little-endian
//   4        -     the entries, back to back (lsm/entry.h)
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "common/status.h"
#include "lsm/entry.h"

namespace kandb::lsm {

// The size of the encoding, in bytes.
std::size_t BatchSize(const std::vector<Entry>& batch);

void AppendBatch(const std::vector<Entry>& batch, std::string* out);

// Decodes a batch; the entries point into `bytes`. Bytes after the last entry are ignored. Fails
// with Corruption "batch: too short", "batch: truncated entry", "batch: bad op", "batch: truncated
// key" or "batch: truncated value"; `*entries` then has the entries before the damage.
Status DecodeBatch(std::string_view bytes, std::vector<EntryView>* entries);

}  // namespace kandb::lsm
