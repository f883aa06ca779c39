#include "lsm/commit_queue.h"

#include <new>
#include <utility>

namespace kandb::lsm {

Status CommitQueue::Submit(const WriterSlot& slot) {
  bool leads = false;
  const std::shared_ptr<Group> group = Join(&slot, &leads);
  if (leads) {
    Lead(group.get());
  } else {
    group->ended.wait(0);
  }
  return CopyOrOutOfMemory(group->result);
}

std::shared_ptr<CommitQueue::Group> CommitQueue::Join(const WriterSlot* slot, bool* leads) {
  MutexLock lock(&mutex);
  *leads = forming == nullptr;
  if (*leads) {
    auto group = std::make_shared<Group>();
    group->slots.push_back(slot);
    forming = std::move(group);
  } else {
    forming->slots.push_back(slot);
  }
  return forming;
}

void CommitQueue::Lead(Group* group) {
  {
    MutexLock lock(&mutex);
    while (committing) next_leader.Wait(&mutex);  // others join meanwhile
    committing = true;
    forming = nullptr;
  }
  group->result = RunCommit(*group);
  // From here on the other writers may return: their slots may be gone.
  group->ended = 1;
  {
    MutexLock lock(&mutex);
    committing = false;
  }
  // The next leader first: the disk is idle until it runs. The others are woken all at once. No
  // lock is held, so that nobody wakes only to wait for one.
  next_leader.NotifyOne();
  group->ended.notify_all();
}

std::size_t CommitQueue::WaitingCount() const {
  MutexLock lock(&mutex);
  return forming == nullptr ? 0 : forming->slots.size();
}

Status CommitQueue::RunCommit(const Group& group) noexcept try {
  return commit(group.slots);
} catch (const std::bad_alloc&) {
  return OutOfMemory();
}

}  // namespace kandb::lsm
