// A memtable as a source of a merge. It is read in chunks, so that a long scan neither holds the
// memtable's lock for long nor lists all of it. A chunk is of one moment; a key written after the
// current chunk was taken is seen if it falls into a later one.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "lsm/entry_source.h"
#include "lsm/memtable.h"

namespace kandb::lsm {

class MemTableSource final : public EntrySource {
 public:
  // With a `chunk_limit` of 0 (entries) everything is one chunk. `*of_one_moment` (borrowed)
  // becomes false when the memtable was written to between two chunks.
  MemTableSource(std::shared_ptr<const MemTable> source, std::size_t chunk_limit,
                 bool* of_one_moment)
      : memtable(std::move(source)),
        chunk_size(chunk_limit),
        same_moment(of_one_moment),
        chunk(memtable.get()) {}

  void Seek(std::string_view target) override;

 private:
  void Refill() override;
  void BeginChunk(std::string_view start);
  void DecodeBatch();

  const std::shared_ptr<const MemTable> memtable;
  const std::size_t chunk_size;
  bool* const same_moment;
  MemTable::Chunk chunk;
  std::size_t decoded_count = 0;       // records of the chunk
  MemTable::Chunk::Records remaining;  // those after them
  std::vector<EntryView> decoded;      // the batch
};

}  // namespace kandb::lsm
