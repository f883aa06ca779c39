// Reads one table file with positioned reads; its index and filter stay in memory. The layout is in
// lsm/table_format.h. Immutable after Open, held by shared pointer and used by any number of
// threads.
//
// Nothing in the file is trusted: offsets and sizes are compared with the file's size before
// memory is allocated or bytes are read for them. All failures are Corruption: "sst open <path>: "
// and the system's text, "sst too small: <path>", "sst bad magic", "sst footer crc mismatch", "sst
// index truncated", "sst bad record op", "sst record truncated", "sst: unexpected EOF", "sst pread:
// " and the system's text.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/input_buffer.h"
#include "common/posix_file.h"
#include "common/status.h"
#include "crypto/bloom.h"
#include "lsm/entry_source.h"
#include "lsm/table_format.h"

namespace kandb::lsm {

class SstReader {
 public:
  static Status Open(const std::string& path, std::shared_ptr<SstReader>* reader);

  // `*found` tells whether the table has a record of the key, a deletion included; then `*op` is
  // set, and for a put `*value`.
  Status Get(std::string_view key, bool* found, std::uint8_t* op, std::string* value) const;

  std::uint64_t EntryCount() const { return footer.entry_count; }
  // Bytes of encoded entries, as the footer says, and no more than the file has.
  std::uint64_t DataSize() const { return std::min(footer.index_offset, file_size); }

  // For checking the file: its own description of itself, and whether its filter admits a key.
  const TableFooter& Footer() const { return footer; }
  const std::vector<IndexElement>& Index() const { return index; }
  bool MayContain(std::string_view key) const { return filter->MayContain(key); }

  class Iterator;

 private:
  Status ReadFooter(const std::string& path);
  Status ReadBlock(std::uint64_t offset, std::uint64_t size, std::string* block) const;

  // The bytes in which the first entry whose key is not less than `target` begins, if it does not
  // begin at `end`: from the last indexed entry at or before the key to the next indexed one.
  struct Section {
    std::uint64_t begin;
    std::uint64_t end;
  };
  Section FindSection(std::string_view target) const;

  UniqueFd file;
  std::uint64_t file_size = 0;
  TableFooter footer;
  std::string index_block;
  std::vector<IndexElement> index;  // points into index_block
  std::optional<crypto::BloomFilterView> filter;
};

// Walks over the entries of a table; used by one thread. The reader must outlive it.
class SstReader::Iterator final : public EntrySource {
 public:
  // Reads `first_read_size` bytes at first and then, up to kMaxReadSize, twice as much each time: a
  // short scan reads little, a long one uses few calls. Larger reads are no faster: their bytes
  // leave the processor's cache before they are decoded.
  static constexpr std::size_t kMaxReadSize = 65536;
  Iterator(const SstReader* table, std::size_t first_read_size)
      : reader(table), read_size(first_read_size) {}

  void Seek(std::string_view target) override;

  // In the file: the start of the current entry; after a failure, that of the damaged one.
  std::uint64_t offset() const;

 private:
  // Decoded at once, from bytes that were read already.
  static constexpr std::size_t kBatchSize = 32;  // entries

  void Refill() override;
  // Reads the entry at `next_offset` and moves past it; false at the end of the data or after a
  // failure.
  bool ReadEntry(EntryView* entry);
  // Moves past the parsed bytes of `ahead`; `rest` is its unparsed end.
  void MoveTo(std::string_view rest);
  // Reads until at least `size` bytes from `next_offset` on are in the buffer.
  Status Fill(std::size_t size);

  const SstReader* const reader;
  std::size_t read_size;
  InputBuffer buffer;
  std::string_view ahead;         // the bytes in `buffer` after the batch
  std::uint64_t next_offset = 0;  // in the file, of the entry after the batch: where `ahead` begins
  EntryView entries[kBatchSize];  // the batch
};

}  // namespace kandb::lsm
