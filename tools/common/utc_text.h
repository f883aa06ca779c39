// A point in time as people and programs read it.
#pragma once

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

namespace kandb::tools {

// In UTC: "2026-01-31T12:00:00.000Z".
inline std::string UtcText(std::chrono::system_clock::time_point time) {
  const auto unix_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  const auto seconds = static_cast<std::time_t>(unix_ms / 1000);
  std::tm date{};
  char text[64] = "";
  if (::gmtime_r(&seconds, &date) != nullptr) {
    (void)std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &date);
  }
  char fraction[16];
  (void)std::snprintf(fraction, sizeof(fraction), ".%03dZ", static_cast<int>(unix_ms % 1000));
  return std::string(text) + fraction;
}

}  // namespace kandb::tools
