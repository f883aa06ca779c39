// Filters the file calls of an engine: sees every call, and may shorten it, fail it or end the
// process after it. Installed before an engine starts and removed after it has ended.
#pragma once

#include <cerrno>
#include <mutex>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "common/posix_file.h"

namespace kandb::testing {

enum CallKind {
  kOpen,
  kRead,
  kWrite,
  kPread,
  kLseek,
  kFsync,
  kFdatasync,
  kFtruncate,
  kFlock,
  kRename,
  kUnlink,
  kStat,
  kMkdir,
  kOpendir,
  kReaddir
};

struct FileCall {
  CallKind kind;
  std::string_view path = {};   // of the calls that take one; the old name of rename
  int fd = -1;                  // of the others; of open when it is done
  std::size_t* size = nullptr;  // of read, write and pread: bytes to transfer
};

// Lets every call pass except syncs, which do nothing: the page cache outlives a process, so they
// would take time and show nothing. One call runs at a time.
class FileCallFilter {
 public:
  FileCallFilter() {
    current = this;
    Install<kOpen>(&FileCalls::open);
    Install<kRead>(&FileCalls::read);
    Install<kWrite>(&FileCalls::write);
    Install<kPread>(&FileCalls::pread);
    Install<kLseek>(&FileCalls::lseek);
    Install<kFsync>(&FileCalls::fsync);
    Install<kFdatasync>(&FileCalls::fdatasync);
    Install<kFtruncate>(&FileCalls::ftruncate);
    Install<kFlock>(&FileCalls::flock);
    Install<kRename>(&FileCalls::rename);
    Install<kUnlink>(&FileCalls::unlink);
    Install<kStat>(&FileCalls::stat);
    Install<kMkdir>(&FileCalls::mkdir);
    Install<kOpendir>(&FileCalls::opendir);
    Install<kReaddir>(&FileCalls::readdir);
  }
  virtual ~FileCallFilter() { file_calls = real; }
  FileCallFilter(const FileCallFilter&) = delete;
  FileCallFilter& operator=(const FileCallFilter&) = delete;

 protected:
  // Both run under `mutex`. Before returns 0, or the errno with which the call fails without
  // happening; it may reduce the size of the call.
  virtual int Before(const FileCall&) { return 0; }
  virtual void After(const FileCall&) {}  // of a call that succeeded

  mutable std::mutex mutex;

 private:
  template <CallKind kind, class Result, class File, class... Rest>
  static void Install(Result (*FileCalls::*entry)(File, Rest...)) {
    static const auto member = entry;
    file_calls.*entry = [](File file, Rest... rest) -> Result {
      const std::lock_guard lock(current->mutex);
      std::tuple<File, Rest...> arguments(file, rest...);
      FileCall call = {.kind = kind};
      if constexpr (std::is_same_v<File, int>) call.fd = file;
      if constexpr (std::is_same_v<File, const char*>) call.path = file;
      if constexpr (kind == kRead || kind == kWrite || kind == kPread) {
        call.size = &std::get<2>(arguments);
      }
      Result failed{};
      if constexpr (std::is_integral_v<Result>) failed = -1;
      errno = current->Before(call);
      if (errno != 0) return failed;
      Result result{};
      if (kind != kFsync && kind != kFdatasync) {
        result = std::apply(current->real.*member, arguments);
      }
      const int error = errno;
      if constexpr (kind == kOpen) call.fd = result;
      if (result != failed) current->After(call);
      errno = error;
      return result;
    };
  }

  const FileCalls real = file_calls;
  static inline FileCallFilter* current = nullptr;
};

// Calls that fail, counted from when the injector is armed.
struct Fault {
  static constexpr int kForever = 1 << 30;

  CallKind kind;
  int first = 1;                      // of the matching calls; the next one is 1
  int count = 1;                      // how many fail in a row
  int error = EIO;                    // the errno
  bool half = false;                  // the first one to fail transfers half of its bytes instead
  std::string_view only_path = {};    // matches paths that contain it
  std::string_view except_path = {};  // and not those that contain this, unless empty
  int seen = 0;
};

class FaultInjector : public FileCallFilter {
 public:
  void Arm(const Fault& fault) {
    const std::lock_guard lock(mutex);
    faults.push_back(fault);
  }
  void Disarm() {
    const std::lock_guard lock(mutex);
    faults.clear();
  }
  // Whether a call has failed.
  bool fired() const {
    const std::lock_guard lock(mutex);
    return has_fired;
  }

 protected:
  int Before(const FileCall& call) override {
    for (Fault& fault : faults) {
      if (call.kind != fault.kind || call.path.find(fault.only_path) == call.path.npos) continue;
      if (!fault.except_path.empty() && call.path.find(fault.except_path) != call.path.npos)
        continue;
      ++fault.seen;
      if (fault.seen < fault.first || fault.seen - fault.first >= fault.count) continue;
      has_fired = true;
      if (!fault.half || fault.seen > fault.first || *call.size < 2) return fault.error;
      *call.size /= 2;
    }
    return 0;
  }

 private:
  std::vector<Fault> faults;
  bool has_fired = false;
};

}  // namespace kandb::testing
