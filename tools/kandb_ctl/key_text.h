// Keys as people write and read them. Printable ASCII stands for itself, a backslash is doubled,
// any other byte is \xNN. When read, "hex:" in front means that the rest is pairs of hexadecimal
// digits.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kandb::ctl {

std::string KeyText(std::string_view key);

// As KeyText, but an empty key is "", as on a command line.
std::string KeyCell(const std::string& key);

// Nothing for a text that is neither: an unknown or torn escape, an odd number of digits.
std::optional<std::string> ParseKey(std::string_view text);

}  // namespace kandb::ctl
