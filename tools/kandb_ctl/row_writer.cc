#include "kandb_ctl/row_writer.h"

#include <cstdio>
#include <utility>
#include <variant>

#include "kandb_ctl/state_directory.h"
#include "tools/common/text_table.h"

namespace kandb::ctl {

namespace {

std::string Cell(const Json& row, const char* name) {
  const auto member = row.find(name);
  if (member == row.end()) return "";
  return member->is_string() ? member->get<std::string>() : JsonText(*member);
}

}  // namespace

RowWriter::RowWriter(std::vector<Column> row_columns, bool as_json)
    : columns(std::move(row_columns)), json(as_json) {
  if (json) return;
  Json header = Json::object();
  for (const Column& column : columns) header[column.name] = column.name;
  Write(header);
}

void RowWriter::Write(const Json& row) const {
  if (json) return PrintJson(row);
  std::string line;
  for (const Column& column : columns) {
    const std::string cell = Cell(row, column.name);
    line += cell;
    const auto width = static_cast<std::size_t>(column.width);
    line.append(cell.size() < width ? width - cell.size() : 0, ' ');
    line += "  ";
  }
  line.erase(line.find_last_not_of(' ') + 1);
  std::printf("%s\n", line.c_str());
}

void PrintRow(const Json& object, bool as_json) {
  if (as_json) return PrintJson(object);
  std::vector<std::string> names;
  std::vector<std::string> cells;
  for (const auto& [name, value] : object.items()) {
    names.push_back(name);
    if (value.is_number_float()) {
      char text[64];
      (void)std::snprintf(text, sizeof(text), "%.1f", value.get<double>());
      cells.emplace_back(text);
    } else {
      cells.push_back(value.is_string() ? value.get<std::string>() : value.dump());
    }
  }
  tools::TextTable table(std::move(names));
  table.AddRow(std::move(cells));
  table.Print();
}

void AddPair(std::string_view key, std::string_view stored, const store::StoreCrypto& crypto,
             Json* row) {
  StoredRecord record;
  const Status decoded = DecodeStored(key, stored, crypto, &record);
  (*row)["key"] = KeyText(key);
  (*row)["kind"] = record.kind;
  if (decoded.ok()) {
    (*row)["record"] =
        std::visit([](const auto& content) { return ToJson(content); }, record.content);
  } else {
    (*row)["record"] = KeyText(stored);
    (*row)["error"] = decoded.message();
  }
}

}  // namespace kandb::ctl
