#include "lsm/directory_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <thread>
#include <utility>

#include "common/mutex.h"

namespace kandb::lsm {

namespace {

// The locks of this process, by the directory's device and inode.
struct HeldLocks {
  Mutex mutex;
  std::map<std::pair<dev_t, ino_t>, std::weak_ptr<const UniqueFd>> locks GUARDED_BY(mutex);
};

HeldLocks& Held() {
  static HeldLocks held;
  return held;
}

constexpr std::chrono::seconds kMaxWait{5};
constexpr std::chrono::milliseconds kPause{10};

// Takes the lock, or shares the one that this process has. False when another process has it, or an
// engine of this process that is being destroyed: its entry here expires before its descriptor is
// closed.
bool TryLock(const std::pair<dev_t, ino_t>& identity, UniqueFd* directory, DirectoryLock* lock) {
  HeldLocks& held = Held();
  MutexLock mutex_lock(&held.mutex);
  std::weak_ptr<const UniqueFd>& known = held.locks[identity];
  *lock = known.lock();
  if (*lock != nullptr) return true;
  if (file_calls.flock(directory->get(), LOCK_EX | LOCK_NB) != 0) return errno != EWOULDBLOCK;
  *lock = std::make_shared<const UniqueFd>(std::move(*directory));
  known = *lock;
  return true;
}

}  // namespace

Status LockDirectory(const std::string& dir, DirectoryLock* lock) {
  lock->reset();
  UniqueFd directory(file_calls.open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0));
  struct stat info {};
  if (!directory.valid() || ::fstat(directory.get(), &info) != 0) return {};

  const auto deadline = std::chrono::steady_clock::now() + kMaxWait;
  while (!TryLock({info.st_dev, info.st_ino}, &directory, lock)) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return Status::InvalidArgument(dir + " is in use by another process");
    }
    std::this_thread::sleep_for(kPause);
  }
  return {};
}

}  // namespace kandb::lsm
