// Writing: group commit, and the switch to a new memtable and log when the active one is full.
//
// Memory may run out anywhere on this road. Whatever a group needs is taken before its first record
// is written, so that a failure leaves the log, the memtable and the queue as they were.

#include <new>
#include <utility>

#include "lsm/lsm_db.h"
#include "lsm/write_batch.h"

namespace kandb::lsm {

Status LsmDb::Write(const std::vector<Entry>& batch) {
  if (BatchSize(batch) > kMaxLogPayloadSize) return Status::InvalidArgument("batch: too large");
  // Encoded here, by each writer for itself, to keep the leader's time under the lock short.
  return write_queue.Submit({.batch = &batch, .record = BuildLogRecord(batch)});
}

Status LsmDb::CommitGroup(WriteGroup group) {
  MutexLock lock(&db_mutex);
  std::size_t entry_count = 0;
  std::size_t size = 0;
  for (const WriterSlot* slot : group) {
    entry_count += slot->batch->size();
    size += slot->record.size();
  }
  active->Reserve(entry_count, size);
  if (Status s = LogGroup(group); !s.ok()) return s;
  // Only what is safely logged becomes visible: a value that was read must still be there after a
  // crash.
  for (const WriterSlot* slot : group) active->Apply(*slot->batch);
  if (active->ApproximateBytes() >= options.write_buffer_size) return SwitchMemTable();
  return {};
}

Status LsmDb::LogGroup(WriteGroup group) {
  const std::uint64_t group_start = log.size();
  Status status;
  try {
    for (const WriterSlot* slot : group) {
      status = log.Append(slot->record);
      if (!status.ok()) break;
    }
    if (status.ok() && options.sync) status = log.Sync();
  } catch (const std::bad_alloc&) {
    status = OutOfMemory();  // for the text of a failure
  }
  if (!status.ok()) log.CutBack(group_start, status);
  return status;
}

Status LsmDb::SwitchMemTable() {
  auto next = std::make_shared<MemTable>();
  auto next_view = std::make_shared<ReadView>(*view);
  next_view->memtables.insert(next_view->memtables.begin(), next);
  immutable_memtables.push_back(active);
  // Nothing that can fail stands between these two: readers must see where writers write.
  active = std::move(next);
  view = std::move(next_view);
  // When this fails, writes go on into the old log together with the new memtable. That log is
  // deleted once the old memtable is flushed: the one case in which an acknowledged write can be
  // lost.
  if (Status s = StartLog(); !s.ok()) return s;
  background_cv.NotifyOne();
  return {};
}

}  // namespace kandb::lsm
