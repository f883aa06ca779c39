#include "lsm/memtable.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kandb::lsm {

namespace {

constexpr std::uint64_t kEntryCharge = 32;  // bytes, besides key and value

}  // namespace

// Without the lock: readers use neither the arena nor the counts that this is about, and whoever
// reserves is the one who applies.
void MemTable::Reserve(std::size_t entry_count, std::size_t size) NO_THREAD_SAFETY_ANALYSIS {
  entries.Reserve(entry_count, size);
}

void MemTable::Set(const EntryView& entry) {
  approximate_bytes += kEntryCharge + entry.key.size() + entry.value.size();
  entries.Insert(entry);
}

bool MemTable::Lookup(std::string_view key, std::uint8_t* op, std::string* value) const {
  EntryView entry;
  {
    ReaderLock lock(&mutex);
    const EntryTree::Position found = entries.LowerBound(key);
    if (!found.valid()) return false;
    entry = found.entry();
  }
  if (entry.key != key) return false;
  *op = entry.op;
  if (entry.op == kPut) *value = entry.value;
  return true;
}

std::uint64_t MemTable::ApproximateBytes() const {
  ReaderLock lock(&mutex);
  return approximate_bytes;
}

void MemTable::CompleteOpenChunks() {
  MutexLock lock(&chunks_mutex);
  for (Chunk* chunk : open_chunks) {
    chunk->position.Take(chunk->max_size - chunk->records.size(), &chunk->records);
  }
  open_chunks.clear();
}

MemTable::Chunk::Records MemTable::Chunk::Begin(std::string_view start, std::size_t limit) {
  Close();
  records.clear();
  max_size = limit == 0 ? std::numeric_limits<std::size_t>::max() : limit;
  const bool stays_open = max_size <= kMaxOpenSize;
  if (stays_open) records.reserve(max_size);
  ReaderLock lock(&memtable->mutex);
  begin_bytes = memtable->approximate_bytes;
  position = memtable->entries.LowerBound(start);
  position.Take(stays_open ? std::min(max_size, kFirstSize) : max_size, &records);
  if (position.valid() && records.size() < max_size) {
    MutexLock chunks_lock(&memtable->chunks_mutex);
    memtable->open_chunks.push_back(this);
    open = true;
  }
  return records;
}

MemTable::Chunk::Records MemTable::Chunk::Extend() {
  ReaderLock lock(&memtable->mutex);
  const std::size_t wanted = std::min(max_size, kGrowth * records.size());
  if (records.size() < wanted) position.Take(wanted - records.size(), &records);
  if (!position.valid() || records.size() == max_size) Close();
  return records;
}

void MemTable::Chunk::Close() {
  if (!std::exchange(open, false)) return;
  MutexLock lock(&memtable->chunks_mutex);
  std::erase(memtable->open_chunks, this);
}

}  // namespace kandb::lsm
