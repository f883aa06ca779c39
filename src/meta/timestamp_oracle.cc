#include "meta/timestamp_oracle.h"

#include <chrono>

#include "pdpb/timestamp.h"

namespace kandb::meta {

namespace {

constexpr std::uint64_t kNsPerMs = 1000000;

}  // namespace

std::uint64_t SystemClock() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch).count());
}

std::uint64_t TimestampOracle::Allocate(std::uint32_t count) {
  MutexLock lock(&tso_mutex);
  const std::uint64_t now_ms = clock() / kNsPerMs;
  if (now_ms > tso_physical) {
    tso_physical = now_ms;
    tso_logical = 0;
  }
  // The millisecond is used up: take the next one ahead of the clock rather than wait. kMaxLogical
  // itself is never handed out.
  if (tso_logical + count > pdpb::kMaxLogical) {
    ++tso_physical;
    tso_logical = 0;
  }
  const std::uint64_t first = pdpb::MakeTimestamp(tso_physical, tso_logical);
  tso_logical += count;
  return first;
}

}  // namespace kandb::meta
