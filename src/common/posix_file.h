// Owned descriptors, the table through which the engine calls the file system, and the loops around
// these calls. As thread-safe as the system calls; descriptors passed as int are borrowed.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "common/status.h"

namespace kandb {

// The system's text for an errno value.
std::string ErrnoText(int error);

// Owns a descriptor (file or socket) and closes it.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int owned) : fd(owned) {}
  UniqueFd(UniqueFd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Reset();
      fd = std::exchange(other.fd, -1);
    }
    return *this;
  }
  ~UniqueFd() { Reset(); }

  bool valid() const { return fd >= 0; }
  int get() const { return fd; }
  // Hands the descriptor over to the caller.
  int release() { return std::exchange(fd, -1); }
  void Reset();

 private:
  int fd = -1;
};

// The system calls by which the engine finds, opens, changes, reads and locks files; all of them
// but close and closedir, whose results nothing depends on, and fstat of an open descriptor. A test
// swaps entries to count calls, to make the n-th one fail, or to end the process there. The table
// has no lock: entries are swapped before the threads start that use them.
struct FileCalls {
  int (*open)(const char* path, int flags, mode_t mode);
  ssize_t (*read)(int fd, void* buffer, std::size_t size);
  ssize_t (*write)(int fd, const void* bytes, std::size_t size);
  ssize_t (*pread)(int fd, void* buffer, std::size_t size, off_t offset);
  off_t (*lseek)(int fd, off_t offset, int whence);
  int (*fsync)(int fd);
  int (*fdatasync)(int fd);
  int (*ftruncate)(int fd, off_t size);
  int (*flock)(int fd, int operation);
  int (*rename)(const char* from, const char* to);
  int (*unlink)(const char* path);
  int (*stat)(const char* path, struct stat* info);
  int (*mkdir)(const char* path, mode_t mode);
  DIR* (*opendir)(const char* path);
  dirent* (*readdir)(DIR* listing);
};
extern FileCalls file_calls;

// Writes all of `bytes`, continuing after partial writes and EINTR. Returns 0, or the errno of the
// call that failed, after which any part of `bytes` may have been written.
int WriteFully(int fd, std::string_view bytes);

// Reads until `size` bytes have arrived, the file ends or a call fails; retries EINTR. Returns the
// number of bytes read; `*error` becomes the errno of the call that failed after them, or 0.
std::size_t ReadFully(int fd, char* buffer, std::size_t size, int* error);

// Reads `size` bytes at `offset`, fewer where the file ends, and leaves the file position alone.
// Returns the number of bytes read, or -1 with errno set when a call failed.
ssize_t PreadFully(int fd, char* buffer, std::size_t size, std::uint64_t offset);

}  // namespace kandb
