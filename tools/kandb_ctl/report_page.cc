#include "kandb_ctl/report_page.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <set>
#include <span>
#include <string_view>
#include <utility>

#include "kandb_ctl/json_message.h"
#include "kandb_ctl/key_text.h"
#include "kandb_ctl/report_files.h"
#include "kandb_ctl/report_key_space.h"
#include "kandb_ctl/report_regions.h"

namespace kandb::ctl {

namespace {

constexpr std::size_t kMaxFindingsShown = 10'000;

std::size_t ShownOf(std::size_t count) { return std::min(count, kMaxFindingsShown); }

// For text and for values of attributes.
std::string Html(std::string_view text) {
  std::string html;
  for (const char c : text) {
    switch (c) {
      case '&':
        html += "&amp;";
        break;
      case '<':
        html += "&lt;";
        break;
      case '>':
        html += "&gt;";
        break;
      case '"':
        html += "&quot;";
        break;
      case '\'':
        html += "&#39;";
        break;
      default:
        html += c;
    }
  }
  return html;
}

std::string Counted(std::size_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string TimeText(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char text[64];
  return {text, std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &parts)};
}

// A cell with a number and a bar, as wide as its share of the largest number in the column.
std::string BarCell(const char* kind, std::size_t count, std::size_t largest) {
  const std::size_t percent = largest == 0 ? 0 : count * 100 / largest;
  return "<td class=\"bar " + std::string(kind) + "\"><span>" + std::to_string(count) +
         "</span><i style=\"width:" + std::to_string(percent) + "%\"></i></td>";
}

std::string Fact(const char* name, const std::string& text) {
  return "<div><dt>" + std::string(name) + "</dt><dd>" + Html(text) + "</dd></div>\n";
}

std::string SummarySection(const std::string& dir, std::chrono::system_clock::time_point made_at,
                           const ClusterState& cluster, std::size_t finding_count) {
  return "<header>\n<h1>" + Html(dir) + "</h1>\n<dl>\n" + Fact("Made", TimeText(made_at)) +
         Fact("Bootstrapped", cluster.bootstrapped ? "yes" : "no") +
         Fact("Ids mark", cluster.id_mark ? std::to_string(*cluster.id_mark) : "none") +
         Fact("Stores", std::to_string(cluster.stores.size())) +
         Fact("Regions", std::to_string(cluster.regions.size())) + "<div class=\"" +
         (finding_count > 0 ? "bad" : "good") + "\"><dt>Findings</dt><dd><a href=\"#findings\">" +
         std::to_string(finding_count) + "</a></dd></div>\n</dl>\n</header>\n";
}

std::string CountsText(std::size_t region_count, const ShownRegions& shown, const KeySpace& space) {
  std::size_t gap_count = space.gap_count;
  std::size_t overlap_count = space.overlap_count;
  for (const ShownRegions::Bin& bin : shown.bins) {
    gap_count += bin.gap_count;
    overlap_count += bin.overlap_count;
  }
  std::string text = Counted(region_count, "region") + ", " + Counted(gap_count, "gap") + ", " +
                     Counted(overlap_count, "overlap");
  if (shown.bins.empty()) return text;
  return text + ". More than " + std::to_string(RegionLimits{}.all) + ", so neighbours are drawn " +
         "and listed together, in " + Counted(shown.bins.size(), "bin") + "; on their own are " +
         std::to_string(shown.regions.size() - shown.bins.size()) +
         " regions: those at gaps and overlaps, with empty ranges, or with another number of " +
         "replicas than most";
}

// `more_of` say where the rest is to be found.
std::string NotShown(std::size_t count, const char* more_of) {
  if (count <= kMaxFindingsShown) return "";
  return "<p>And " + std::to_string(count - kMaxFindingsShown) + " more: " + more_of + "</p>\n";
}

std::string FindingsSection(const ClusterState& cluster, const std::vector<Finding>& findings) {
  std::string html = "<section id=\"findings\">\n<h2>Findings</h2>\n";
  if (findings.empty()) html += "<p>Nothing found.</p>\n";
  if (!findings.empty()) {
    html +=
        "<div class=\"box\" tabindex=\"0\" role=\"region\" aria-label=\"Findings\"><table>\n"
        "<thead><tr><th>Where</th><th>What</th></tr></thead>\n<tbody>\n";
    for (const Finding& finding : std::span(findings).first(ShownOf(findings.size()))) {
      html += "<tr><td class=\"key\">" + Html(finding.where) + "</td><td>" + Html(finding.text) +
              "</td></tr>\n";
    }
    html += "</tbody></table></div>\n" +
            NotShown(findings.size(), "<code>kandb-ctl state verify</code> lists all.");
  }
  if (!cluster.warnings.empty()) {
    html += "<h3>Records that are left out of this page</h3>\n<ul class=\"box\">\n";
    for (const std::string& warning :
         std::span(cluster.warnings).first(ShownOf(cluster.warnings.size()))) {
      html += "<li>" + Html(warning) + "</li>\n";
    }
    html += "</ul>\n" +
            NotShown(cluster.warnings.size(), "<code>kandb-ctl state dump</code> lists all.");
  }
  return html + "</section>\n";
}

std::string StoresSection(const ClusterState& cluster) {
  struct Load {
    const pdpb::Store* record = nullptr;  // none for a store that only peers name
    std::size_t region_count = 0;
    std::size_t leader_count = 0;
  };
  std::map<std::uint64_t, Load> loads;
  for (const pdpb::Store& store : cluster.stores) loads[store.id].record = &store;
  for (const pdpb::Region& region : cluster.regions) {
    std::set<std::uint64_t> store_ids;
    for (const pdpb::Peer& peer : region.peers) store_ids.insert(peer.store_id);
    for (const std::uint64_t id : store_ids) ++loads[id].region_count;
    if (!region.peers.empty()) ++loads[region.peers.front().store_id].leader_count;
  }
  std::string html = "<section>\n<h2>Stores</h2>\n";
  if (loads.empty()) return html + "<p>There are no stores.</p>\n</section>\n";

  // One scale for all bars, so that lengths can be compared across columns.
  std::size_t largest = 0;
  for (const auto& [id, load] : loads) largest = std::max(largest, load.region_count);
  html +=
      "<p>The peer that is listed first counts as the leader.</p>\n"
      "<div class=\"box\" tabindex=\"0\" role=\"region\" aria-label=\"Stores\"><table>\n"
      "<thead><tr><th>Store</th><th>Address</th><th>State</th><th>Regions</th>"
      "<th>Leaders</th></tr></thead>\n<tbody>\n";
  for (const auto& [id, load] : loads) {
    const std::string id_text = std::to_string(id);
    html += "<tr><td><button class=\"link\" data-store=\"" + id_text +
            "\" title=\"List the regions"
            " of store " +
            id_text + "\">" + id_text + "</button></td>";
    if (load.record == nullptr) {
      html += "<td colspan=\"2\"><strong class=\"bad\">unknown store</strong></td>";
    } else {
      html += "<td class=\"key\">" + Html(KeyText(load.record->address)) + "</td><td>" +
              std::to_string(load.record->state) + "</td>";
    }
    html += BarCell("regions", load.region_count, largest) +
            BarCell("leaders", load.leader_count, largest) + "</tr>\n";
  }
  return html + "</tbody></table></div>\n</section>\n";
}

std::string ReplicasSection(const ClusterState& cluster) {
  std::map<std::pair<std::size_t, std::size_t>, std::size_t> counts;  // of voters and learners
  std::size_t largest = 0;
  for (const pdpb::Region& region : cluster.regions) {
    const auto is_learner = [](const auto& peer) { return peer.role == pdpb::PeerRole::kLearner; };
    const auto learners = static_cast<std::size_t>(
        std::count_if(region.peers.begin(), region.peers.end(), is_learner));
    largest = std::max(largest, ++counts[{region.peers.size() - learners, learners}]);
  }
  std::string html = "<section>\n<h2>Replicas</h2>\n";
  if (counts.empty()) return html + "<p>There are no regions.</p>\n</section>\n";
  html +=
      "<div class=\"box\" tabindex=\"0\" role=\"region\" aria-label=\"Replicas\"><table>\n"
      "<thead><tr><th>Voters</th><th>Learners</th><th>Regions</th></tr></thead>\n<tbody>\n";
  for (const auto& [peers, region_count] : counts) {
    html += "<tr><td>" + std::to_string(peers.first) + "</td><td>" + std::to_string(peers.second) +
            "</td>" + BarCell("regions", region_count, largest) + "</tr>\n";
  }
  return html + "</tbody></table></div>\n</section>\n";
}

// For a script element: a browser looks for the end tag before it parses the data, so the data has
// no "<".
std::string PageData(const ClusterState& cluster, const ShownRegions& shown,
                     const KeySpace& space) {
  Json bounds = Json::array();
  for (const std::string_view bound : space.bounds) bounds.push_back(KeyText(bound));
  Json regions = Json::array();
  const pdpb::Region* first_bin = shown.regions.data() + (shown.regions.size() - shown.bins.size());
  for (const auto& [region, begin, end] : space.regions) {
    if (region >= first_bin) {
      const ShownRegions::Bin& bin = shown.bins[static_cast<std::size_t>(region - first_bin)];
      regions.push_back({"", begin, end, bin.region_count, bin.gap_count, bin.overlap_count});
      continue;
    }
    Json peers = Json::array();
    for (const pdpb::Peer& peer : region->peers) {
      Json row = {std::to_string(peer.id), std::to_string(peer.store_id)};
      if (peer.role != pdpb::PeerRole::kVoter) row.push_back(EnumText(peer.role));
      peers.push_back(std::move(row));
    }
    regions.push_back({std::to_string(region->id), begin, end,
                       std::to_string(region->epoch.conf_version),
                       std::to_string(region->epoch.version), std::move(peers)});
  }
  Json stores = Json::array();
  for (const pdpb::Store& store : cluster.stores) {
    stores.push_back({std::to_string(store.id), KeyText(store.address)});
  }
  const Json data = {{"bounds", std::move(bounds)},
                     {"pieces", space.pieces},
                     {"max_regions_per_piece", kMaxRegionsPerPiece},
                     {"regions", std::move(regions)},
                     {"stores", std::move(stores)}};
  std::string text;
  for (const char c : data.dump()) {
    if (c == '<') {
      text += "\\u003c";
    } else {
      text += c;
    }
  }
  return text;
}

// The template with each {{name}} replaced by the part of that name, in one pass: a part may
// contain any text. Every name must be known.
std::string FillTemplate(std::string_view text,
                         const std::map<std::string_view, std::string_view>& parts) {
  constexpr std::string_view kOpen = "{{";
  constexpr std::string_view kClose = "}}";
  std::string page;
  for (;;) {
    const std::size_t open = text.find(kOpen);
    if (open == text.npos) return page.append(text);
    const std::size_t close = text.find(kClose, open);
    page += text.substr(0, open);
    page += parts.at(text.substr(open + kOpen.size(), close - open - kOpen.size()));
    text.remove_prefix(close + kClose.size());
  }
}

}  // namespace

std::string ReportPage(const std::string& dir, std::chrono::system_clock::time_point made_at,
                       const ClusterState& cluster, const std::vector<Finding>& findings) {
  const ShownRegions shown = ChooseRegions(cluster.regions);
  const KeySpace space = CutKeySpace(shown.regions);
  const std::string directory = Html(dir);
  const std::string summary = SummarySection(dir, made_at, cluster, findings.size());
  const std::string counts = CountsText(cluster.regions.size(), shown, space);
  const std::string findings_section = FindingsSection(cluster, findings);
  const std::string stores = StoresSection(cluster);
  const std::string replicas = ReplicasSection(cluster);
  const std::string data = PageData(cluster, shown, space);
  return FillTemplate(page_html, {{"directory", directory},
                                  {"style.css", style_css},
                                  {"summary", summary},
                                  {"counts", counts},
                                  {"findings", findings_section},
                                  {"stores", stores},
                                  {"replicas", replicas},
                                  {"data", data},
                                  {"regions.js", regions_js},
                                  {"band.js", band_js}});
}

}  // namespace kandb::ctl
