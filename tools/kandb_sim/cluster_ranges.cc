// Splits and merges.

#include <algorithm>
#include <cassert>
#include <iterator>
#include <utility>

#include "kandb_sim/cluster.h"
#include "kandb_sim/key_space.h"

namespace kandb::sim {

namespace {

// Regions to try until one can be split or merged.
constexpr int kTries = 8;

std::uint64_t EndPosition(const pdpb::Region& region) {
  return region.end_key.empty() ? kPositionEnd : PositionOf(region.end_key);
}

std::vector<std::uint64_t> SortedStoreIds(const pdpb::Region& region) {
  std::vector<std::uint64_t> ids;
  for (const pdpb::Peer& peer : region.peers) ids.push_back(peer.store_id);
  std::ranges::sort(ids);
  return ids;
}

}  // namespace

void Cluster::Grow(std::vector<std::uint64_t>* ids) {
  std::vector<SimRegion*> parents;
  for (auto& [start_key, region] : regions) parents.push_back(&region);
  const std::size_t quotient = options.region_count / parents.size();
  const std::size_t remainder = options.region_count % parents.size();
  for (std::size_t i = 0; i < parents.size(); ++i) {
    SplitEvenly(parents[i], quotient + (i < remainder ? 1 : 0), ids);
  }
}

// The region keeps the first piece; each other piece becomes a new region with members on the same
// stores. The version of all of them grows by the number of new regions.
void Cluster::SplitEvenly(SimRegion* region, std::uint64_t pieces,
                          std::vector<std::uint64_t>* ids) {
  if (pieces < 2) return;
  pdpb::Region* parent = &region->record;
  const std::uint64_t begin = PositionOf(parent->start_key);
  const std::uint64_t step = (EndPosition(*parent) - begin) / pieces;
  assert(step > 0);
  parent->epoch.version += pieces - 1;
  std::string last_end = std::exchange(parent->end_key, KeyAt(begin + step));
  changed.insert(parent->id);
  for (std::uint64_t i = 1; i < pieces; ++i) {
    SimRegion child = *region;
    child.record.id = TakeId(ids);
    child.record.start_key = KeyAt(begin + step * i);
    child.record.end_key = i + 1 < pieces ? KeyAt(begin + step * (i + 1)) : last_end;
    for (pdpb::Peer& peer : child.record.peers) peer.id = TakeId(ids);
    Add(std::move(child));
  }
}

void Cluster::SplitOne(Random* random, std::vector<std::uint64_t>* ids) {
  for (int i = 0; i < kTries; ++i) {
    const pdpb::Region& record = RandomRegion(random).record;
    SimRegion* region = by_id.at(record.id);
    if (!region->led || EndPosition(record) - PositionOf(record.start_key) < 2) continue;
    SplitEvenly(region, 2, ids);
    return;
  }
}

bool Cluster::CanMerge(const SimRegion& left, const SimRegion& right) const {
  // A range changes at most once a round: requests of different leaders are not ordered.
  const auto quiet = [&](const SimRegion& region) {
    return region.led && !changed.contains(region.record.id) &&
           std::ranges::all_of(region.record.peers, [&](const pdpb::Peer& peer) {
             return peer.role == pdpb::PeerRole::kVoter && IsUp(peer.store_id);
           });
  };
  return quiet(left) && quiet(right) && SortedStoreIds(left.record) == SortedStoreIds(right.record);
}

void Cluster::MergeTwo(Random* random) {
  for (int i = 0; i < kTries; ++i) {
    SimRegion* left = by_id.at(RandomRegion(random).record.id);
    const auto right = std::next(regions.find(left->record.start_key));
    if (right == regions.end() || !CanMerge(*left, right->second)) continue;
    const pdpb::Region gone = std::move(right->second.record);
    left->record.end_key = gone.end_key;
    left->record.epoch.version = std::max(left->record.epoch.version, gone.epoch.version) + 1;
    left->record.epoch.conf_version =
        std::max(left->record.epoch.conf_version, gone.epoch.conf_version);
    regions.erase(right);
    by_id.erase(gone.id);
    changed.insert(left->record.id);
    removed[gone.id] = left->record.id;
    // Without a record the server does not ask for these replicas to be destroyed.
    for (SimStore& store : stores) store.stale.erase(gone.id);
    return;
  }
}

}  // namespace kandb::sim
