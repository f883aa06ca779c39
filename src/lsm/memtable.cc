#include "lsm/memtable.h"

#include <algorithm>

namespace kandb::lsm {

namespace {

constexpr std::uint64_t kEntryCharge = 32;  // bytes, besides key and value

}  // namespace

void MemTable::Reserve(std::size_t entry_count, std::size_t size) {
  WriterLock lock(&mutex);
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

void MemTable::Dump(std::string_view start, std::string_view end, std::size_t limit,
                    std::vector<EntryView>* out) const {
  out->clear();
  {
    ReaderLock lock(&mutex);
    entries.LowerBound(start).Take(limit, out);
  }
  // Cut off afterwards: most dumps end before they come to `end`, and no key is compared with it.
  if (end.empty() || out->empty() || out->back().key < end) return;
  const auto before_end = [&](const EntryView& entry) { return entry.key < end; };
  out->erase(std::partition_point(out->begin(), out->end(), before_end), out->end());
}

std::uint64_t MemTable::ApproximateBytes() const {
  ReaderLock lock(&mutex);
  return approximate_bytes;
}

}  // namespace kandb::lsm
