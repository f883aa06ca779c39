#include "kandb_ctl/sparkline.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string_view>

namespace kandb::ctl {

std::string Sparkline(std::span<const double> values, double low, double high, bool unicode) {
  constexpr std::size_t kLevels = 8;
  constexpr std::string_view kBlocks[kLevels] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  constexpr std::string_view kAscii = "_.:-=+*#";
  static_assert(kAscii.size() == kLevels);
  std::string line;
  for (const double value : values) {
    if (std::isnan(value)) {
      line += ' ';
      continue;
    }
    // Without a distance from low to high there is one level.
    const double share = high > low ? std::clamp((value - low) / (high - low), 0.0, 1.0) : 0;
    const auto level = std::min(static_cast<std::size_t>(share * kLevels), kLevels - 1);
    line += unicode ? kBlocks[level] : kAscii.substr(level, 1);
  }
  return line;
}

}  // namespace kandb::ctl
