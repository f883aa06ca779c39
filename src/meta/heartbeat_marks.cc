#include "meta/heartbeat_marks.h"

namespace kandb::meta {

void HeartbeatMarks::Mark(std::uint64_t region_id, std::uint64_t store_id) {
  Page& page = pages[region_id / kPageSize];
  const std::size_t index = region_id % kPageSize;
  std::uint64_t& reporter = page.last_reporters[index];
  const bool was_marked = page.marked[index];
  if (was_marked && reporter == store_id) return;
  // May need memory: taken before anything changes, so that marks and counts always agree.
  ++region_counts[store_id];
  if (was_marked) {
    const auto previous = region_counts.find(reporter);
    if (--previous->second == 0) region_counts.erase(previous);
  }
  page.marked[index] = true;
  reporter = store_id;
}

std::uint64_t HeartbeatMarks::RegionCount(std::uint64_t store_id) const {
  const auto found = region_counts.find(store_id);
  return found == region_counts.end() ? 0 : found->second;
}

}  // namespace kandb::meta
