// The layout of a table file: one immutable run of entries in ascending key order. Numbers are
// little-endian; nothing is aligned or padded.
//
//   region         content
//   data           from offset 0: the entries (lsm/entry.h), up to where the index block begins
//   index block    one element for every 16th entry, from the first on:
//                    4  K = key length,  K  key of that entry,  8  offset of that entry in the file
//   filter block   a serialised Bloom filter over all keys (crypto/bloom.h)
//   footer         the last 52 bytes
//
//   footer offset  size  field
//   0              8     index_offset
//   8              8     index_size, bytes
//   16             8     filter_offset
//   24             8     filter_size, bytes
//   32             8     entry_count
//   40             4     CRC-32C of footer bytes 0 .. 39
//   44             8     magic 0x06b616e646273737
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/status.h"

namespace kandb::lsm {

inline constexpr std::size_t kFooterSize = 52;       // bytes
inline constexpr std::uint64_t kIndexInterval = 16;  // entries
inline constexpr int kFilterBitsPerKey = 10;

struct TableFooter {
  std::uint64_t index_offset = 0;
  std::uint64_t index_size = 0;
  std::uint64_t filter_offset = 0;
  std::uint64_t filter_size = 0;
  std::uint64_t entry_count = 0;
};

void AppendFooter(const TableFooter& footer, std::string* out);

// `bytes` are the last kFooterSize ones of the file. Corruption "sst bad magic" or "sst footer crc
// mismatch". The offsets and sizes of a sound footer must still be compared with the file.
Status DecodeFooter(std::string_view bytes, TableFooter* footer);

// An indexed entry; the key points into the index block.
struct IndexElement {
  std::string_view key;
  std::uint64_t offset;
};

void AppendIndexElement(const IndexElement& element, std::string* out);

// Corruption "sst index truncated".
Status DecodeIndex(std::string_view block, std::vector<IndexElement>* index);

}  // namespace kandb::lsm
