#include "lsm/memtable_source.h"

#include <algorithm>
#include <string>

namespace kandb::lsm {

namespace {

// Records decoded at once: few enough that they are still in the processor's cache when they are
// looked at.
constexpr std::size_t kBatchSize = 128;

}  // namespace

void MemTableSource::Seek(std::string_view target) {
  BeginChunk(target);
  DecodeBatch();
}

void MemTableSource::Refill() {
  if (remaining.empty()) remaining = chunk.Extend().subspan(decoded_count);
  if (remaining.empty() && !chunk.at_end()) {
    // The smallest key after the last one is that key and a zero byte.
    std::string successor(decoded.back().key);
    successor.push_back('\0');
    const std::uint64_t previous = chunk.moment();
    BeginChunk(successor);
    if (chunk.moment() != previous) *same_moment = false;
  }
  DecodeBatch();
}

void MemTableSource::BeginChunk(std::string_view start) {
  remaining = chunk.Begin(start, chunk_size);
  decoded_count = 0;
}

void MemTableSource::DecodeBatch() {
  const std::size_t count = std::min(kBatchSize, remaining.size());
  EntryTree::Decode(remaining.first(count), &decoded);
  remaining = remaining.subspan(count);
  decoded_count += count;
  buffered = decoded;
}

}  // namespace kandb::lsm
