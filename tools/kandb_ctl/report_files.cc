#include "kandb_ctl/report_files.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "kandb_ctl/report_html.h"
#include "meta/keys.h"
#include "pdpb/timestamp.h"
#include "tools/common/utc_text.h"

namespace kandb::ctl {

namespace {

// A number or a text; empty without one.
std::string TextOf(const Json& object, const char* name) {
  if (!object.contains(name)) return "";
  const Json& value = object[name];
  return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string IdText(const ClusterState& cluster) {
  if (cluster.id_mark) return std::to_string(*cluster.id_mark);
  const auto is_of_mark = [](std::string_view text) { return text.starts_with(meta::kIdAllocKey); };
  const auto& warnings = cluster.warnings;
  if (std::any_of(warnings.begin(), warnings.end(), is_of_mark)) {
    return "unknown: the mark cannot be read, see Findings";
  }
  return std::to_string(meta::kFirstId) + ": there is no mark yet";
}

std::string TimestampText(std::chrono::system_clock::time_point time) {
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  return "the clock: " + std::to_string(pdpb::MakeTimestamp(static_cast<std::uint64_t>(ms), 0)) +
         " when this page was made";
}

}  // namespace

std::string NextStartSection(const ReportSource& source, const Json& files,
                             const ClusterState& cluster) {
  const Json& start = files["next_start"];
  std::string deletes;
  for (const Json& name : start["deletes"]) {
    deletes += (deletes.empty() ? "" : ", ") + name.get<std::string>();
  }
  std::string memory = Counted(start["memtable_bytes"], "byte");
  if (start["first_write_switches_memtable"]) memory += "; the first write begins a new memtable";
  std::string html = "<section id=\"next-start\">\n<h2>Next start</h2>\n";
  if (!source.live_at.empty()) {
    html += "<p>Of a server that stopped when its directory was read.</p>\n";
  }
  return html + "<dl class=\"facts\">\n" +
         Fact("Replays", Counted(start["replays_wals"], "WAL") + ", " +
                             Counted(start["replays_records"], "record") + ", " +
                             Counted(start["replays_bytes"], "byte")) +
         Fact("Memtable after it", memory) +
         Fact("Compaction", start["compacts_tables"] ? "of all tables" : "none") +
         Fact("Deletes", deletes.empty() ? "nothing" : Html(deletes)) +
         Fact("Next file number", start["next_file"].dump()) +
         Fact("Ids go on from", IdText(cluster)) +
         Fact("Timestamps go on from", TimestampText(source.made_at)) + "</dl>\n</section>\n";
}

std::string FilesSection(const Json& files) {
  HtmlTable table("Files", {"File", "Bytes", "Records", "Entries", "What"});
  std::uint64_t bytes = 0;
  std::size_t rows = 0;
  for (const Json& file : files["files"]) {
    bytes += file["bytes"].get<std::uint64_t>();
    if (++rows > kMaxRowsShown) continue;
    std::string what = Html(TextOf(file, "what"));
    if (file.contains("error")) {
      what += "; <strong class=\"bad\">" + Html(TextOf(file, "error")) + "</strong>";
    }
    table.AddRow({{Html(TextOf(file, "name")), "key"},
                  {TextOf(file, "bytes")},
                  {TextOf(file, "records")},
                  {TextOf(file, "entries")},
                  {what}});
  }
  return "<section id=\"files\">\n<h2>Files</h2>\n<p>" + Counted(rows, "file") + ", " +
         Counted(bytes, "byte") + ".</p>\n" + std::move(table).Finish() +
         MoreRows(rows, "state summary") + "</section>\n";
}

}  // namespace kandb::ctl
