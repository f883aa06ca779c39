// Rows written one at a time, for lists too long for memory: a JSON object a line, or columns of
// fixed widths for people.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kandb_ctl/json_message.h"
#include "store/value_envelope.h"

namespace kandb::ctl {

class RowWriter {
 public:
  struct Column {
    const char* name;
    int width;  // characters; a longer cell moves the rest of its row
  };

  // Writes the header of the columns.
  RowWriter(std::vector<Column> row_columns, bool as_json);

  // A row is an object. Of its members, people see those that have columns.
  void Write(const Json& row) const;

 private:
  const std::vector<Column> columns;
  const bool json;
};

// An object of numbers and texts: as JSON, or as a table of one row.
void PrintRow(const Json& object, bool as_json);

// Adds "key", "kind" and the decoded "record" of a stored pair to `*row`; for a value that does not
// decode, its bytes and the "error".
void AddPair(std::string_view key, std::string_view stored, const store::StoreCrypto& crypto,
             Json* row);

}  // namespace kandb::ctl
