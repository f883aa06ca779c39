// Which regions the report page lists one by one. Of a large cluster only those that somebody may
// look for; the others are put into bins of neighbours, so that page and memory stay small.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kandb_ctl/region_list.h"
#include "pdpb/messages.h"

namespace kandb::ctl {

struct RegionLimits {
  std::size_t all = 50'000;  // up to here each region is listed
  std::size_t alone =
      10'000;  // beyond: at most so many are listed, and so many bytes of their keys
  std::size_t key_bytes = std::size_t{2} << 20;
  std::size_t bins = 2'000;
};

struct ShownRegions {
  // Regions that follow one another, without those that are listed.  Those with empty ranges, which
  // cover nothing, are in none.
  struct Bin {
    std::size_t region_count = 0;
    std::size_t gap_count = 0;  // more than 0 only when there were too many to list their regions
    std::size_t overlap_count = 0;
  };

  std::vector<pdpb::Region> regions;  // the last bins.size() stand for bins: their ranges, no more
  std::vector<Bin> bins;
};

// Listed are regions at gaps and overlaps and those with empty ranges, up to half of the limits,
// then those with fewer voters than most, then the others of both kinds, then those with another
// number of replicas than most.
ShownRegions ChooseRegions(const RegionList& list, const RegionLimits& limits = {});

}  // namespace kandb::ctl
