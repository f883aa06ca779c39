// Bytes from pairs of hexadecimal digits, with blanks anywhere.
#pragma once

#include <string>
#include <string_view>

namespace kandb::testing {

inline std::string Hex(std::string_view digits) {
  std::string bytes;
  std::string pair;
  for (const char digit : digits) {
    if (digit == ' ') continue;
    pair.push_back(digit);
    if (pair.size() < 2) continue;
    bytes.push_back(static_cast<char>(std::stoi(pair, nullptr, 16)));
    pair.clear();
  }
  return bytes;
}

}  // namespace kandb::testing
