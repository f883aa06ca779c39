#include "lsm/read_view.h"

#include <utility>

#include "lsm/entry_source.h"
#include "lsm/memtable_source.h"
#include "lsm/merging_iterator.h"

namespace kandb::lsm {

namespace {

// The first read in a table: enough for the few records of a short range.
constexpr std::size_t kFirstReadSize = 16384;  // bytes

// With a `chunk_limit` of 0 each memtable is one chunk.
Status Walk(const ReadView& view, std::string_view start, std::string_view end, std::uint32_t limit,
            const PairVisitor& visit, std::size_t chunk_limit, bool* of_one_moment) {
  bool same_moment = true;
  std::vector<std::unique_ptr<EntrySource>> sources;
  sources.reserve(view.memtables.size() + view.tables.size());
  for (const auto& memtable : view.memtables) {
    sources.push_back(std::make_unique<MemTableSource>(memtable, chunk_limit, &same_moment));
  }
  for (const auto& table : view.tables) {
    sources.push_back(std::make_unique<SstReader::Iterator>(table.get(), kFirstReadSize));
  }

  MergingIterator merged(std::move(sources), end);
  std::uint32_t visited = 0;
  for (merged.Seek(start); merged.valid() && visited < limit; merged.Next()) {
    const EntryView& entry = merged.entry();
    if (entry.op != kPut) continue;
    ++visited;
    if (!visit(entry.key, entry.value)) break;
  }
  if (of_one_moment != nullptr) *of_one_moment = same_moment;
  return merged.status();
}

}  // namespace

Status GetLive(const ReadView& view, std::string_view key, std::string* value, bool* found) {
  *found = false;
  std::uint8_t op = kDelete;
  for (const auto& memtable : view.memtables) {
    if (!memtable->Lookup(key, &op, value)) continue;
    *found = op == kPut;
    return {};
  }
  for (const auto& table : view.tables) {
    bool has_record = false;
    if (Status s = table->Get(key, &has_record, &op, value); !s.ok()) return s;
    if (!has_record) continue;
    *found = op == kPut;
    return {};
  }
  return {};
}

Status ForEachLive(const ReadView& view, std::string_view start, std::string_view end,
                   std::uint32_t limit, const PairVisitor& visit, bool* of_one_moment) {
  return Walk(view, start, end, limit, visit, MemTable::Chunk::kMaxOpenSize, of_one_moment);
}

Status ForEachLiveAtOnce(const ReadView& view, std::string_view start, std::string_view end,
                         std::uint32_t limit, const PairVisitor& visit) {
  return Walk(view, start, end, limit, visit, 0, nullptr);
}

}  // namespace kandb::lsm
