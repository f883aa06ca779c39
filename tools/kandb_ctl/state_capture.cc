#include "kandb_ctl/state_capture.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "kandb_ctl/state_directory.h"
#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "lsm/wal.h"
#include "tools/common/utc_text.h"

namespace kandb::ctl {

namespace {

// A server changes its files a few times a second at most.
constexpr int kMaxAttempts = 100;
constexpr std::chrono::milliseconds kPause{10};

Status Failure(const std::string& path, int error) {
  return Status::Corruption("cannot read " + path + ": " + ErrnoText(error));
}

// A copy in memory of the file from its start to its present end.
Status CopyToMemory(const std::string& path, int file, UniqueFd* copy) {
  UniqueFd memory(::memfd_create("state", MFD_CLOEXEC));
  if (!memory.valid()) return Failure(path, errno);
  std::string piece(std::size_t{1} << 20, '\0');
  for (std::uint64_t offset = 0;;) {
    const ssize_t count = PreadFully(file, piece.data(), piece.size(), offset);
    if (count < 0) return Failure(path, errno);
    if (count == 0) break;
    const auto size = static_cast<std::size_t>(count);
    if (const int error = WriteFully(memory.get(), {piece.data(), size}); error != 0) {
      return Failure(path, error);
    }
    offset += size;
  }
  *copy = std::move(memory);
  return {};
}

// A missing file is no failure: `*file` is then not valid.
Status OpenFile(const std::string& path, UniqueFd* file) {
  *file = UniqueFd(file_calls.open(path.c_str(), O_RDONLY | O_CLOEXEC, 0));
  if (file->valid() || errno == ENOENT) return {};
  return Failure(path, errno);
}

// The text of a small file; none when it is missing.
Status ReadText(const std::string& path, std::optional<std::string>* text) {
  text->reset();
  UniqueFd file;
  if (Status s = OpenFile(path, &file); !s.ok() || !file.valid()) return s;
  std::string bytes(std::size_t{1} << 20, '\0');
  const ssize_t count = PreadFully(file.get(), bytes.data(), bytes.size(), 0);
  if (count < 0) return Failure(path, errno);
  if (static_cast<std::size_t>(count) == bytes.size()) return Failure(path, EFBIG);
  bytes.resize(static_cast<std::size_t>(count));
  *text = std::move(bytes);
  return {};
}

// The numbers of the WALs in a directory, ascending. Other names with such a number are never read.
Status ListLogs(const std::string& dir, std::vector<std::uint64_t>* numbers) {
  std::error_code error;
  std::filesystem::directory_iterator names(dir, error);
  for (; !error && names != std::filesystem::directory_iterator(); names.increment(error)) {
    const std::string name = names->path().filename();
    constexpr std::string_view kPrefix = "wal-";
    std::uint64_t number = 0;
    if (!name.starts_with(kPrefix)) continue;
    (void)std::from_chars(name.data() + kPrefix.size(), name.data() + name.size(), number);
    if (number < lsm::kMaxFileNumber && NameOf(lsm::LogFileName(dir, number)) == name) {
      numbers->push_back(number);
    }
  }
  if (error) return Failure(dir, error.value());
  std::sort(numbers->begin(), numbers->end());
  return {};
}

// The end of the last whole record, and why there is none after it.
struct LogEnd {
  std::uint64_t whole_size = 0;
  std::uint64_t size = 0;
  Status damage;
  bool operator==(const LogEnd& other) const {
    return whole_size == other.whole_size && size == other.size;
  }
};
Status FindEnd(const CapturedFile& log, LogEnd* end) {
  lsm::LogReader reader;
  bool exists = false;
  if (Status s = reader.Open(log.path(), &exists); !s.ok()) return s;
  std::vector<lsm::EntryView> batch;
  while (reader.Next(&batch)) {
  }
  *end = {reader.offset(), std::filesystem::file_size(log.path()), reader.damage()};
  return {};
}

// Replaces the newest WAL by a copy that ends with a whole record. What stays the same for a while
// is no write in progress: such a rest is kept, for those who look for damage.
Status CopyNewest(CapturedFile* log) {
  CapturedFile copy{log->name, {}};
  std::optional<LogEnd> before;
  for (int attempt = 0; attempt < 10; ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(kPause);
    if (Status s = CopyToMemory(log->name, log->file.get(), &copy.file); !s.ok()) return s;
    LogEnd end;
    if (Status s = FindEnd(copy, &end); !s.ok()) return s;
    if (end.damage.ok()) break;
    // Another kind of damage is a failed write that the server cuts back, or it is real.
    const bool torn = end.damage.message().starts_with("torn");
    if (torn && before && !(end == *before)) {
      if (::ftruncate(copy.file.get(), static_cast<off_t>(end.whole_size)) != 0) {
        return Failure(log->name, errno);
      }
      break;
    }
    before = end;
  }
  *log = std::move(copy);
  return {};
}

// `*changed`: the files are not those of one moment.
Status TryCapture(const std::string& dir, StateCapture* capture, bool* changed) {
  *changed = true;
  const std::string manifest_path = lsm::ManifestFileName(dir);
  std::optional<std::string> manifest;
  if (Status s = ReadText(manifest_path, &manifest); !s.ok()) return s;
  std::vector<std::uint64_t> tables;
  if (manifest) {
    UniqueFd copy(::memfd_create("state", MFD_CLOEXEC));
    if (!copy.valid()) return Failure(manifest_path, errno);
    if (const int error = WriteFully(copy.get(), *manifest); error != 0) {
      return Failure(manifest_path, error);
    }
    capture->manifest.push_back({NameOf(manifest_path), std::move(copy)});
    const auto take = [&](const lsm::ManifestRecord& record) {
      if (record.word == "sst") tables.push_back(record.number);
    };
    bool exists = false;
    std::optional<std::uint64_t> damage_offset;
    if (Status s =
            lsm::ForEachManifestRecord(capture->manifest[0].path(), take, &exists, &damage_offset);
        !s.ok()) {
      return s;
    }
  }
  for (const std::uint64_t number : tables) {
    const std::string path = lsm::TableFileName(dir, number);
    UniqueFd file;
    if (Status s = OpenFile(path, &file); !s.ok()) return s;
    if (file.valid()) capture->tables.push_back({NameOf(path), std::move(file)});
  }

  std::vector<std::uint64_t> logs;
  if (Status s = ListLogs(dir, &logs); !s.ok()) return s;
  // In this order: while an older one is there, the newer ones are too.
  for (const std::uint64_t number : logs) {
    const std::string path = lsm::LogFileName(dir, number);
    UniqueFd file;
    if (Status s = OpenFile(path, &file); !s.ok()) return s;
    if (!file.valid()) return {};
    capture->logs.push_back({NameOf(path), std::move(file)});
  }

  std::optional<std::string> manifest_after;
  if (Status s = ReadText(manifest_path, &manifest_after); !s.ok()) return s;
  *changed = manifest_after != manifest;
  return {};
}

}  // namespace

Status TakeCapture(const std::string& dir, StateCapture* capture) {
  // A small state keeps the WALs of all starts.
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) == 0) {
    files.rlim_cur = files.rlim_max;
    (void)::setrlimit(RLIMIT_NOFILE, &files);
  }
  bool changed = true;
  for (int attempt = 0; changed; ++attempt) {
    if (attempt == kMaxAttempts) {
      return Status::Corruption("the files in " + dir + " change all the time");
    }
    if (attempt > 0) std::this_thread::sleep_for(kPause);
    *capture = {};
    if (Status s = TryCapture(dir, capture, &changed); !s.ok()) return s;
  }
  if (!capture->logs.empty()) {
    if (Status s = CopyNewest(&capture->logs.back()); !s.ok()) return s;
  }
  capture->taken_at = std::chrono::system_clock::now();
  return {};
}

Status ReadableDirectory::Open(const std::string& dir, bool live) {
  if (!live) {
    directory = dir;
    return RefuseRunningServer(dir);
  }
  if (Status s = TakeCapture(dir, &capture); !s.ok()) return s;
  std::string made = (std::filesystem::temp_directory_path() / "kandb-live-XXXXXX").string();
  if (::mkdtemp(made.data()) == nullptr) return Failure(made, errno);
  directory = made;
  temporary = true;
  for (const auto* files : {&capture.manifest, &capture.tables, &capture.logs}) {
    for (const CapturedFile& file : *files) {
      links.push_back(directory + "/" + file.name);
      if (::symlink(file.path().c_str(), links.back().c_str()) != 0 && errno != EEXIST) {
        return Failure(links.back(), errno);
      }
    }
  }
  captured_at = tools::UtcText(capture.taken_at);
  return {};
}

ReadableDirectory::~ReadableDirectory() {
  if (!temporary) return;
  for (const std::string& link : links) (void)::unlink(link.c_str());
  (void)::rmdir(directory.c_str());
}

}  // namespace kandb::ctl
