#include "kandb_ctl/report_key_space.h"

#include <algorithm>
#include <set>
#include <tuple>

namespace kandb::ctl {

namespace {

void PlaceRegions(const std::vector<pdpb::Region>& regions, KeySpace* space) {
  space->bounds.emplace_back();
  for (const pdpb::Region& region : regions) {
    space->bounds.push_back(region.start_key);
    space->bounds.push_back(region.end_key);  // an empty one is the first bound again
  }
  auto& bounds = space->bounds;
  std::sort(bounds.begin(), bounds.end());
  bounds.erase(std::unique(bounds.begin(), bounds.end()), bounds.end());

  const auto position = [&](std::string_view key) {
    return static_cast<std::size_t>(std::lower_bound(bounds.begin(), bounds.end(), key) -
                                    bounds.begin());
  };
  for (const pdpb::Region& region : regions) {
    const std::size_t end = region.end_key.empty() ? bounds.size() : position(region.end_key);
    space->regions.push_back({&region, position(region.start_key), end});
  }
  std::sort(space->regions.begin(), space->regions.end(), [](const auto& a, const auto& b) {
    return std::tie(a.begin, a.end, a.region->id) < std::tie(b.begin, b.end, b.region->id);
  });
}

void FillPieces(KeySpace* space) {
  std::vector<std::vector<std::size_t>> ending(space->bounds.size() + 1);
  std::set<std::size_t> covering;
  std::size_t next = 0;
  for (std::size_t piece = 0; piece < space->bounds.size(); ++piece) {
    for (const std::size_t region : ending[piece]) covering.erase(region);
    for (; next < space->regions.size() && space->regions[next].begin == piece; ++next) {
      if (space->regions[next].end <= piece) continue;
      covering.insert(next);
      ending[space->regions[next].end].push_back(next);
    }
    auto& listed = space->pieces.emplace_back();
    for (const std::size_t region : covering) {
      if (listed.size() == kMaxRegionsPerPiece) break;
      listed.push_back(region);
    }
  }
}

}  // namespace

KeySpace CutKeySpace(const std::vector<pdpb::Region>& regions) {
  KeySpace space;
  PlaceRegions(regions, &space);
  FillPieces(&space);
  std::size_t before = 1;
  for (const auto& piece : space.pieces) {
    if (piece.empty() && before != 0) ++space.gap_count;
    if (piece.size() > 1 && before <= 1) ++space.overlap_count;
    before = piece.size();
  }
  return space;
}

}  // namespace kandb::ctl
