// The timestamp oracle: hands out timestamps that grow whatever the clock does. They live in memory
// only: after a restart they continue from the clock. Thread-safe.
#pragma once

#include <cstdint>

#include "common/mutex.h"

namespace kandb::meta {

// The wall clock: nanoseconds since the Unix epoch.
using Clock = std::uint64_t (*)();
std::uint64_t SystemClock();

class TimestampOracle {
 public:
  explicit TimestampOracle(Clock wall_clock = SystemClock) : clock(wall_clock) {}

  // Hands out `count` consecutive timestamps, at least 1, and returns the first; see
  // pdpb/timestamp.h for the layout. More than pdpb::kMaxLogical at once are accepted, but overflow
  // into the milliseconds that follow: later calls may then repeat some of them.
  std::uint64_t Allocate(std::uint32_t count) EXCLUDES(tso_mutex);

 private:
  const Clock clock;

  // Guards the timestamps. The clock is read while it is held.
  Mutex tso_mutex;
  std::uint64_t tso_physical GUARDED_BY(tso_mutex) = 0;  // ms, of the last timestamp handed out
  std::uint64_t tso_logical GUARDED_BY(tso_mutex) = 0;   // the next free one in that millisecond
};

}  // namespace kandb::meta
