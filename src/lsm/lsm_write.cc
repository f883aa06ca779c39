// Writing: group commit, and the switch to a new memtable and log when the active one is full.

#include "lsm/lsm_db.h"
#include "lsm/write_batch.h"

namespace kandb::lsm {

Status LsmDb::Write(const std::vector<Entry>& batch) {
  if (BatchSize(batch) > kMaxLogPayloadSize) return Status::InvalidArgument("batch: too large");
  // Encoded here, by each writer for itself, to keep the leader's time under the lock short.
  WriterSlot slot;
  slot.batch = &batch;
  slot.record = BuildLogRecord(batch);

  // Whoever is at the head of the queue leads: it commits for all who stand in the queue by then.
  std::vector<WriterSlot*> group;
  {
    MutexLock lock(&write_queue_mutex);
    writer_queue.push_back(&slot);
    while (!slot.done && writer_queue.front() != &slot) slot.cv.Wait(&write_queue_mutex);
    if (slot.done) return slot.result;
    group.assign(writer_queue.begin(), writer_queue.end());
  }

  Status status = CommitGroup(group);

  MutexLock lock(&write_queue_mutex);
  for (WriterSlot* member : group) {
    writer_queue.pop_front();
    if (member == &slot) continue;
    // Under the lock, because a slot is gone as soon as its writer sees that it is done.
    member->result = status;
    member->done = true;
    member->cv.NotifyOne();
  }
  if (!writer_queue.empty()) writer_queue.front()->cv.NotifyOne();
  return status;
}

Status LsmDb::CommitGroup(const std::vector<WriterSlot*>& group) {
  MutexLock lock(&db_mutex);
  if (Status s = LogGroup(group); !s.ok()) return s;
  // Only what is safely logged becomes visible: a value that was read must still be there after a
  // crash.
  for (const WriterSlot* slot : group) active->Apply(*slot->batch);
  if (active->ApproximateBytes() >= options.write_buffer_size) return SwitchMemTable();
  return {};
}

Status LsmDb::LogGroup(const std::vector<WriterSlot*>& group) {
  const std::uint64_t group_start = log.size();
  Status status;
  for (const WriterSlot* slot : group) {
    status = log.Append(slot->record);
    if (!status.ok()) break;
  }
  if (status.ok() && options.sync) status = log.Sync();
  if (!status.ok()) log.CutBack(group_start, status);
  return status;
}

Status LsmDb::SwitchMemTable() {
  immutable_memtables.push_back(active);
  active = std::make_shared<MemTable>();
  PublishView();
  // When this fails, writes go on into the old log together with the new memtable. That log is
  // deleted once the old memtable is flushed: the one case in which an acknowledged write can be
  // lost.
  if (Status s = StartLog(); !s.ok()) return s;
  background_cv.NotifyOne();
  return {};
}

}  // namespace kandb::lsm
