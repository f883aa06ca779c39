// Group commit: writers that arrive while a group is committed form the next group, which its first
// writer, the leader, commits for all of them. So a group costs one sync, however many its writers.
// Knows neither files nor memtables. Thread-safe.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "lsm/entry.h"

namespace kandb::lsm {

// One for each write in progress, on its caller's stack.
struct WriterSlot {
  const std::vector<Entry>* batch = nullptr;  // borrowed
  std::string record;                         // the batch as its WAL record
};

class CommitQueue {
 public:
  // Commits the batches of a group, in the order of arrival, as a whole or not at all. Runs in the
  // leader's thread, one group at a time. Throws nothing but std::bad_alloc.
  using Commit = std::function<Status(std::span<const WriterSlot* const> group)>;
  explicit CommitQueue(Commit commit_group) : commit(std::move(commit_group)) {}

  // Returns once the group of `slot` was committed, with its result; OutOfMemory() when the commit
  // function threw. Throws std::bad_alloc when there is no memory to join a group; the batch is
  // then in none.
  Status Submit(const WriterSlot& slot) EXCLUDES(mutex);

  // For tests: the writers in the group that forms.
  std::size_t WaitingCount() const EXCLUDES(mutex);

 private:
  // Shared by its writers: the last one to wake up frees it.
  struct Group {
    std::vector<const WriterSlot*> slots;  // the leader's first
    Status result;                         // final once `ended` is set
    // 1 once the group was committed. An integer of the size on which the kernel can wait directly.
    std::atomic<std::uint32_t> ended = 0;
  };

  // Adds the slot to the group that forms; `*leads` becomes whether it is the first one there.
  std::shared_ptr<Group> Join(const WriterSlot* slot, bool* leads) EXCLUDES(mutex);
  // The leader's part: waits for the group before, commits `group` and wakes its writers.
  void Lead(Group* group) EXCLUDES(mutex);
  Status RunCommit(const Group& group) noexcept;

  const Commit commit;

  // Guards which group forms and its slots. Not held while a group is committed.
  mutable Mutex mutex;
  std::shared_ptr<Group> forming GUARDED_BY(mutex);  // null until a writer begins one
  bool committing GUARDED_BY(mutex) = false;
  CondVar next_leader;  // with `mutex`: the group before has ended
};

}  // namespace kandb::lsm
