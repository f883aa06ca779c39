#include "kandb_ctl/report_regions.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace kandb::ctl {

namespace {

// What is remarkable about a region, as bits.
enum Mark : std::uint8_t {
  kGapBefore = 1,
  kOverlaps = 2,
  kEmptyRange = 4,
  kBesideFault = 8,
  kUnusualReplicas = 16,
  kListed = 32,
};

class Chooser {
 public:
  Chooser(const RegionList& region_list, const RegionLimits& region_limits)
      : list(region_list), limits(region_limits), order(list.SortedRanges()), marks(order.size()) {}

  ShownRegions Choose() {
    MarkFaults();
    MarkUnusual();
    List(kGapBefore | kOverlaps | kEmptyRange | kBesideFault);
    List(kUnusualReplicas);
    ShownRegions shown;
    shown.regions = ListedRegions();
    AddBins(&shown);
    return shown;
  }

 private:
  void MarkFaults();
  void MarkUnusual();
  void List(unsigned which);
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

void Chooser::MarkUnusual() {
  using Replicas = std::pair<std::size_t, std::size_t>;  // voters, learners
  const auto replicas_of = [](const pdpb::Region& region) {
    const auto is_learner = [](const auto& peer) { return peer.role == pdpb::PeerRole::kLearner; };
    const auto learners = static_cast<std::size_t>(
        std::count_if(region.peers.begin(), region.peers.end(), is_learner));
    return Replicas{region.peers.size() - learners, learners};
  };
  std::map<Replicas, std::size_t> counts;
  for (const pdpb::Region& region : list) ++counts[replicas_of(region)];
  const auto fewer = [](const auto& a, const auto& b) { return a.second < b.second; };
  const Replicas usual = std::max_element(counts.begin(), counts.end(), fewer)->first;
  std::vector<bool> unusual;
  unusual.reserve(list.size());
  for (const pdpb::Region& region : list) unusual.push_back(replicas_of(region) != usual);
  for (std::size_t i = 0; i < order.size(); ++i) {
    if (unusual[order[i].position]) marks[i] |= kUnusualReplicas;
  }
}

void Chooser::List(unsigned which) {
  for (std::size_t i = 0; i < order.size() && listed_count < limits.alone; ++i) {
    if ((marks[i] & which) == 0 || (marks[i] & kListed) != 0) continue;
    const std::size_t bytes = order[i].start_key.size() + order[i].end_key.size();
    if (listed_bytes + bytes > limits.key_bytes) return;
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
