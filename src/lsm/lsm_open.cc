// Opening and closing the engine: recovery of what an earlier process left in the directory.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "lsm/file_names.h"
#include "lsm/lsm_db.h"
#include "lsm/manifest.h"
#include "lsm/recovery.h"

namespace kandb::lsm {

namespace {

Status EnsureDirectory(const std::string& dir) {
  struct stat info {};
  if (file_calls.stat(dir.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return {};
    return Status::InvalidArgument(dir + " exists and is not a directory");
  }
  if (file_calls.mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
    const int error = errno;
    return Status::Corruption("mkdir " + dir + ": " + ErrnoText(error));
  }
  return {};
}

// Tables that a crash left before the manifest named them, or after it had ceased to.
void DeleteOrphans(const std::string& dir, const std::vector<std::uint64_t>& tables,
                   const std::vector<std::uint64_t>& live_tables) {
  for (const std::uint64_t number : tables) {
    if (std::find(live_tables.begin(), live_tables.end(), number) != live_tables.end()) continue;
    (void)file_calls.unlink(TableFileName(dir, number).c_str());  // the next Open tries again
  }
}

}  // namespace

Status LsmDb::Open(const std::string& dir, const Options& options, std::unique_ptr<LsmDb>* out) {
  if (Status s = EnsureDirectory(dir); !s.ok()) return s;
  // Before anything in the directory is looked at: another process may be about to change it.
  DirectoryLock lock;
  if (Status s = LockDirectory(dir, &lock); !s.ok()) return s;
  auto db = std::make_unique<LsmDb>(Private(), dir, options, std::move(lock));
  if (Status s = db->Recover(); !s.ok()) return s;
  db->background = std::thread([engine = db.get()] { engine->BackgroundLoop(); });
  *out = std::move(db);
  return {};
}

LsmDb::LsmDb(Private, const std::string& dir, const Options& engine_options, DirectoryLock lock)
    : directory_lock(std::move(lock)), directory(dir), options(engine_options) {}

LsmDb::~LsmDb() {
  {
    MutexLock lock(&db_mutex);
    stopping = true;
  }
  background_cv.NotifyAll();
  if (background.joinable()) background.join();
}

Status LsmDb::Recover() {
  MutexLock lock(&db_mutex);
  ManifestState manifest{.next_file = 1, .sst_files = {}};
  bool exists = false;
  if (Status s = ReadManifest(directory, &manifest, &exists); !s.ok()) return s;
  live_tables = std::move(manifest.sst_files);

  FileNumbers files;
  if (Status s = ListFileNumbers(directory, &files); !s.ok()) return s;
  DeleteOrphans(directory, files.tables, live_tables);
  if (Status s = OpenTables(directory, live_tables, &table_readers); !s.ok()) return s;

  // New files must sort after every old one, the deleted ones included.
  next_file = manifest.next_file;
  for (const std::vector<std::uint64_t>* numbers : {&files.logs, &files.tables}) {
    if (!numbers->empty()) next_file = std::max(next_file, numbers->back() + 1);
  }
  if (next_file > kMaxFileNumber) {
    return Status::Corruption("file number out of range in " + directory);
  }

  active = std::make_shared<MemTable>();
  if (Status s = ReplayLogs(directory, files.logs, active.get()); !s.ok()) return s;
  if (Status s = StartLog(); !s.ok()) return s;
  PublishView();
  return SaveManifest();
}

Status LsmDb::StartLog() {
  std::string path = LogFileName(directory, next_file++);
  // Room first: a log that is in use must also be known for deletion.
  active->wal_files.reserve(active->wal_files.size() + 1);
  if (Status s = OpenLogForAppend(path, &log); !s.ok()) return s;
  active->wal_files.push_back(std::move(path));
  return {};
}

}  // namespace kandb::lsm
