#include "lsm/directory_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <map>
#include <utility>

#include "common/mutex.h"

namespace kandb::lsm {

namespace {

// The locks that this process holds, by the directory's device and inode.
struct HeldLocks {
  Mutex mutex;
  std::map<std::pair<dev_t, ino_t>, std::weak_ptr<const UniqueFd>> locks GUARDED_BY(mutex);
};

HeldLocks& Held() {
  static HeldLocks held;
  return held;
}

}  // namespace

Status LockDirectory(const std::string& dir, DirectoryLock* lock) {
  UniqueFd directory(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat info {};
  if (!directory.valid() || ::fstat(directory.get(), &info) != 0) {
    const int error = errno;
    return Status::Corruption("lock " + dir + ": " + ErrnoText(error));
  }

  HeldLocks& held = Held();
  MutexLock mutex_lock(&held.mutex);
  std::weak_ptr<const UniqueFd>& known = held.locks[{info.st_dev, info.st_ino}];
  *lock = known.lock();
  if (*lock != nullptr) return {};
  if (::flock(directory.get(), LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    if (error == EWOULDBLOCK) return Status::InvalidArgument(dir + " is in use by another process");
    return Status::Corruption("lock " + dir + ": " + ErrnoText(error));
  }
  *lock = std::make_shared<const UniqueFd>(std::move(directory));
  known = *lock;
  return {};
}

}  // namespace kandb::lsm
