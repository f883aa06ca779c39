// The layout of a timestamp.
//
//   bits     width  part
//   63..18   46     physical: milliseconds since the Unix epoch
//   17..0    18     logical: a counter within the millisecond
#pragma once

#include <cstdint>

namespace kandb::pdpb {

inline constexpr int kLogicalBits = 18;
inline constexpr std::uint32_t kMaxLogical = (std::uint32_t{1} << kLogicalBits) - 1;

// `logical` is at most kMaxLogical.
constexpr std::uint64_t MakeTimestamp(std::uint64_t physical_ms, std::uint64_t logical) {
  return physical_ms << kLogicalBits | logical;
}
constexpr std::uint64_t PhysicalMs(std::uint64_t timestamp) { return timestamp >> kLogicalBits; }
constexpr std::uint32_t Logical(std::uint64_t timestamp) {
  return static_cast<std::uint32_t>(timestamp & kMaxLogical);
}

}  // namespace kandb::pdpb
