// Writing: group commit, and the switch to a new memtable and log when the active one is full.
//
// Memory may run out anywhere on this road. Whatever a group needs is taken before its first record
// is written, so that a failure leaves the log, the memtable and the queue as they were.

#include <new>
#include <utility>

#include "lsm/lsm_db.h"
#include "lsm/write_batch.h"

namespace kandb::lsm {

// One for each Write in progress, on its caller's stack.
struct LsmDb::WriterSlot {
  const std::vector<Entry>* batch = nullptr;
  std::string record;  // as it goes into the log
  Status result;       // final once the group is committed
  WriterSlot* next = nullptr;
};

Status LsmDb::Write(const std::vector<Entry>& batch) {
  if (BatchSize(batch) > kMaxLogPayloadSize) return Status::InvalidArgument("batch: too large");
  // Encoded here, by each writer for itself, to keep the leader's time under the lock short.
  WriterSlot slot;
  slot.batch = &batch;
  slot.record = BuildLogRecord(batch);

  const GroupPlace place = JoinGroup(&slot);
  if (!place.leads) {
    WaitForCommit(place.group);
    return slot.result;
  }
  Status status = CommitGroup(&slot);
  EndGroup(place.group, &slot, status);
  return status;
}

LsmDb::GroupPlace LsmDb::JoinGroup(WriterSlot* slot) {
  MutexLock lock(&write_queue_mutex);
  const bool leads = first_writer == nullptr;
  (leads ? first_writer : last_writer->next) = slot;
  last_writer = slot;
  if (leads) {
    // Others join until the group before this one has ended.
    while (committing) leader_cv.Wait(&write_queue_mutex);
    committing = true;
    first_writer = nullptr;
    return {.group = forming_group++, .leads = true};
  }
  return {.group = forming_group, .leads = false};
}

void LsmDb::WaitForCommit(std::uint32_t group) {
  std::atomic<std::uint32_t>& committed = committed_groups[group % 2];
  for (;;) {
    const std::uint32_t seen = committed.load();
    // A later group may have ended already, and the numbers may have run over.
    if (static_cast<std::int32_t>(seen - group) >= 0) return;
    committed.wait(seen);
  }
}

void LsmDb::EndGroup(std::uint32_t group, WriterSlot* leader, const Status& status) {
  for (WriterSlot* slot = leader->next; slot != nullptr; slot = slot->next) {
    slot->result = CopyOrOutOfMemory(status);
  }
  // From here on the slots may be gone. This comes before the next group may begin, because the one
  // after it shares the place, and its number must not be overwritten by this one.
  committed_groups[group % 2].store(group);
  {
    MutexLock lock(&write_queue_mutex);
    committing = false;
  }
  // The next leader first: the disk is idle until it runs. No lock is held, so that nobody wakes
  // only to wait for one.
  leader_cv.NotifyOne();
  committed_groups[group % 2].notify_all();
}

Status LsmDb::CommitGroup(const WriterSlot* first) try {
  MutexLock lock(&db_mutex);
  std::size_t entry_count = 0;
  std::size_t size = 0;
  for (const WriterSlot* slot = first; slot != nullptr; slot = slot->next) {
    entry_count += slot->batch->size();
    size += slot->record.size();
  }
  active->Reserve(entry_count, size);
  if (Status s = LogGroup(first); !s.ok()) return s;
  // Only what is safely logged becomes visible: a value that was read must still be there after a
  // crash.
  for (const WriterSlot* slot = first; slot != nullptr; slot = slot->next) {
    active->Apply(*slot->batch);
  }
  if (active->ApproximateBytes() >= options.write_buffer_size) return SwitchMemTable();
  return {};
} catch (const std::bad_alloc&) {
  return OutOfMemory();
}

Status LsmDb::LogGroup(const WriterSlot* first) {
  const std::uint64_t group_start = log.size();
  Status status;
  try {
    for (const WriterSlot* slot = first; slot != nullptr && status.ok(); slot = slot->next) {
      status = log.Append(slot->record);
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
