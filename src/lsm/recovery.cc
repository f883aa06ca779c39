#include "lsm/recovery.h"

#include <sys/stat.h>

#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "lsm/wal.h"

namespace kandb::lsm {

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
  for (const std::uint64_t number : numbers) {
    const std::string path = LogFileName(dir, number);
    const auto apply = [&](const std::vector<EntryView>& batch) {
      std::size_t size = 0;
      for (const EntryView& entry : batch) size += entry.key.size() + entry.value.size();
      memtable->Reserve(batch.size(), size);
      memtable->Apply(batch);
    };
    if (Status s = ReplayLog(path, apply); !s.ok()) return s;
    memtable->wal_files.push_back(path);
  }
  return {};
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
