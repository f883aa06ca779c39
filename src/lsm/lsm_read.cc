// Reading: a view of everything there is, captured under the lock and read without it.

#include <time.h>

#include <cerrno>

#include "lsm/lsm_db.h"

namespace kandb::lsm {

std::shared_ptr<const ReadView> LsmDb::CaptureView() const {
  MutexLock lock(&db_mutex);
  return view;
}

void LsmDb::PublishView() {
  auto next = std::make_shared<ReadView>();
  next->memtables.push_back(active);
  next->memtables.insert(next->memtables.end(), immutable_memtables.rbegin(),
                         immutable_memtables.rend());
  next->tables.assign(table_readers.begin(), table_readers.end());
  view = std::move(next);
}

Status LsmDb::Get(std::string_view key, std::string* value, bool* found) const {
  return GetLive(*CaptureView(), key, value, found);
}

Status LsmDb::ForEach(std::string_view start, std::string_view end, std::uint32_t limit,
                      const PairVisitor& visit, bool* of_one_moment) const {
  return ForEachLive(*CaptureView(), start, end, limit, visit, MemTable::Chunk::kMaxOpenSize,
                     of_one_moment);
}

Status LsmDb::ForEachAtOnce(std::string_view start, std::string_view end, std::uint32_t limit,
                            const PairVisitor& visit) const {
  return ForEachLive(*CaptureView(), start, end, limit, visit, 0);
}

Status LsmDb::Scan(std::string_view start, std::string_view end, std::uint32_t limit,
                   std::vector<Entry>* out) const {
  out->clear();
  return ForEach(start, end, limit, [out](std::string_view key, std::string_view value) {
    out->push_back({kPut, std::string(key), std::string(value)});
    return true;
  });
}

void LsmDb::WaitForBackgroundIdle() {
  for (;;) {
    {
      MutexLock lock(&db_mutex);
      if (immutable_memtables.empty() && !TooManyTables()) return;
    }
    background_cv.NotifyOne();
    timespec pause{.tv_sec = 0, .tv_nsec = 1000000};
    while (::nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
  }
}

std::uint64_t LsmDb::TableFileCount() const {
  MutexLock lock(&db_mutex);
  return table_readers.size();
}

std::uint64_t LsmDb::ImmutableMemTableCount() const {
  MutexLock lock(&db_mutex);
  return immutable_memtables.size();
}

}  // namespace kandb::lsm
