#include "lsm/merging_iterator.h"

#include <algorithm>

namespace kandb::lsm {

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
  // The winner's entry hides older ones with its key.
  for (const auto& source : sources) {
    if (source.get() == winner || source->entry().key != winner->entry().key) continue;
    source->Next();
    if (source->status().ok()) continue;
    failure = source->status();
    return;
  }
  run_length = RunLength();
  run = winner->batch().first(run_length);
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
  const std::span<const EntryView> batch = winner->batch();
  if (!bounded || batch.back().key < bound) return batch.size();
  // Sources that alternate have short runs: search from the front in growing steps.
  std::size_t step = 1;
  while (step < batch.size() && batch[step].key < bound) step *= 2;
  const auto first = batch.begin() + static_cast<std::ptrdiff_t>(step / 2 + 1);
  const auto last = batch.begin() + static_cast<std::ptrdiff_t>(std::min(step, batch.size()));
  const auto cut =
      std::partition_point(first, last, [&](const EntryView& entry) { return entry.key < bound; });
  return static_cast<std::size_t>(cut - batch.begin());
}

}  // namespace kandb::lsm
