// Faults below the engine: counts the file calls that change something and makes the n-th one, or
// all from the n-th on, fail. Installed before an engine starts and removed after it has ended; in
// between it may be armed and disarmed at any time, from any thread.
#pragma once

#include <atomic>
#include <cerrno>
#include <string_view>

#include "common/posix_file.h"

namespace kandb::testing {

class FaultInjector {
 public:
  FaultInjector() {
    real = file_calls;
    calls = 0;
    Disarm();
    file_calls.write = [](int fd, const void* bytes, std::size_t size) -> ssize_t {
      if (fd == manifest || !Fails()) return real.write(fd, bytes, size);
      // Half of the bytes arrive before the failure, as on a disk that fills up.
      return size > 1 && !short_write.exchange(true) ? real.write(fd, bytes, size / 2) : Refuse();
    };
    file_calls.open = [](const char* path, int flags, mode_t mode) {
      const std::string_view name(path);
      if (name.find("/wal-") != name.npos) return real.open(path, flags, mode);
      const int fd = Fails() ? Refuse() : real.open(path, flags, mode);
      // A number is used again once its file is closed: only the file opened last can be the
      // manifest.
      if (name.ends_with("/MANIFEST.tmp"))
        manifest = fd;
      else if (fd == manifest)
        manifest = -1;
      return fd;
    };
    file_calls.fsync = [](int fd) { return Fails() ? Refuse() : real.fsync(fd); };
    file_calls.fdatasync = [](int fd) { return Fails() ? Refuse() : real.fdatasync(fd); };
    file_calls.rename = [](const char* from, const char* to) {
      return Fails() ? Refuse() : real.rename(from, to);
    };
  }
  ~FaultInjector() { file_calls = real; }
  FaultInjector(const FaultInjector&) = delete;
  FaultInjector& operator=(const FaultInjector&) = delete;

  // From now on the n-th call (1 is the next) fails with EIO, and `count` - 1 more after it.
  void Arm(int n, int count) {
    short_write = false;
    first = calls + n;
    last = first + count - 1;
  }
  void Disarm() { first = last = -1; }
  bool fired() const { return first >= 0 && calls >= first; }

 private:
  static bool Fails() {
    const int call = ++calls;
    return first >= 0 && call >= first && call <= last;
  }
  static int Refuse() {
    errno = EIO;
    return -1;
  }

  static inline FileCalls real;
  static inline std::atomic<int> manifest = -1;  // its descriptor, while it is written
  static inline std::atomic<int> calls = 0;
  static inline std::atomic<int> first = -1;
  static inline std::atomic<int> last = -1;
  static inline std::atomic<bool> short_write = false;
};

}  // namespace kandb::testing
