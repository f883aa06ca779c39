// Which store reported each region last, and how many regions that gives each store. The counts are
// kept as the marks change, so that a heartbeat's cost does not grow with the number of regions.
// Not thread-safe.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <unordered_map>

namespace kandb::meta {

class HeartbeatMarks {
 public:
  // `store_id` reported `region_id`. On std::bad_alloc neither marks nor counts change.
  void Mark(std::uint64_t region_id, std::uint64_t store_id);

  // How many regions `store_id` was the last to report.
  std::uint64_t RegionCount(std::uint64_t store_id) const;

 private:
  // The marks of neighbouring ids. Ids are given out in order, so most of a page is used, and a map
  // of pages stays small.
  static constexpr std::size_t kPageSize = 32;
  struct Page {
    std::bitset<kPageSize> marked;
    std::array<std::uint64_t, kPageSize> last_reporters;  // store ids, of those that are marked
  };

  std::unordered_map<std::uint64_t, Page> pages;                   // by region id / kPageSize
  std::unordered_map<std::uint64_t, std::uint64_t> region_counts;  // by store id
};

}  // namespace kandb::meta
