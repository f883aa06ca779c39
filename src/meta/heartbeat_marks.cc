#include "meta/heartbeat_marks.h"

namespace kandb::meta {

void HeartbeatMarks::Mark(std::uint64_t region_id, std::uint64_t store_id) {
  // Both may need memory: taken before anything changes, so that marks and counts always agree.
  std::uint64_t& count = region_counts[store_id];
  const auto [mark, inserted] = last_reporters.try_emplace(region_id, store_id);
  ++count;
  if (inserted) return;
  const auto previous = region_counts.find(mark->second);
  mark->second = store_id;
  if (--previous->second == 0) region_counts.erase(previous);
}

std::uint64_t HeartbeatMarks::RegionCount(std::uint64_t store_id) const {
  const auto found = region_counts.find(store_id);
  return found == region_counts.end() ? 0 : found->second;
}

}  // namespace kandb::meta
