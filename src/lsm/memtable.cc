#include "lsm/memtable.h"

namespace kandb::lsm {

namespace {

constexpr std::uint64_t kEntryCharge = 32;  // bytes, besides key and value

}  // namespace

void MemTable::Set(const EntryView& entry) {
  approximate_bytes += kEntryCharge + entry.key.size() + entry.value.size();
  const auto position = table.lower_bound(entry.key);
  if (position != table.end() && position->first == entry.key) {
    position->second.op = entry.op;
    position->second.value = entry.value;
  } else {
    table.emplace_hint(position, entry.key, Operation{entry.op, std::string(entry.value)});
  }
}

bool MemTable::Lookup(std::string_view key, std::uint8_t* op, std::string* value) const {
  ReaderLock lock(&mutex);
  const auto found = table.find(key);
  if (found == table.end()) return false;
  *op = found->second.op;
  if (*op == kPut) *value = found->second.value;
  return true;
}

void MemTable::Dump(std::string_view start, std::string_view end, std::size_t limit,
                    EntryList* out) const {
  out->Clear();
  ReaderLock lock(&mutex);
  for (auto at = table.lower_bound(start); at != table.end() && out->size() < limit; ++at) {
    if (!end.empty() && at->first >= end) break;
    out->Add({at->second.op, at->first, at->second.value});
  }
}

std::uint64_t MemTable::ApproximateBytes() const {
  ReaderLock lock(&mutex);
  return approximate_bytes;
}

}  // namespace kandb::lsm
