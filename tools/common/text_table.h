// Tables for people: columns as wide as their widest cell, numbers to the right.
#pragma once

#include <string>
#include <vector>

namespace kandb::tools {

class TextTable {
 public:
  explicit TextTable(std::vector<std::string> column_names) : rows{std::move(column_names)} {}

  // As many cells as there are columns.
  void AddRow(std::vector<std::string> cells) { rows.push_back(std::move(cells)); }

  // On standard output; the header only when there are no rows.
  void Print() const;

 private:
  std::vector<std::vector<std::string>> rows;  // the first is the header
};

}  // namespace kandb::tools
