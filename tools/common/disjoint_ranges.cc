#include "tools/common/disjoint_ranges.h"

#include <iterator>

namespace kandb::tools {

bool DisjointRanges::Add(std::uint64_t first, std::uint64_t count) {
  const std::uint64_t end = first + count;
  const auto after = ends.lower_bound(first);
  const auto before = after == ends.begin() ? ends.end() : std::prev(after);
  if (end <= first || (after != ends.end() && after->first < end) ||
      (before != ends.end() && before->second > first)) {
    return false;
  }
  if (before != ends.end() && before->second == first) {
    before->second = end;
  } else {
    ends[first] = end;
  }
  return true;
}

}  // namespace kandb::tools
