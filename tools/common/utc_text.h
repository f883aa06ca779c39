// A point in time as people and programs read it.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

namespace kandb::tools {

// A moment after 1970 in UTC: "2026-01-31T12:00:00.000Z"; without the date in a year beyond the
// calendar of the system.
inline std::string UtcText(std::uint64_t unix_ms) {
  const auto seconds = static_cast<std::time_t>(unix_ms / 1000);
  std::tm date{};
  char text[64] = "";
  if (::gmtime_r(&seconds, &date) != nullptr) {
    (void)std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &date);
  }
  char fraction[8];
  (void)std::snprintf(fraction, sizeof(fraction), ".%03uZ", static_cast<unsigned>(unix_ms % 1000));
  return std::string(text) + fraction;
}

inline std::string UtcText(std::chrono::system_clock::time_point time) {
  return UtcText(static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count()));
}

}  // namespace kandb::tools
