#include "lsm/recovery.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "common/posix_file.h"
#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "lsm/wal.h"

namespace kandb::lsm {

namespace {

// Tables that a crash left before the manifest named them, or after it no longer did.
void DeleteOrphans(const std::string& dir, const std::vector<std::uint64_t>& tables,
                   const std::vector<std::uint64_t>& live_tables) {
  for (const std::uint64_t number : tables) {
    if (std::find(live_tables.begin(), live_tables.end(), number) != live_tables.end()) continue;
    (void)file_calls.unlink(TableFileName(dir, number).c_str());  // the next start tries again
  }
}

Status OpenTables(const std::string& dir, const std::vector<std::uint64_t>& numbers,
                  std::vector<std::shared_ptr<SstReader>>* tables) {
  for (const std::uint64_t number : numbers) {
    std::shared_ptr<SstReader> reader;
    if (Status s = SstReader::Open(TableFileName(dir, number), &reader); !s.ok()) return s;
    tables->push_back(std::move(reader));
  }
  return {};
}

Status ReplayLogs(const std::string& dir, const std::vector<std::uint64_t>& numbers,
                  MemTable* memtable) {
  const auto apply = [memtable](const std::vector<EntryView>& batch) {
    std::size_t size = 0;
    for (const EntryView& entry : batch) size += entry.key.size() + entry.value.size();
    memtable->Reserve(batch.size(), size);
    memtable->Apply(batch);
  };
  for (const std::uint64_t number : numbers) {
    const std::string path = LogFileName(dir, number);
    if (Status s = ReplayLog(path, apply); !s.ok()) return s;
    memtable->wal_files.push_back(path);
  }
  return {};
}

}  // namespace

Status Recover(const std::string& dir, RecoveredState* state) {
  ManifestState manifest{.next_file = 1, .sst_files = {}};
  bool exists = false;
  if (Status s = ReadManifest(dir, &manifest, &exists); !s.ok()) return s;
  state->live_tables = std::move(manifest.sst_files);

  FileNumbers files;
  if (Status s = ListFileNumbers(dir, &files); !s.ok()) return s;
  DeleteOrphans(dir, files.tables, state->live_tables);
  if (Status s = OpenTables(dir, state->live_tables, &state->table_readers); !s.ok()) return s;

  // New files must sort after every old one, the deleted ones included.
  state->next_file = manifest.next_file;
  for (const std::vector<std::uint64_t>* numbers : {&files.logs, &files.tables}) {
    if (!numbers->empty()) state->next_file = std::max(state->next_file, numbers->back() + 1);
  }
  if (state->next_file > kMaxFileNumber) {
    return Status::Corruption("file number out of range in " + dir);
  }

  state->memtable = std::make_shared<MemTable>();
  return ReplayLogs(dir, files.logs, state->memtable.get());
}

Status LoadReadOnly(const std::string& dir, ReadView* view) {
  struct stat info {};
  if (file_calls.stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    return Status::InvalidArgument(dir + " is not a directory");
  }
  ManifestState manifest;
  bool exists = false;
  if (Status s = ReadManifest(dir, &manifest, &exists); !s.ok()) return s;
  FileNumbers files;
  if (Status s = ListFileNumbers(dir, &files); !s.ok()) return s;
  std::vector<std::shared_ptr<SstReader>> tables;
  if (Status s = OpenTables(dir, manifest.sst_files, &tables); !s.ok()) return s;
  auto memtable = std::make_shared<MemTable>();
  if (Status s = ReplayLogs(dir, files.logs, memtable.get()); !s.ok()) return s;
  view->memtables = {std::move(memtable)};
  view->tables.assign(tables.begin(), tables.end());
  return {};
}

}  // namespace kandb::lsm
