#include "kandb_ctl/report_html.h"

#include <utility>

namespace kandb::ctl {

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

std::string Fact(const char* name, const std::string& html) {
  return "<div><dt>" + std::string(name) + "</dt><dd>" + html + "</dd></div>\n";
}

std::string MoreRows(std::size_t row_count, const std::string& command) {
  if (row_count <= kMaxRowsShown) return "";
  return "<p>And " + std::to_string(row_count - kMaxRowsShown) + " more: <code>kandb-ctl " +
         command + "</code> lists all.</p>\n";
}

HtmlTable::HtmlTable(const char* table_name, std::vector<const char*> column_names)
    : columns(std::move(column_names)) {
  html = "<div class=\"box\" tabindex=\"0\" role=\"region\" aria-label=\"" + Html(table_name) +
         "\"><table>\n<thead><tr>";
  for (const char* column : columns) html += "<th scope=\"col\">" + std::string(column) + "</th>";
  html += "</tr></thead>\n<tbody>\n";
}

void HtmlTable::AddRow(const std::vector<Cell>& cells) {
  html += "<tr>";
  for (std::size_t i = 0; i < cells.size(); ++i) {
    html += "<td data-label=\"" + std::string(columns[i]) + "\" class=\"" + cells[i].css_class +
            "\">" + cells[i].html + "</td>";
  }
  html += "</tr>\n";
}

HtmlTable::Cell BarCell(const char* kind, const std::string& html, std::size_t count,
                        std::size_t largest) {
  const std::size_t percent = largest == 0 ? 0 : count * 100 / largest;
  return {"<span>" + html + "</span><i style=\"width:" + std::to_string(percent) + "%\"></i>",
          "bar " + std::string(kind)};
}

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

}  // namespace kandb::ctl
