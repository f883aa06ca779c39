#include "lsm/scan_iterator.h"

namespace kandb::lsm {

namespace {

constexpr std::size_t kChunkSize = 4096;  // entries

// The first read in a table: enough for the few records of a short range.
constexpr std::size_t kFirstReadSize = 16384;  // bytes

}  // namespace

Status MemTableSource::Seek(std::string_view target) {
  FillChunk(target);
  return {};
}

Status MemTableSource::Next() {
  ++position;
  if (position < chunk.size()) {
    current = chunk[position];
  } else if (chunk.size() < kChunkSize) {
    is_valid = false;
  } else {
    // The smallest key after the last one is that key and a zero byte.
    std::string successor(chunk.back().key);
    successor.push_back('\0');
    FillChunk(successor);
  }
  return {};
}

void MemTableSource::FillChunk(std::string_view start) {
  memtable->Dump(start, end, kChunkSize, &chunk);
  position = 0;
  is_valid = !chunk.empty();
  if (is_valid) current = chunk[0];
}

Status MergingIterator::Seek(std::string_view target) {
  for (const auto& source : sources) {
    if (Status s = source->Seek(target); !s.ok()) return s;
  }
  Choose();
  return {};
}

Status MergingIterator::Next() {
  // Most of what there is stands in one source: a merge of one needs no choice.
  if (sources.size() == 1) {
    Status s = winner->Next();
    if (!winner->valid()) winner = nullptr;
    return s;
  }
  // The winner moves last: the key that the others are compared with is its own.
  for (const auto& source : sources) {
    if (source.get() == winner || source->entry().key != winner->entry().key) continue;
    if (Status s = source->Next(); !s.ok()) return s;
  }
  if (Status s = winner->Next(); !s.ok()) return s;
  Choose();
  return {};
}

void MergingIterator::Choose() {
  std::erase_if(sources, [](const auto& source) { return !source->valid(); });
  winner = nullptr;
  for (const auto& source : sources) {
    if (winner == nullptr || source->entry().key < winner->entry().key) winner = source.get();
  }
}

Status ForEachLive(const ReadView& view, std::string_view start, std::string_view end,
                   std::uint32_t limit, const PairVisitor& visit) {
  std::vector<std::unique_ptr<EntrySource>> sources;
  sources.reserve(view.memtables.size() + view.tables.size());
  for (const auto& memtable : view.memtables) {
    sources.push_back(std::make_unique<MemTableSource>(memtable, end));
  }
  for (const auto& table : view.tables) {
    sources.push_back(std::make_unique<SstReader::Iterator>(table.get(), kFirstReadSize));
  }

  MergingIterator merged(std::move(sources));
  Status status = merged.Seek(start);
  std::uint32_t visited = 0;
  while (status.ok() && merged.valid() && visited < limit) {
    const EntryView& entry = merged.entry();
    if (!end.empty() && entry.key >= end) break;
    if (entry.op == kPut) {
      ++visited;
      if (!visit(entry.key, entry.value)) break;
    }
    status = merged.Next();
  }
  return status;
}

}  // namespace kandb::lsm
