// Table files: a walk gives the same in whatever pieces it reads, and in a well-formed table
// lookups and seeks find what a walk finds and nothing else.

#include <algorithm>

#include "lsm/sst_reader.h"
#include "target.h"

namespace kandb::fuzz {

using namespace lsm;
using Placed = std::pair<std::uint64_t, Entry>;  // where it begins, and the entry

static std::string Walk(const SstReader& table, std::size_t read_size,
                        std::vector<Placed>* entries) {
  SstReader::Iterator iterator(&table, read_size);
  for (iterator.Seek(""); iterator.valid(); iterator.Next()) {
    const auto& [op, key, value] = iterator.entry();
    entries->push_back({iterator.offset(), {op, std::string(key), std::string(value)}});
  }
  return iterator.status().ToString();
}

// The keys ascend, the filter admits them, and the index is a part of them.
static bool IsWellFormed(const SstReader& table, const std::vector<Placed>& entries) {
  const auto not_ascending = [](auto& a, auto& b) { return a.second.key >= b.second.key; };
  if (std::adjacent_find(entries.begin(), entries.end(), not_ascending) != entries.end())
    return false;
  auto indexed = table.Index().begin();
  for (const auto& [offset, entry] : entries) {
    if (!table.MayContain(entry.key)) return false;
    const bool last = indexed == table.Index().end();
    if (!last && indexed->offset == offset && indexed->key == entry.key) ++indexed;
  }
  return indexed == table.Index().end();
}

// `next` is the first entry whose key is not less, or null.
static void TryKey(const SstReader& table, const std::string& key, const Placed* next,
                   bool well_formed) {
  bool found = false;
  Entry got{0, key, ""};
  const bool get_ok = table.Get(key, &found, &got.op, &got.value).ok();
  SstReader::Iterator iterator(&table, 64);
  iterator.Seek(key);
  if (!well_formed) return;
  Claim(get_ok && iterator.status().ok() && iterator.valid() == (next != nullptr));
  if (next == nullptr) return Claim(!found);
  Claim(iterator.offset() == next->first && found == (next->second.key == key));
  if (found && got.op == kPut) Claim(got == next->second);
}

static void TryTable(std::string_view bytes) {
  const MemoryFile file(bytes);
  std::shared_ptr<SstReader> table;
  if (!SstReader::Open(file.path(), &table).ok()) return;
  std::vector<Placed> entries, same_entries;
  const std::string end = Walk(*table, 1, &entries);
  Claim(Walk(*table, 4096, &same_entries) == end && same_entries == entries);
  const bool well_formed = end == "OK" && IsWellFormed(*table, entries);
  for (const Placed& placed : entries) {
    const Placed* const next = &placed == &entries.back() ? nullptr : &placed + 1;
    TryKey(*table, placed.second.key, &placed, well_formed);
    TryKey(*table, placed.second.key + '\0', next, well_formed);
  }
}

// Also with a right checksum in the footer.
void TryInput(std::string_view input) {
  TryTable(input);
  if (input.size() < kFooterSize) return;
  std::string sealed(input.substr(0, input.size() - kFooterSize));
  const char* const footer = input.data() + sealed.size();
  const auto field = [&](std::size_t i) { return LoadU64(footer + 8 * i); };
  AppendFooter({field(0), field(1), field(2), field(3), field(4)}, &sealed);
  TryTable(sealed);
}

}  // namespace kandb::fuzz
