#include "kandb_ctl/report_page.h"

#include <algorithm>
#include <map>
#include <set>
#include <span>
#include <string_view>

#include "kandb_ctl/key_text.h"
#include "kandb_ctl/replica_count.h"
#include "kandb_ctl/report_assets.h"
#include "kandb_ctl/report_data.h"
#include "kandb_ctl/report_files.h"
#include "kandb_ctl/report_html.h"
#include "kandb_ctl/report_key_space.h"
#include "kandb_ctl/report_regions.h"
#include "tools/common/utc_text.h"

namespace kandb::ctl {

namespace {

std::string SummarySection(const ReportSource& source, const ClusterState& cluster,
                           std::size_t finding_count) {
  const std::string made =
      tools::UtcText(source.made_at) + " on " + source.host + " by kandb-ctl " + source.version;
  const std::string server = source.live_at.empty() ? "stopped" : "read live at " + source.live_at;
  return "<header>\n<h1>" + Html(source.dir) + "</h1>\n<dl class=\"facts\">\n" +
         Fact("Made", Html(made)) + Fact("Server", Html(server)) +
         Fact("Bootstrapped", cluster.bootstrapped ? "yes" : "no") +
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
         " regions: of those at gaps and overlaps, with empty ranges, or with another number of " +
         "replicas than most, as many as the page has room for";
}

std::string FindingsSection(const ClusterState& cluster, const std::vector<Finding>& findings) {
  std::string html = "<section id=\"findings\">\n<h2>Findings</h2>\n";
  if (findings.empty()) html += "<p>Nothing found.</p>\n";
  if (!findings.empty()) {
    HtmlTable table("Findings", {"Where", "What"});
    for (const Finding& finding :
         std::span(findings).first(std::min(findings.size(), kMaxRowsShown))) {
      table.AddRow({{Html(finding.where), "key"}, {Html(finding.text)}});
    }
    html += std::move(table).Finish() + MoreRows(findings.size(), "state verify");
  }
  const auto& warnings = cluster.warnings;
  if (!warnings.empty()) {
    html += "<h3>Records that are left out of this page</h3>\n<ul class=\"box\">\n";
    for (const std::string& warning :
         std::span(warnings).first(std::min(warnings.size(), kMaxRowsShown))) {
      html += "<li>" + Html(warning) + "</li>\n";
    }
    html += "</ul>\n" + MoreRows(warnings.size(), "state dump");
  }
  return html + "</section>\n";
}

// Lists the regions that a search for `text` in `field` finds.
std::string ListLink(const char* field, const std::string& text, const std::string& label,
                     const std::string& title) {
  return "<button class=\"link\" data-field=\"" + std::string(field) + "\" data-text=\"" + text +
         "\" title=\"" + title + "\">" + label + "</button>";
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
  html += "<p>The peer that is listed first counts as the leader.</p>\n";
  HtmlTable table("Stores", {"Store", "Address", "State", "Regions", "Leaders"});
  for (const auto& [id, load] : loads) {
    const std::string id_text = std::to_string(id);
    const HtmlTable::Cell address =
        load.record ? HtmlTable::Cell{Html(KeyText(load.record->address)), "key"}
                    : HtmlTable::Cell{"<strong class=\"bad\">unknown store</strong>"};
    table.AddRow(
        {{ListLink("store", id_text, id_text, "List the regions of store " + id_text)},
         address,
         {load.record ? std::to_string(load.record->state) : ""},
         BarCell("regions", std::to_string(load.region_count), load.region_count, largest),
         BarCell("leaders", std::to_string(load.leader_count), load.leader_count, largest)});
  }
  return html + std::move(table).Finish() + "</section>\n";
}

std::string ReplicasSection(const ReplicaCounts& counts) {
  std::string html = "<section>\n<h2>Replicas</h2>\n";
  if (counts.empty()) return html + "<p>There are no regions.</p>\n</section>\n";
  const auto& [usual, largest] = *UsualReplicas(counts);
  html += "<p>A count of regions lists them.</p>\n";
  HtmlTable table("Replicas", {"Voters", "Learners", "Regions", "Remark"});
  for (const auto& [replicas, region_count] : counts) {
    const std::string voters = std::to_string(replicas.voters);
    const std::string learners = std::to_string(replicas.learners);
    const std::string title = "List the regions with " + Counted(replicas.voters, "voter") +
                              " and " + Counted(replicas.learners, "learner");
    const std::string link =
        ListLink("replicas", voters + "+" + learners, std::to_string(region_count), title);
    const bool few = replicas.voters < usual.voters;
    table.AddRow({{voters},
                  {learners},
                  BarCell("regions", link, region_count, largest),
                  {few ? "<strong class=\"bad\">fewer voters than most</strong>" : ""}});
  }
  return html + std::move(table).Finish() + "</section>\n";
}

}  // namespace

std::string ReportPage(const ReportSource& source, const Json& files, const ClusterState& cluster,
                       const std::vector<Finding>& findings) {
  const ShownRegions shown = ChooseRegions(cluster.regions);
  const KeySpace space = CutKeySpace(shown.regions);
  const ReplicaCounts replica_counts = CountByReplicas(cluster.regions);
  const std::map<std::string_view, std::string> made = {
      {"directory", Html(source.dir)},
      {"summary", SummarySection(source, cluster, findings.size())},
      {"counts", CountsText(cluster.regions.size(), shown, space)},
      {"findings", FindingsSection(cluster, findings)},
      {"stores", StoresSection(cluster)},
      {"replicas", ReplicasSection(replica_counts)},
      {"next_start", NextStartSection(source, files, cluster)},
      {"files", FilesSection(files)},
      {"data", ReportData(source.arguments, cluster, replica_counts, shown, space)}};
  std::map<std::string_view, std::string_view> parts = {
      {"style.css", style_css}, {"key_text.js", key_text_js}, {"data.js", data_js},
      {"sort.js", sort_js},     {"regions.js", regions_js},   {"band.js", band_js},
      {"find.js", find_js}};
  parts.insert(made.begin(), made.end());
  return FillTemplate(page_html, parts);
}

}  // namespace kandb::ctl
