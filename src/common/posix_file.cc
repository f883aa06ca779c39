#include "common/posix_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace kandb {

namespace {

int OpenFile(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }

// Calls `transfer(done)` for the rest until `size` bytes are done, it returns 0, or it fails for
// good. Returns the bytes done, or -1 with errno set.
template <class Transfer>
ssize_t TransferFully(std::size_t size, Transfer transfer) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = transfer(done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -1;
    if (count == 0) break;
    done += static_cast<std::size_t>(count);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

FileCalls file_calls = {OpenFile,    ::read,      ::write,  ::pread, ::fsync,
                        ::fdatasync, ::ftruncate, ::rename, ::unlink};

std::string ErrnoText(int error) { return std::generic_category().message(error); }

void UniqueFd::Reset() {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

int WriteFully(int fd, std::string_view bytes) {
  const ssize_t done = TransferFully(bytes.size(), [&](std::size_t at) {
    return file_calls.write(fd, bytes.data() + at, bytes.size() - at);
  });
  if (done < 0) return errno;
  // A write of a non-empty buffer that returns 0 makes no progress and sets no errno.
  return static_cast<std::size_t>(done) == bytes.size() ? 0 : EIO;
}

ssize_t ReadFully(int fd, char* buffer, std::size_t size) {
  return TransferFully(size,
                       [&](std::size_t at) { return file_calls.read(fd, buffer + at, size - at); });
}

ssize_t PreadFully(int fd, char* buffer, std::size_t size, std::uint64_t offset) {
  return TransferFully(size, [&](std::size_t at) {
    return file_calls.pread(fd, buffer + at, size - at, static_cast<off_t>(offset + at));
  });
}

}  // namespace kandb
