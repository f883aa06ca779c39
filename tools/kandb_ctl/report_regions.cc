#include "kandb_ctl/report_regions.h"

#include <algorithm>
#include <optional>
#include <string>

#include "kandb_ctl/replica_count.h"

namespace kandb::ctl {

namespace {

// What is remarkable about a region, as bits.
enum Mark : std::uint8_t {
  kUnremarkable = 0,
  kGapBefore = 1,
  kOverlaps = 2,
  kEmptyRange = 4,
  kBesideFault = 8,
  kFewVoters = 16,
  kUnusualReplicas = 32,
  kListed = 64,
};
constexpr unsigned kFault = kGapBefore | kOverlaps | kEmptyRange | kBesideFault;

class Chooser {
 public:
  Chooser(const RegionList& region_list, const RegionLimits& region_limits)
      : list(region_list), limits(region_limits), order(list.SortedRanges()), marks(order.size()) {}

  ShownRegions Choose() {
    MarkFaults();
    MarkReplicas();
    // Faults leave half of the room to regions at risk, and take what these leave.
    List(kFault, 2);
    List(kFewVoters, 1);
    List(kFault, 1);
    List(kUnusualReplicas, 1);
    ShownRegions shown;
    shown.regions = ListedRegions();
    AddBins(&shown);
    return shown;
  }

 private:
  void MarkFaults();
  void MarkReplicas();
  void List(unsigned which, std::size_t share);  // within limits divided by `share`
  std::vector<pdpb::Region> ListedRegions() const;
  void AddBins(ShownRegions* shown) const;

  const RegionList& list;
  const RegionLimits limits;
  const std::vector<RegionList::Range> order;
  std::vector<std::uint8_t> marks;  // for each of `order`
  std::size_t listed_count = 0;
  std::size_t listed_bytes = 0;
};

void Chooser::MarkFaults() {
  std::optional<std::size_t> furthest;  // of those passed, the one that reaches furthest
  std::string_view reach;               // its end
  bool reaches_end = false;             // which is no bound
  const auto mark = [&](std::size_t i, Mark fault) {
    marks[i] |= fault;
    if (furthest) marks[*furthest] |= kBesideFault;
  };
  for (std::size_t i = 0; i < order.size(); ++i) {
    if (order[i].empty()) {
      marks[i] |= kEmptyRange;
      continue;
    }
    if (!reaches_end && order[i].start_key > reach) {
      mark(i, kGapBefore);
    } else if (reaches_end || order[i].start_key < reach) {
      mark(i, kOverlaps);
    }
    if (reaches_end || !order[i].ReachesBeyond(reach)) continue;
    furthest = i;
    reach = order[i].end_key;
    reaches_end = reach.empty();
  }
  if (furthest && !reaches_end) marks[*furthest] |= kBesideFault;
}

void Chooser::MarkReplicas() {
  const ReplicaCounts counts = CountByReplicas(list);
  const ReplicaCount usual = UsualReplicas(counts)->first;
  std::vector<Mark> replica_marks;  // in the order of the list
  replica_marks.reserve(list.size());
  for (const pdpb::Region& region : list) {
    const ReplicaCount replicas = CountReplicas(region);
    const Mark unless_few = replicas == usual ? kUnremarkable : kUnusualReplicas;
    replica_marks.push_back(replicas.voters < usual.voters ? kFewVoters : unless_few);
  }
  for (std::size_t i = 0; i < order.size(); ++i) marks[i] |= replica_marks[order[i].position];
}

void Chooser::List(unsigned which, std::size_t share) {
  for (std::size_t i = 0; i < order.size() && listed_count < limits.alone / share; ++i) {
    if ((marks[i] & which) == 0 || (marks[i] & kListed) != 0) continue;
    const std::size_t bytes = order[i].start_key.size() + order[i].end_key.size();
    if (listed_bytes + bytes > limits.key_bytes / share) return;
    marks[i] |= kListed;
    listed_bytes += bytes;
    ++listed_count;
  }
}

std::vector<pdpb::Region> Chooser::ListedRegions() const {
  std::vector<bool> listed(list.size());
  for (std::size_t i = 0; i < order.size(); ++i) listed[order[i].position] = marks[i] & kListed;
  std::vector<pdpb::Region> regions;
  std::size_t position = 0;
  for (auto at = list.begin(); at != list.end(); ++at) {
    if (listed[position++]) regions.push_back(*at);
  }
  return regions;
}

void Chooser::AddBins(ShownRegions* shown) const {
  std::size_t key_bytes = 0;
  for (const RegionList::Range& range : order) key_bytes += range.start_key.size();
  // Long keys make few bins.
  const std::size_t bin_count =
      std::clamp(limits.key_bytes / (key_bytes / order.size() + 1), std::size_t{1}, limits.bins);
  const std::size_t bin_size = (order.size() + bin_count - 1) / bin_count;
  bool open = false;
  for (std::size_t i = 0; i < order.size(); ++i) {
    if (marks[i] & kListed) {
      open = false;
      continue;
    }
    if (order[i].empty()) continue;  // covers nothing
    if (!open || shown->bins.back().region_count == bin_size) {
      open = true;
      shown->bins.push_back({.region_count = 1});
      pdpb::Region& range = shown->regions.emplace_back();
      range.start_key = order[i].start_key;
      range.end_key = order[i].end_key;
      continue;  // a gap before it lies outside of the bin
    }
    ShownRegions::Bin& bin = shown->bins.back();
    ++bin.region_count;
    bin.gap_count += (marks[i] & kGapBefore) != 0;
    bin.overlap_count += (marks[i] & kOverlaps) != 0;
    std::string& reach = shown->regions.back().end_key;
    if (!reach.empty() && order[i].ReachesBeyond(reach)) reach = order[i].end_key;
  }
}

}  // namespace

ShownRegions ChooseRegions(const RegionList& list, const RegionLimits& limits) {
  if (list.size() > limits.all) return Chooser(list, limits).Choose();
  ShownRegions shown;
  for (const pdpb::Region& region : list) shown.regions.push_back(region);
  return shown;
}

}  // namespace kandb::ctl
