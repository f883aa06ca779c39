// The key space cut into pieces at every key at which a region starts or ends, so that gaps and
// overlaps are pieces of their own.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "pdpb/messages.h"

namespace kandb::ctl {

// Regions that all cover one another would make a quadratic number of entries; nobody reads on
// after this many.
inline constexpr std::size_t kMaxRegionsPerPiece = 8;

struct KeySpace {
  // Covers the pieces begin <= i < end; none when its range is empty or reversed.
  struct PlacedRegion {
    const pdpb::Region* region = nullptr;
    std::size_t begin = 0;
    std::size_t end = 0;
  };

  // Piece i reaches from bounds[i] to the next bound, the last one without end. The first bound is
  // the empty key.
  std::vector<std::string_view> bounds;
  std::vector<PlacedRegion> regions;  // in the order of their start keys
  // For each piece the positions in `regions` of those that cover it, the first
  // kMaxRegionsPerPiece.
  std::vector<std::vector<std::size_t>> pieces;
  std::size_t gap_count = 0;  // neighbouring pieces without a region are one gap
  std::size_t overlap_count = 0;
};

// The result borrows `regions` and their keys.
KeySpace CutKeySpace(const std::vector<pdpb::Region>& regions);

}  // namespace kandb::ctl
