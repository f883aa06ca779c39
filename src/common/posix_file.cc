#include "common/posix_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace kandb {

namespace {

int OpenFile(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }

// Calls `transfer(done)` for the rest until `size` bytes are done, it returns 0, or it fails for
// good. Returns the bytes done; `*error` is the errno of the failure, or 0.
template <class Transfer>
std::size_t TransferFully(std::size_t size, Transfer transfer, int* error) {
  *error = 0;
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = transfer(done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) *error = errno;
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}

}  // namespace

FileCalls file_calls = {.open = OpenFile,
                        .read = ::read,
                        .write = ::write,
                        .pread = ::pread,
                        .lseek = ::lseek,
                        .fsync = ::fsync,
                        .fdatasync = ::fdatasync,
                        .ftruncate = ::ftruncate,
                        .flock = ::flock,
                        .rename = ::rename,
                        .unlink = ::unlink,
                        .stat = ::stat,
                        .mkdir = ::mkdir,
                        .opendir = ::opendir,
                        .readdir = ::readdir};

std::string ErrnoText(int error) { return std::generic_category().message(error); }

void UniqueFd::Reset() {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

int WriteFully(int fd, std::string_view bytes) {
  int error = 0;
  const auto write_rest = [&](std::size_t at) {
    return file_calls.write(fd, bytes.data() + at, bytes.size() - at);
  };
  const std::size_t done = TransferFully(bytes.size(), write_rest, &error);
  // A write of a non-empty buffer that returns 0 makes no progress and sets no errno.
  return done == bytes.size() || error != 0 ? error : EIO;
}

std::size_t ReadFully(int fd, char* buffer, std::size_t size, int* error) {
  const auto read_rest = [&](std::size_t at) {
    return file_calls.read(fd, buffer + at, size - at);
  };
  return TransferFully(size, read_rest, error);
}

ssize_t PreadFully(int fd, char* buffer, std::size_t size, std::uint64_t offset) {
  int error = 0;
  const auto read_rest = [&](std::size_t at) {
    return file_calls.pread(fd, buffer + at, size - at, static_cast<off_t>(offset + at));
  };
  const std::size_t done = TransferFully(size, read_rest, &error);
  errno = error;
  return error == 0 ? static_cast<ssize_t>(done) : -1;
}

}  // namespace kandb
