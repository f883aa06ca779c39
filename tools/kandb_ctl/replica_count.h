// How many replicas a region has: the measure by which regions are grouped, chosen and listed.
#pragma once

#include <algorithm>
#include <cstddef>
#include <map>
#include <tuple>

#include "kandb_ctl/region_list.h"
#include "pdpb/messages.h"

namespace kandb::ctl {

// Few voters first, so that regions at risk come first.
struct ReplicaCount {
  std::size_t voters = 0;
  std::size_t learners = 0;
  bool operator==(const ReplicaCount&) const = default;
  bool operator<(const ReplicaCount& other) const {
    return std::tie(voters, learners) < std::tie(other.voters, other.learners);
  }
};

// A peer with an unknown role counts as a voter.
inline ReplicaCount CountReplicas(const pdpb::Region& region) {
  const auto is_learner = [](const auto& peer) { return peer.role == pdpb::PeerRole::kLearner; };
  const auto learners =
      static_cast<std::size_t>(std::count_if(region.peers.begin(), region.peers.end(), is_learner));
  return {region.peers.size() - learners, learners};
}

using ReplicaCounts = std::map<ReplicaCount, std::size_t>;  // regions of each

inline ReplicaCounts CountByReplicas(const RegionList& regions) {
  ReplicaCounts counts;
  for (const pdpb::Region& region : regions) ++counts[CountReplicas(region)];
  return counts;
}

// What most regions have. `counts` is not empty.
inline ReplicaCounts::const_iterator UsualReplicas(const ReplicaCounts& counts) {
  const auto rarer = [](const auto& a, const auto& b) { return a.second < b.second; };
  return std::max_element(counts.begin(), counts.end(), rarer);
}

}  // namespace kandb::ctl
