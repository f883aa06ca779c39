// Keeps two processes off one state directory: each would delete the other's files.
#pragma once

#include <memory>
#include <string>

#include "common/posix_file.h"
#include "common/status.h"

namespace kandb::lsm {

// Holds a directory for this process while it lives; null holds nothing. The engines of one process
// on one directory share it, so that a process can open a store anew before it lets go of the old
// one.
using DirectoryLock = std::shared_ptr<const UniqueFd>;

// Locks `dir`, which must exist. The lock is the kernel's, on the directory itself: it adds no file
// and is released with the process, however that ends. Waits up to 5 s for another process to let
// go, because one that was just killed may still hold it; then InvalidArgument "<dir> is in use by
// another process". A directory that cannot be opened for this, or a file system without locks,
// goes without: OK, and `*lock` is null. Thread-safe.
Status LockDirectory(const std::string& dir, DirectoryLock* lock);

}  // namespace kandb::lsm
