// The report page: its contents for a cluster, and that hostile bytes stay data.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "kandb_ctl/key_text.h"
#include "kandb_ctl/report_assets.h"
#include "kandb_ctl/report_page.h"
#include "kandb_ctl/report_regions.h"
#include "kandb_ctl/state_summary.h"
#include "support/run_tool.h"

namespace kandb::ctl {
namespace {

using nlohmann::json;

std::string Page(const ClusterState& cluster, const std::vector<Finding>& findings) {
  const testing::TempDir empty;
  Json files;
  lsm::ReadView view;
  EXPECT_TRUE(SummarizeFiles(empty.path(), &files, &view).ok());
  files["files"].push_back({{"name", "<file>"}, {"bytes", 5}, {"what", "&"}, {"error", "<bad>"}});
  return ReportPage({"<dir>&\"'", "", {"\xff"}, "<host>", "1.2", {}}, files, cluster, findings);
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
  cluster.id_mark = 3000;
  cluster.stores = {{1, "</script>\xfe\"", 0}};
  cluster.regions = {{3, "t", "", {}, {}},
                     {4, "t", "m", {}, {}},
                     {2, hostile, "m", {}, {{128, 77, pdpb::PeerRole::kLearner}}},
                     {UINT64_MAX, "", "c", {5, 6}, {{8, 1, pdpb::PeerRole::kVoter}}}};
  const std::string page = Page(cluster, {});
  EXPECT_EQ(DataOf(page), json::parse(R"({
      "arguments": ["\ufffd"], "replicas": [[0, 0, 2], [0, 1, 1], [1, 0, 1]],
      "bounds": ["", "</script>{{data}}<!--\"'&\\\\\\xff\\x0a", "c", "m", "t"],
      "pieces": [[0], [0, 1], [1], [], [3]], "max_regions_per_piece": 8,
      "regions": [["18446744073709551615", 0, 2, "5", "6", [["8", "1"]]],
                  ["2", 1, 3, "0", "0", [["128", "77", "learner"]]],
                  ["4", 4, 3, "0", "0", []], ["3", 4, 5, "0", "0", []]],
      "stores": [["1", "</script>\\xfe\""]]})"));
  for (const char* text :
       {"4 regions, 1 gap, 1 overlap.", "unknown store", "Nothing found.",
        "1970-01-01T00:00:00.000Z on &lt;host&gt; by kandb-ctl 1.2", "from</dt><dd>3000</dd>",
        "data-text=\"0+1\" title=\"List the regions with 0 voters and 1 learner\">1</button>",
        "&amp;; <strong class=\"bad\">&lt;bad&gt;</strong>", ">&lt;file&gt;</td>"}) {
    EXPECT_NE(page.find(text), page.npos) << text;
  }
}

TEST(ReportPage, EscapesHtml) {
  const std::string page = Page({}, {{"<img src=x>", "a & 'b'"}});
  EXPECT_NE(page.find("<h1>&lt;dir&gt;&amp;&quot;&#39;</h1>"), page.npos);
  EXPECT_NE(page.find("&lt;img src=x&gt;</td>"), page.npos);
  EXPECT_NE(page.find(">a &amp; &#39;b&#39;</td>"), page.npos);
  EXPECT_EQ(page.find("<img"), page.npos);
  EXPECT_NE(page.find("from</dt><dd>1024: there is no mark yet</dd>"), page.npos);
  EXPECT_EQ(DataOf(page)["pieces"], json::parse("[[]]"));
}

TEST(ReportPage, ListsABoundedNumberOfRegionsForOnePiece) {
  ClusterState cluster;
  for (int i = 0; i < 100; ++i) cluster.regions.push_back({});
  EXPECT_EQ(DataOf(Page(cluster, {}))["pieces"], json::parse("[[0, 1, 2, 3, 4, 5, 6, 7]]"));
}

// "a-c 2 1 0" is a bin from a to c of two regions with one gap, "7" the region 7.
std::string Shown(const RegionList& list, const RegionLimits& limits) {
  const ShownRegions shown = ChooseRegions(list, limits);
  const std::size_t first_bin = shown.regions.size() - shown.bins.size();
  std::string text;
  for (std::size_t i = 0; i < shown.regions.size(); ++i) {
    const pdpb::Region& region = shown.regions[i];
    text += i == 0 ? "" : ", ";
    if (i < first_bin) {
      text += std::to_string(region.id);
      continue;
    }
    const ShownRegions::Bin& bin = shown.bins[i - first_bin];
    text += region.start_key + "-" + region.end_key;
    for (const std::size_t count : {bin.region_count, bin.gap_count, bin.overlap_count}) {
      text += " " + std::to_string(count);
    }
  }
  return text;
}

// After 4 there is a gap; 6 overlaps 5 and 8 has a peer; 10 covers nothing.
TEST(ReportRegions, ListsWhatIsRemarkableAndBinsTheRest) {
  const RegionList list = {{9, "i", "", {}, {}},  {1, "", "b", {}, {}},   {2, "b", "c", {}, {}},
                           {3, "c", "d", {}, {}}, {4, "d", "e", {}, {}},  {5, "f", "g", {}, {}},
                           {6, "f", "h", {}, {}}, {7, "h", "h1", {}, {}}, {8, "h1", "i", {}, {{}}},
                           {10, "x", "w", {}, {}}};
  const struct {
    RegionLimits limits;
    const char* shown;
  } cases[] = {
      {{10, 0, 0, 0}, "9, 1, 2, 3, 4, 5, 6, 7, 8, 10"},
      {{9, 9, 99, 4}, "4, 5, 6, 8, 10, -d 3 0 0, h-h1 1 0 0, i- 1 0 0"},
      {{9, 2, 99, 1}, "4, 5, -d 3 0 0, f- 4 0 0"},
      {{9, 9, 4, 1}, "4, 5, -d 3 0 0, f- 4 0 0"},
      {{9, 0, 99, 1}, "- 9 1 1"},
  };
  for (const auto& c : cases) EXPECT_EQ(Shown(list, c.limits), c.shown);
}

// Between 1 and 2 there is a gap; 3 has fewer voters than most and 4 has more.
TEST(ReportRegions, ListsThoseWithFewVotersThoughFaultsAreMany) {
  const RegionList list = {{1, "", "b", {}, {{}}},
                           {2, "c", "d", {}, {{}}},
                           {3, "d", "e", {}, {}},
                           {4, "e", "f", {}, {{}, {}}},
                           {5, "f", "", {}, {{}}}};
  EXPECT_EQ(Shown(list, {0, 2, 99, 1}), "1, 3, c-d 1 0 0, e- 2 0 0");
  EXPECT_EQ(Shown(list, {0, 3, 99, 1}), "1, 2, 3, e- 2 0 0");
}

TEST(ReportScripts, ReadKeysAsTheToolDoes) {
  const std::vector<std::string> texts = {
      "",       "a b",   "\\x00\\xFF", "\\\\x41",    "hex:", "hex:00fF", "xhex:0", "\\x68ex:00",
      "\u00e9", "hex:0", "hex:0g",     "hex:\u00e9", "\\",   "\\x4",     "\\xg0",  "\\X41"};
  json keys;
  for (const std::string& text : texts) {
    const std::optional<std::string> key = ParseKey(text);
    keys.push_back(key ? json(std::vector<unsigned char>(key->begin(), key->end())) : json());
  }
  const testing::TempDir dir;
  testing::WriteFile(dir.File("js"), std::string(key_text_js) + R"(
    print(JSON.stringify()" + json(texts).dump() +
                                         R"(.map(function (text) {
      var key = parseKey(text);
      return key && key.split('').map(function (c) { return c.charCodeAt(0); }) || (key === null ? key : []);
    })));
    print(['', '`', 'a', 'a\\x00', 'b', '\\xff'].map(function (text) {
      return lastBoundUpTo(['', 'a', 'a\\x00', '\\xfe'], parseKey(text));
    }));)");
  EXPECT_EQ(testing::RunTool({dir.File("js")}, "", KANDB_DUK).out, keys.dump() + "\n0,0,1,2,2,3\n");
}

}  // namespace
}  // namespace kandb::ctl
