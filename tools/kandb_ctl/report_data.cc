#include "kandb_ctl/report_data.h"

#include <utility>

#include "kandb_ctl/json_message.h"

namespace kandb::ctl {

namespace {

Json PeersOf(const pdpb::Region& region) {
  Json peers = Json::array();
  for (const pdpb::Peer& peer : region.peers) {
    Json row = {std::to_string(peer.id), std::to_string(peer.store_id)};
    if (peer.role != pdpb::PeerRole::kVoter) row.push_back(EnumText(peer.role));
    peers.push_back(std::move(row));
  }
  return peers;
}

Json RegionsOf(const ShownRegions& shown, const KeySpace& space) {
  Json regions = Json::array();
  const pdpb::Region* first_bin = shown.regions.data() + (shown.regions.size() - shown.bins.size());
  for (const auto& [region, begin, end] : space.regions) {
    if (region >= first_bin) {
      const ShownRegions::Bin& bin = shown.bins[static_cast<std::size_t>(region - first_bin)];
      regions.push_back({"", begin, end, bin.region_count, bin.gap_count, bin.overlap_count});
      continue;
    }
    regions.push_back({std::to_string(region->id), begin, end,
                       std::to_string(region->epoch.conf_version),
                       std::to_string(region->epoch.version), PeersOf(*region)});
  }
  return regions;
}

}  // namespace

std::string ReportData(const std::vector<std::string>& arguments, const ClusterState& cluster,
                       const ReplicaCounts& replica_counts, const ShownRegions& shown,
                       const KeySpace& space) {
  Json bounds = Json::array();
  for (const std::string_view bound : space.bounds) bounds.push_back(KeyText(bound));
  Json replicas = Json::array();
  for (const auto& [count, regions] : replica_counts) {
    replicas.push_back({count.voters, count.learners, regions});
  }
  Json stores = Json::array();
  for (const pdpb::Store& store : cluster.stores) {
    stores.push_back({std::to_string(store.id), KeyText(store.address)});
  }
  const std::string json = JsonText({{"arguments", arguments},
                                     {"bounds", std::move(bounds)},
                                     {"pieces", space.pieces},
                                     {"max_regions_per_piece", kMaxRegionsPerPiece},
                                     {"regions", RegionsOf(shown, space)},
                                     {"replicas", std::move(replicas)},
                                     {"stores", std::move(stores)}});
  // A browser looks for the end tag before it parses the data, so the data has no "<".
  std::string text;
  text.reserve(json.size());
  for (const char c : json) {
    if (c == '<') {
      text += "\\u003c";
    } else {
      text += c;
    }
  }
  return text;
}

}  // namespace kandb::ctl
