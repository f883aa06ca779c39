// Keeps two processes off one state directory: each would delete the other's files.
#pragma once

#include <memory>
#include <string>

#include "common/posix_file.h"
#include "common/status.h"

namespace kandb::lsm {

// Keeps other processes out of a directory while it lives; null locks nothing. The engines of one
// process on one directory share it, so that a process can reopen a store before it closes the old
// one.
using DirectoryLock = std::shared_ptr<const UniqueFd>;

// Locks `dir`, which must exist. The lock is the kernel's, on the directory itself: it adds no file
// and is released with the process, however that ends. Waits up to 5 s for another process to
// release it, because one that was just killed may still have it; then InvalidArgument "<dir> is in
// use by another process". OK with a null `*lock` for a directory that cannot be opened for this,
// or a file system without locks. Thread-safe.
Status LockDirectory(const std::string& dir, DirectoryLock* lock);

}  // namespace kandb::lsm
