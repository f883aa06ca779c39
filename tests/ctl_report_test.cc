// The report page: its contents for a cluster, and that hostile bytes stay data.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "kandb_ctl/report_page.h"

namespace kandb::ctl {
namespace {

using nlohmann::json;

std::string Page(const ClusterState& cluster, const std::vector<Finding>& findings) {
  return ReportPage("<dir>&\"'", {}, cluster, findings);
}

// As a browser finds it: up to the first end tag, even one inside the data.
json DataOf(const std::string& page) {
  constexpr std::string_view kBegin = "id=\"data\">";
  const std::size_t begin = page.find(kBegin) + kBegin.size();
  return json::parse(page.substr(begin, page.find("</script", begin) - begin));
}

// Regions 1 and 2 overlap, a gap follows, 3 is the last one; 4 is reversed and covers nothing.
TEST(ReportPage, ContainsTheRegionsWithTheirGapsAndOverlaps) {
  const std::string hostile = "</script>{{data}}<!--\"'&\\\xff\n";
  ClusterState cluster;
  cluster.stores = {{1, "</script>\xfe\"", 0}};
  cluster.regions = {{3, "t", "", {}, {}},
                     {4, "t", "m", {}, {}},
                     {2, hostile, "m", {}, {{9, 77, pdpb::PeerRole::kLearner}}},
                     {UINT64_MAX, "", "c", {5, 6}, {{8, 1, pdpb::PeerRole::kVoter}}}};
  const std::string page = Page(cluster, {});
  EXPECT_EQ(DataOf(page), json::parse(R"({
      "bounds": ["", "</script>{{data}}<!--\"'&\\\\\\xff\\x0a", "c", "m", "t"],
      "pieces": [[0], [0, 1], [1], [], [3]], "max_regions_per_piece": 8,
      "regions": [["18446744073709551615", 0, 2, "5", "6", [["8", "1"]]],
                  ["2", 1, 3, "0", "0", [["9", "77", "learner"]]],
                  ["4", 4, 3, "0", "0", []], ["3", 4, 5, "0", "0", []]],
      "stores": [["1", "</script>\\xfe\""]]})"));
  for (const char* text : {"4 regions, 1 gap, 1 overlap.", "unknown store", "Nothing found."}) {
    EXPECT_NE(page.find(text), page.npos) << text;
  }
}

TEST(ReportPage, EscapesHtml) {
  const std::string page = Page({}, {{"<img src=x>", "a & 'b'"}});
  EXPECT_NE(page.find("<h1>&lt;dir&gt;&amp;&quot;&#39;</h1>"), page.npos);
  EXPECT_NE(page.find("&lt;img src=x&gt;</td><td>a &amp; &#39;b&#39;</td>"), page.npos);
  EXPECT_EQ(page.find("<img"), page.npos);
  EXPECT_EQ(DataOf(page)["pieces"], json::parse("[[]]"));
}

TEST(ReportPage, ListsABoundedNumberOfRegionsForOnePiece) {
  ClusterState cluster;
  cluster.regions.resize(100);
  EXPECT_EQ(DataOf(Page(cluster, {}))["pieces"], json::parse("[[0, 1, 2, 3, 4, 5, 6, 7]]"));
}

}  // namespace
}  // namespace kandb::ctl
