#include <algorithm>
#include <chrono>

#include "common/endian.h"
#include "meta/keys.h"
#include "meta/pd_service.h"

namespace kandb::meta {

namespace {

constexpr int kLogicalBits = 18;
// The last logical value is never handed out: a batch may end just below it.
constexpr std::uint64_t kMaxLogical = (std::uint64_t{1} << kLogicalBits) - 1;
constexpr std::uint64_t kNsPerMs = 1000000;

constexpr std::uint64_t kFirstId = 1024;
// How far the mark in the store runs ahead, so that most requests need no write.
constexpr std::uint64_t kIdMargin = 1000;

}  // namespace

std::uint64_t SystemClock() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch).count());
}

PdService::PdService(store::MetaStore* metadata, std::uint32_t target, Clock wall_clock)
    : store(metadata), target_replicas(target), clock(wall_clock) {
  MutexLock lock(&id_mutex);
  std::string value;
  bool found = false;
  const Status read = store->Get(kIdAllocKey, &value, &found);
  if (!read.ok() || !found) {
    next_id = kFirstId;
  } else {
    // A damaged mark restarts at 0, not at the first identifier of a new cluster.
    next_id = value.size() == sizeof(next_id) ? LoadU64(value.data()) : 0;
  }
}

Status PdService::Tso(const pdpb::TsoRequest& request, pdpb::TsoResponse* response) {
  const std::uint32_t count = std::max(request.count, std::uint32_t{1});
  MutexLock lock(&tso_mutex);
  const std::uint64_t now_ms = clock() / kNsPerMs;
  if (now_ms > tso_physical) {
    tso_physical = now_ms;
    tso_logical = 0;
  }
  // The millisecond is used up: run ahead of the clock rather than wait for it.
  if (tso_logical + count > kMaxLogical) {
    ++tso_physical;
    tso_logical = 0;
  }
  response->timestamp = tso_physical << kLogicalBits | tso_logical;
  response->count = count;
  tso_logical += count;
  return {};
}

Status PdService::AllocId(const pdpb::AllocIdRequest& request, pdpb::AllocIdResponse* response) {
  const std::uint32_t count = std::max(request.count, std::uint32_t{1});
  MutexLock lock(&id_mutex);
  // A mark that cannot be read counts as none, and is written anew.
  std::string value;
  bool found = false;
  std::uint64_t persisted = 0;
  if (store->Get(kIdAllocKey, &value, &found).ok() && found && value.size() == sizeof(persisted)) {
    persisted = LoadU64(value.data());
  }

  const std::uint64_t end = next_id + count;
  if (persisted < end) {
    std::string mark;
    AppendU64(end + kIdMargin, &mark);
    if (Status s = store->Put({{std::string(kIdAllocKey), mark}}); !s.ok()) return s;
  }
  response->first_id = next_id;
  response->count = count;
  next_id = end;
  return {};
}

}  // namespace kandb::meta
