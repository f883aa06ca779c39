// Keys as positions, so that ranges can be divided: the 16 hexadecimal digits of a number below
// 2^63. Position 0 is the empty key.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace kandb::sim {

inline constexpr std::uint64_t kPositionEnd = std::uint64_t{1} << 63;

inline std::string KeyAt(std::uint64_t position) {
  char digits[17];
  (void)std::snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(position));
  return position == 0 ? std::string() : digits;
}

// Of the start of a range.
inline std::uint64_t PositionOf(const std::string& start_key) {
  return start_key.empty() ? 0 : std::stoull(start_key, nullptr, 16);
}

}  // namespace kandb::sim
