#include "lsm/scan_iterator.h"

#include <algorithm>

namespace kandb::lsm {

namespace {

// Records of a memtable that are decoded at once: so few that they are still in the processor's
// cache when they are looked at.
constexpr std::size_t kBatchSize = 128;

// The first read in a table: enough for the few records of a short range.
constexpr std::size_t kFirstReadSize = 16384;  // bytes

}  // namespace

void MemTableSource::Seek(std::string_view target) {
  BeginChunk(target);
  DecodeBatch();
}

void MemTableSource::Refill() {
  if (rest.empty() && !complete) {
    rest = chunk.Complete().subspan(decoded);
    complete = true;
  }
  if (rest.empty() && !chunk.at_end()) {
    // The smallest key after the last one is that key and a zero byte.
    std::string successor(batch.back().key);
    successor.push_back('\0');
    const std::uint64_t previous = chunk.moment();
    BeginChunk(successor);
    if (chunk.moment() != previous) *same_moment = false;
  }
  DecodeBatch();
}

void MemTableSource::BeginChunk(std::string_view start) {
  rest = chunk.Begin(start, chunk_size);
  complete = false;
  decoded = 0;
}

void MemTableSource::DecodeBatch() {
  const std::size_t count = std::min(kBatchSize, rest.size());
  EntryTree::Decode(rest.first(count), &batch);
  rest = rest.subspan(count);
  decoded += count;
  at_hand = batch;
}

void MergingIterator::Seek(std::string_view target) {
  run = {};
  for (const auto& source : sources) source->Seek(target);
  Choose();
}

void MergingIterator::NextRun() {
  winner->Skip(run_length);
  Choose();
}

void MergingIterator::Choose() {
  winner = nullptr;
  for (const auto& source : sources) {
    if (source->status().ok()) continue;
    failure = source->status();
    return;
  }
  std::erase_if(sources, [](const auto& source) { return !source->valid(); });
  for (const auto& source : sources) {
    if (winner == nullptr || source->entry().key < winner->entry().key) winner = source.get();
  }
  if (winner == nullptr || (!end.empty() && winner->entry().key >= end)) return;
  // What the winner's entry hides.
  for (const auto& source : sources) {
    if (source.get() == winner || source->entry().key != winner->entry().key) continue;
    source->Next();
    if (source->status().ok()) continue;
    failure = source->status();
    return;
  }
  run_length = RunLength();
  run = winner->stretch().first(run_length);
}

std::size_t MergingIterator::RunLength() const {
  bool bounded = !end.empty();
  std::string_view bound = end;
  for (const auto& source : sources) {
    if (source.get() == winner || !source->valid()) continue;
    if (bounded && bound <= source->entry().key) continue;
    bounded = true;
    bound = source->entry().key;
  }
  const std::span<const EntryView> stretch = winner->stretch();
  if (!bounded || stretch.back().key < bound) return stretch.size();
  // Of two runs that alternate every bound is near: search from the front in growing steps.
  std::size_t step = 1;
  while (step < stretch.size() && stretch[step].key < bound) step *= 2;
  const auto first = stretch.begin() + static_cast<std::ptrdiff_t>(step / 2 + 1);
  const auto last = stretch.begin() + static_cast<std::ptrdiff_t>(std::min(step, stretch.size()));
  const auto cut =
      std::partition_point(first, last, [&](const EntryView& entry) { return entry.key < bound; });
  return static_cast<std::size_t>(cut - stretch.begin());
}

Status ForEachLive(const ReadView& view, std::string_view start, std::string_view end,
                   std::uint32_t limit, const PairVisitor& visit, std::size_t chunk_limit,
                   bool* of_one_moment) {
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

}  // namespace kandb::lsm
