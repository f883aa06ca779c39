// Pieces of HTML for the report page. What is called `html` is put into the page as it is; all
// other texts may hold any bytes and are escaped.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kandb::ctl {

// For text and for values of attributes.
std::string Html(std::string_view text);

// "1 region", "2 regions".
std::string Counted(std::size_t count, const std::string& noun);

// An entry of a list of names and values.
std::string Fact(const char* name, const std::string& html);

// A list on the page ends after so many rows.
inline constexpr std::size_t kMaxRowsShown = 10'000;
// What says so, and which command of kandb-ctl has the rest; nothing when there is no rest.
std::string MoreRows(std::size_t row_count, const std::string& command);

// A table in a box of its own that scrolls, with a name for screen readers. Scripts make its
// columns sortable.
class HtmlTable {
 public:
  struct Cell {
    std::string html;
    std::string css_class = {};
  };

  HtmlTable(const char* table_name, std::vector<const char*> column_names);

  // As many cells as there are columns.
  void AddRow(const std::vector<Cell>& cells);
  std::string Finish() && { return std::move(html) + "</tbody></table></div>\n"; }

 private:
  const std::vector<const char*> columns;
  std::string html;
};

// A number, as text or link, and a bar as wide as its share of the largest number in the column.
HtmlTable::Cell BarCell(const char* kind, const std::string& html, std::size_t count,
                        std::size_t largest);

// The template with each {{name}} replaced by the part of that name, in one pass: a part may
// contain any text. Every name must be known.
std::string FillTemplate(std::string_view text,
                         const std::map<std::string_view, std::string_view>& parts);

}  // namespace kandb::ctl
