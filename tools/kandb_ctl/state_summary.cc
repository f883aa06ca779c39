#include "kandb_ctl/state_summary.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>

#include "kandb_ctl/state_directory.h"
#include "kandb_ctl/verify_directory.h"
#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "lsm/recovery.h"
#include "lsm/wal.h"
#include "store/meta_store.h"
#include "tools/common/text_table.h"

namespace kandb::ctl {

namespace {

constexpr const char* kLog = "WAL, replayed";
constexpr const char* kLiveTable = "table";
constexpr const char* kOrphan = "orphaned table, deleted by the next start";

// The files that the next start does not ignore, by name.
std::map<std::string, const char*> KnownFiles(const std::string& dir,
                                              const lsm::ManifestState& manifest) {
  std::map<std::string, const char*> known = {{NameOf(lsm::ManifestFileName(dir)), "manifest"}};
  lsm::FileNumbers numbers;
  (void)lsm::ListFileNumbers(dir, &numbers);  // "next start" names the failure
  for (const std::uint64_t number : numbers.logs) {
    known[NameOf(lsm::LogFileName(dir, number))] = kLog;
  }
  for (const std::uint64_t number : numbers.tables) {
    known[NameOf(lsm::TableFileName(dir, number))] = kOrphan;
  }
  for (const std::uint64_t number : manifest.sst_files) {
    known[NameOf(lsm::TableFileName(dir, number))] = kLiveTable;
  }
  return known;
}

void CountLog(const std::string& path, Json* file) {
  lsm::LogReader reader;
  bool exists = false;
  if (Status s = reader.Open(path, &exists); !s.ok()) {
    (*file)["error"] = s.message();
    return;
  }
  std::uint64_t records = 0;
  std::uint64_t entries = 0;
  std::vector<lsm::EntryView> batch;
  while (reader.Next(&batch)) {
    ++records;
    entries += batch.size();
  }
  (*file)["records"] = records;
  (*file)["entries"] = entries;
  if (!reader.damage().ok()) {
    (*file)["error"] = reader.damage().message() + " at " + std::to_string(reader.offset());
  }
}

void CountTable(const std::string& path, Json* file) {
  std::shared_ptr<lsm::SstReader> table;
  if (Status s = lsm::SstReader::Open(path, &table); !s.ok()) {
    (*file)["error"] = s.message();
  } else {
    (*file)["entries"] = table->EntryCount();
  }
}

Json DescribeFiles(const std::string& dir, const lsm::ManifestState& manifest) {
  const std::map<std::string, const char*> known = KnownFiles(dir, manifest);
  std::map<std::string, Json> files;
  for (const auto& item : std::filesystem::directory_iterator(dir)) {
    const std::string name = item.path().filename();
    const auto found = known.find(name);
    const char* what = found == known.end() ? "ignored" : found->second;
    if (!item.is_regular_file()) what = "no regular file";
    Json file = {{"name", KeyText(name)},
                 {"bytes", item.is_regular_file() ? item.file_size() : 0},
                 {"what", what}};
    if (what == kLog) CountLog(item.path(), &file);
    if (what == kLiveTable || what == kOrphan) CountTable(item.path(), &file);
    files[name] = std::move(file);
  }
  Json list = Json::array();
  for (auto& [name, file] : files) list.push_back(std::move(file));
  return list;
}

// Counts record by record: a list would be a second copy in memory.
Status CountCluster(const lsm::ReadView& view, const store::StoreCrypto& crypto, Json* cluster) {
  std::map<std::string, std::uint64_t> counts;
  std::optional<std::uint64_t> id_mark;
  const auto count = [&](std::string_view key, std::string_view stored) {
    StoredRecord record;
    const bool sound = DecodeStored(key, stored, crypto, &record).ok();
    ++counts[sound ? record.kind : "unknown"];
    if (const auto* mark = std::get_if<std::uint64_t>(&record.content)) id_mark = *mark;
    return true;
  };
  if (Status s = ForEachRecord(view, count); !s.ok()) return s;
  *cluster = {{"bootstrapped", counts["bootstrapped"] > 0},
              {"id_mark", id_mark ? Json(*id_mark) : Json()},
              {"stores", counts["store"]},
              {"regions", counts["region"]},
              {"warnings", counts["unknown"]}};
  return {};
}

// Above the number of every file, the orphans included.
std::uint64_t NextFile(const std::string& dir, const lsm::ManifestState& manifest) {
  lsm::FileNumbers numbers;
  (void)lsm::ListFileNumbers(dir, &numbers);  // "fails" names the failure
  std::uint64_t next_file = manifest.next_file;
  for (const auto* list : {&numbers.logs, &numbers.tables}) {
    if (!list->empty()) next_file = std::max(next_file, list->back() + 1);
  }
  return next_file;
}

// The effect of a start on the files, from their descriptions.
Json DescribeStart(const std::string& dir, const Json& files, const lsm::ManifestState& manifest) {
  std::uint64_t logs = 0;
  std::uint64_t records = 0;
  std::uint64_t bytes = 0;
  Json deletes = Json::array();
  for (const Json& file : files) {
    if (file["what"] == kOrphan) deletes.push_back(file["name"]);
    if (file["what"] != kLog) continue;
    ++logs;
    records += file.value("records", std::uint64_t{0});
    bytes += file["bytes"].get<std::uint64_t>();
  }
  return {{"fails", nullptr},
          {"replays_wals", logs},
          {"replays_records", records},
          {"replays_bytes", bytes},
          {"memtable_bytes", nullptr},
          {"first_write_switches_memtable", nullptr},
          {"compacts_tables", manifest.sst_files.size() > store::kMaxTableFiles},
          {"next_file", NextFile(dir, manifest)},
          {"deletes", std::move(deletes)}};
}

std::string WithBlanks(std::string name) {
  std::replace(name.begin(), name.end(), '_', ' ');
  return name;
}

std::string ValueText(const Json& value) {
  if (value.is_null()) return "none";
  if (value.is_boolean()) return value ? "yes" : "no";
  if (value.is_string()) return value;
  if (!value.is_array()) return value.dump();
  std::string text;
  for (const Json& element : value) text += (text.empty() ? "" : ", ") + ValueText(element);
  return text.empty() ? "none" : text;
}

}  // namespace

Status SummarizeFiles(const std::string& dir, Json* summary, lsm::ReadView* view) {
  lsm::ManifestState manifest{.next_file = 1, .sst_files = {}};
  bool exists = false;
  Status status = lsm::ReadManifest(dir, &manifest, &exists);
  Json files = DescribeFiles(dir, manifest);
  Json start = DescribeStart(dir, files, manifest);
  if (status.ok()) status = lsm::LoadReadOnly(dir, view);
  if (status.ok()) {
    const std::uint64_t memtable_bytes = view->memtables.front()->ApproximateBytes();
    start["memtable_bytes"] = memtable_bytes;
    start["first_write_switches_memtable"] = memtable_bytes >= store::kWriteBufferSize;
  } else {
    start["fails"] = status.message();
  }
  *summary = {
      {"files", std::move(files)},
      {"manifest",
       {{"exists", exists}, {"next_file", manifest.next_file}, {"tables", manifest.sst_files}}},
      {"next_start", std::move(start)}};
  return status;
}

Json SummarizeDirectory(const std::string& dir, const store::StoreCrypto& crypto) {
  Json parts;
  Json cluster;
  lsm::ReadView view;
  Status status = SummarizeFiles(dir, &parts, &view);
  if (status.ok()) status = CountCluster(view, crypto, &cluster);
  if (!status.ok()) parts["next_start"]["fails"] = status.message();
  return {{"files", std::move(parts["files"])},
          {"manifest", std::move(parts["manifest"])},
          {"cluster", std::move(cluster)},
          {"next_start", std::move(parts["next_start"])},
          {"findings", VerifyDirectory(dir, crypto, [](double) {}).findings.size()}};
}

void PrintForPeople(const Json& summary) {
  tools::TextTable files({"file", "bytes", "records", "entries", "what"});
  for (const Json& file : summary["files"]) {
    const auto cell = [&](const char* name) {
      return file.contains(name) ? ValueText(file[name]) : "";
    };
    const std::string error = file.contains("error") ? "; " + cell("error") : "";
    files.AddRow(
        {cell("name"), cell("bytes"), cell("records"), cell("entries"), cell("what") + error});
  }
  files.Print();
  if (summary.contains("read_live_at")) {
    std::printf("\nread live at %s\n", ValueText(summary["read_live_at"]).c_str());
  }
  for (const char* part : {"manifest", "cluster", "next_start"}) {
    std::printf("\n%s\n", WithBlanks(part).c_str());
    for (const auto& [name, value] : summary[part].items()) {
      std::printf("  %-29s  %s\n", WithBlanks(name).c_str(), ValueText(value).c_str());
    }
  }
  std::printf("\nfindings                         %s%s\n", ValueText(summary["findings"]).c_str(),
              summary["findings"] == 0 ? "" : ": kandb-ctl state verify names them");
}

}  // namespace kandb::ctl
