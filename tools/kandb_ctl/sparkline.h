// Numbers as a row of small bars, one cell each.
#pragma once

#include <span>
#include <string>

namespace kandb::ctl {

// From the lowest bar at `low` to the highest at `high`; what lies beyond is drawn as these, NaN as
// a blank. With `unicode` the bars are block elements in UTF-8, otherwise ASCII.
std::string Sparkline(std::span<const double> values, double low, double high, bool unicode);

}  // namespace kandb::ctl
