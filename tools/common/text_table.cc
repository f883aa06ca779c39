#include "tools/common/text_table.h"

#include <algorithm>
#include <cstdio>

namespace kandb::tools {

namespace {

bool IsNumber(const std::string& cell) {
  return !cell.empty() && cell.find_first_not_of("0123456789.,") == std::string::npos;
}

}  // namespace

void TextTable::Print() const {
  std::vector<std::size_t> widths(rows[0].size(), 0);
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string padding(widths[i] - row[i].size(), ' ');
      if (i > 0) line += "  ";
      line += IsNumber(row[i]) ? padding + row[i] : row[i] + padding;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::printf("%s\n", line.c_str());
  }
}

}  // namespace kandb::tools
