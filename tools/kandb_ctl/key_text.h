// Keys as people write and read them. Printable ASCII is written as it is, a backslash is doubled,
// any other byte is \xNN. A text that is read may also be "hex:" and pairs of hexadecimal digits.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kandb::ctl {

std::string KeyText(std::string_view key);

// As KeyText, but an empty key is "", as on a command line.
std::string KeyCell(const std::string& key);

// None for a text in neither notation: an unknown or cut escape, an odd number of digits.
std::optional<std::string> ParseKey(std::string_view text);

}  // namespace kandb::ctl
