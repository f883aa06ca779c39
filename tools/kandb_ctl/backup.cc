#include "kandb_ctl/backup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <utility>

#include "common/endian.h"
#include "common/posix_file.h"
#include "kandb_ctl/cluster_check.h"
#include "kandb_ctl/file_copy.h"
#include "kandb_ctl/state_capture.h"
#include "kandb_ctl/state_directory.h"
#include "kandb_ctl/verify_directory.h"
#include "lsm/directory_lock.h"
#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "lsm/recovery.h"
#include "lsm/wal.h"
#include "meta/keys.h"
#include "tools/common/utc_text.h"

namespace kandb::ctl {

namespace {

constexpr const char* kSumsName = "SHA256SUMS";
constexpr const char* kContentsName = "backup.json";

using Sums = std::map<std::string, std::string>;  // by name

Status SystemFailure(const std::string& what) {
  const int error = errno;
  return Status::Corruption(what + ": " + ErrnoText(error));
}

Status ReadSums(const std::string& backup, Sums* sums) {
  const std::string path = backup + "/" + kSumsName;
  std::ifstream file(path);
  constexpr std::size_t kSumSize = 64;  // characters, then two that say how it was read
  for (std::string line; std::getline(file, line);) {
    if (line.size() <= kSumSize + 2 || line.find('/') != line.npos) {
      return Status::Corruption(path + ": no line of sha256sum: " + KeyText(line));
    }
    (*sums)[line.substr(kSumSize + 2)] = line.substr(0, kSumSize);
  }
  if (sums->empty()) return Status::NotFound(path + " is missing: no complete backup");
  return {};
}

Json ReadContents(const std::string& backup) {
  std::ifstream file(backup + "/" + kContentsName);
  return Json::parse(file, nullptr, false);
}

// What tells a table from another one with its name.
Json IdentityOf(const CapturedFile& table) {
  struct stat info {};
  (void)::fstat(table.file.get(), &info);
  return {{"name", table.name},
          {"bytes", info.st_size},
          {"inode", info.st_ino},
          {"mtime_ns",
           std::int64_t{info.st_mtim.tv_sec} * 1000000000 + std::int64_t{info.st_mtim.tv_nsec}}};
}

std::uint64_t SizeOf(const CapturedFile& file) { return std::filesystem::file_size(file.path()); }

// One backup in the making, in a directory of its own name.
class Backup {
 public:
  Backup(std::string partial_dir, const BackupOptions& backup_options,
         const ShowProgress& show_progress)
      : out(std::move(partial_dir)), options(backup_options), progress(show_progress) {}

  Status CopyAll(const StateCapture& capture) {
    for (const auto* files : {&capture.manifest, &capture.tables, &capture.logs}) {
      for (const CapturedFile& file : *files) total_bytes += SizeOf(file);
    }
    if (!options.earlier.empty()) {
      if (Status s = ReadSums(options.earlier, &earlier_sums); !s.ok()) return s;
      earlier_contents = ReadContents(options.earlier);
      if (earlier_contents.is_discarded()) {
        return Status::Corruption(options.earlier + "/" + kContentsName + " is no JSON");
      }
    }
    for (const CapturedFile& table : capture.tables) {
      if (Status s = AddTable(table); !s.ok()) return s;
    }
    for (const CapturedFile& log : capture.logs) {
      if (Status s = AddLog(log); !s.ok()) return s;
    }
    for (const CapturedFile& manifest : capture.manifest) {
      if (Status s = Copy(manifest.path(), manifest.name); !s.ok()) return s;
    }
    return {};
  }

  // Writes the two files about the others.
  Status Finish(const Json& contents) {
    if (Status s =
            WriteNewFile(PathOf(kContentsName), contents.dump(2) + "\n", &sums[kContentsName]);
        !s.ok()) {
      return s;
    }
    std::string text;
    for (const auto& [name, sum] : sums) text.append(sum).append("  ").append(name) += '\n';
    std::string unused;
    if (Status s = WriteNewFile(PathOf(kSumsName), text, &unused); !s.ok()) return s;
    return SyncDirectory(out);
  }

  const Json& Tables() const { return tables; }
  const Json& Logs() const { return logs; }

 private:
  std::string PathOf(const std::string& name) const { return out + "/" + name; }

  void Count(std::uint64_t bytes) {
    done_bytes += bytes;
    progress(static_cast<double>(done_bytes) /
             static_cast<double>(std::max(total_bytes, done_bytes)));
  }
  CountBytes Counter() {
    return [this](std::uint64_t bytes) { Count(bytes); };
  }

  Status Copy(const std::string& from, const std::string& name) {
    return CopyFile(from, PathOf(name), Counter(), &sums[name]);
  }

  bool UnchangedSinceEarlier(const Json& identity) const {
    if (!earlier_contents.contains("tables")) return false;
    const Json& known = earlier_contents["tables"];
    return std::find(known.begin(), known.end(), identity) != known.end() &&
           earlier_sums.contains(identity["name"]);
  }

  Status AddTable(const CapturedFile& table) {
    const Json identity = IdentityOf(table);
    tables.push_back(identity);
    const std::string to = PathOf(table.name);
    if (UnchangedSinceEarlier(identity)) {
      const std::string from = options.earlier + "/" + table.name;
      const std::string& earlier_sum = earlier_sums[table.name];
      if (::link(from.c_str(), to.c_str()) == 0) {
        std::string& sum = sums[table.name];
        if (!options.verify) {
          sum = earlier_sum;
          Count(SizeOf(table));
          return {};
        }
        if (Status s = SumFile(to, Counter(), &sum); !s.ok()) return s;
        if (sum == earlier_sum) return {};
        (void)::unlink(to.c_str());  // damaged in the earlier backup
      }
    }
    // Not by its name: the server may have deleted it.
    const bool linked = !options.copy && ::linkat(AT_FDCWD, table.path().c_str(), AT_FDCWD,
                                                  to.c_str(), AT_SYMLINK_FOLLOW) == 0;
    return linked ? SumFile(to, Counter(), &sums[table.name]) : Copy(table.path(), table.name);
  }

  Status AddLog(const CapturedFile& log) {
    if (Status s = Copy(log.path(), log.name); !s.ok()) return s;
    const std::string to = PathOf(log.name);
    lsm::LogReader reader;
    bool exists = false;
    if (Status s = reader.Open(to, &exists); !s.ok()) return s;
    std::vector<lsm::EntryView> batch;
    while (reader.Next(&batch)) {
    }
    // A torn record is no part of the state, whatever start left it. Damage is kept, to be found.
    std::uint64_t left_out = 0;
    if (!reader.damage().ok() && reader.damage().message().starts_with("torn")) {
      left_out = std::filesystem::file_size(to) - reader.offset();
      if (::truncate(to.c_str(), static_cast<off_t>(reader.offset())) != 0) {
        return SystemFailure("cannot cut " + to);
      }
      if (Status s = SumFile(
              to, [](std::uint64_t) {}, &sums[log.name]);
          !s.ok())
        return s;
    }
    logs.push_back(
        {{"name", log.name}, {"bytes", std::filesystem::file_size(to)}, {"left_out", left_out}});
    return {};
  }

  const std::string out;
  const BackupOptions& options;
  const ShowProgress& progress;
  std::uint64_t total_bytes = 0;
  std::uint64_t done_bytes = 0;
  Sums earlier_sums;
  Json earlier_contents;
  Sums sums;
  Json tables = Json::array();
  Json logs = Json::array();
};

std::int64_t UnixMs(std::chrono::system_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

// The mark, from which ids go on; none when it is missing or damaged.
Status ReadMark(const std::string& dir, const store::StoreCrypto& crypto, Json* mark) {
  lsm::ReadView view;
  if (Status s = lsm::LoadReadOnly(dir, &view); !s.ok()) return s;
  std::string stored;
  bool found = false;
  if (Status s = lsm::GetLive(view, meta::kIdAllocKey, &stored, &found); !s.ok()) return s;
  StoredRecord record;
  *mark = nullptr;
  if (found && DecodeStored(meta::kIdAllocKey, stored, crypto, &record).ok()) {
    *mark = std::get<std::uint64_t>(record.content);
  }
  return {};
}

Status BackUpTo(const std::string& dir, const std::string& partial, const BackupOptions& options,
                const store::StoreCrypto& crypto, const ShowProgress& progress, Json* contents,
                std::vector<Finding>* findings) {
  StateCapture capture;
  if (Status s = TakeCapture(dir, &capture); !s.ok()) return s;
  // Verifying reads everything once more.
  const double copy_share = options.verify ? 0.5 : 1;
  const ShowProgress copying = [&](double share) { progress(share * copy_share); };
  Backup backup(partial, options, copying);
  if (Status s = backup.CopyAll(capture); !s.ok()) return s;
  Json mark;
  Verified verified;
  if (options.verify) {
    verified = VerifyDirectory(
        partial, crypto, [&](double share) { progress(copy_share + share * (1 - copy_share)); });
    *findings = std::move(verified.findings);
    if (verified.cluster.id_mark) mark = *verified.cluster.id_mark;
  } else {
    // A state that does not open is backed up all the same: more than that is for verifying.
    (void)ReadMark(partial, crypto, &mark);
  }
  *contents = {{"made_at", tools::UtcText(capture.taken_at)},
               {"made_at_unix_ms", UnixMs(capture.taken_at)},
               {"source", std::filesystem::absolute(dir).string()},
               {"id_mark", mark},
               {"tables", backup.Tables()},
               {"wals", backup.Logs()},
               {"verified", options.verify},
               {"stores", verified.cluster.stores.size()},
               {"regions", verified.cluster.regions.size()},
               {"records", verified.records},
               {"findings", findings->size()}};
  return backup.Finish(*contents);
}

// Files that a restore made as root belong to the owner of the directory.
void GiveToOwner(const std::string& dir) {
  struct stat info {};
  if (::geteuid() != 0 || ::stat(dir.c_str(), &info) != 0) return;
  for (const auto& file : std::filesystem::directory_iterator(dir)) {
    if (file.path().filename() == "lost+found") continue;
    (void)::lchown(file.path().c_str(), info.st_uid, info.st_gid);
  }
}

Status RequireEmpty(const std::string& dir) {
  std::error_code error;
  if (std::filesystem::create_directory(dir, error)) (void)::chmod(dir.c_str(), 0750);
  for (const auto& file : std::filesystem::directory_iterator(dir, error)) {
    if (file.path().filename() == "lost+found") continue;  // of a file system of its own
    return Status::InvalidArgument(dir + " is not empty: move its files aside");
  }
  if (error) return Status::Corruption("cannot use " + dir + ": " + error.message());
  return {};
}

}  // namespace

Status BackUp(const std::string& dir, const std::string& out, const BackupOptions& options,
              const store::StoreCrypto& crypto, const ShowProgress& progress, Json* contents,
              std::vector<Finding>* findings) {
  std::string target = out;
  while (target.size() > 1 && target.ends_with('/')) target.pop_back();
  std::error_code error;
  if (std::filesystem::exists(target, error)) {
    return Status::InvalidArgument(target + " exists already");
  }
  std::string partial = target + ".partial-XXXXXX";
  if (::mkdtemp(partial.data()) == nullptr) return SystemFailure("cannot create " + partial);
  Status status = BackUpTo(dir, partial, options, crypto, progress, contents, findings);
  if (status.ok() && ::rename(partial.c_str(), target.c_str()) != 0) {
    status = SystemFailure("cannot rename " + partial + " to " + target);
  }
  if (!status.ok()) {
    std::filesystem::remove_all(partial, error);  // made here, under a name of its own
    return status;
  }
  const std::string parent = std::filesystem::absolute(target).parent_path();
  return SyncDirectory(parent);
}

Status RaiseIdMark(const std::string& dir, const std::vector<std::uint64_t>& tables,
                   std::uint64_t next_file, std::uint64_t mark, std::uint64_t skip_ids,
                   const store::StoreCrypto& crypto, std::uint64_t* first_id) {
  if (skip_ids > std::numeric_limits<std::uint64_t>::max() - mark) {
    return Status::InvalidArgument("no ids are left above " + std::to_string(mark));
  }
  *first_id = mark + skip_ids;
  std::string value;
  AppendU64(*first_id, &value);
  lsm::Log log;
  if (Status s = lsm::OpenLogForAppend(lsm::LogFileName(dir, next_file), &log); !s.ok()) return s;
  const std::string record = lsm::BuildLogRecord(
      {{lsm::kPut, std::string(meta::kIdAllocKey), store::SealValue(crypto, value)}});
  if (Status s = log.Append(record); !s.ok()) return s;
  if (Status s = log.Sync(); !s.ok()) return s;
  if (Status s = SyncDirectory(dir); !s.ok()) return s;
  if (Status s = lsm::WriteManifest(dir, {.next_file = next_file + 1, .sst_files = tables});
      !s.ok()) {
    return s;
  }
  return SyncDirectory(dir);
}

Status Restore(const std::string& backup, const std::string& dir, std::uint64_t skip_ids,
               const store::StoreCrypto& crypto, const ShowProgress& progress, Json* result) {
  Sums sums;
  if (Status s = ReadSums(backup, &sums); !s.ok()) return s;
  std::uint64_t total_bytes = 1;
  for (const auto& [name, sum] : sums) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(backup + "/" + name, error);
    if (error) return Status::Corruption(backup + "/" + name + ": " + error.message());
    total_bytes += size;
  }
  lsm::ManifestState manifest{.next_file = 1, .sst_files = {}};
  bool exists = false;
  if (Status s = lsm::ReadManifest(backup, &manifest, &exists); !s.ok()) return s;
  lsm::FileNumbers numbers;
  if (Status s = lsm::ListFileNumbers(backup, &numbers); !s.ok()) return s;
  for (const auto* list : {&numbers.logs, &numbers.tables}) {
    if (!list->empty()) manifest.next_file = std::max(manifest.next_file, list->back() + 1);
  }

  if (Status s = RequireEmpty(dir); !s.ok()) return s;
  lsm::DirectoryLock lock;
  if (Status s = lsm::LockDirectory(dir, &lock); !s.ok()) return s;
  // Until the last step no server starts here, whatever interrupts this: the number is out of
  // range.
  if (Status s = lsm::WriteManifest(
          dir, {.next_file = lsm::kMaxFileNumber + 1, .sst_files = manifest.sst_files});
      !s.ok()) {
    return s;
  }
  if (Status s = SyncDirectory(dir); !s.ok()) return s;
  std::uint64_t done_bytes = 0;
  const CountBytes count = [&](std::uint64_t bytes) {
    done_bytes += bytes;
    progress(std::min(1.0, static_cast<double>(done_bytes) / static_cast<double>(total_bytes)));
  };
  for (const auto& [name, wanted] : sums) {
    std::string sum;
    const std::string from = backup + "/" + name;
    const bool state_file = name.starts_with("wal-") || name.starts_with("sst-");
    if (Status s =
            state_file ? CopyFile(from, dir + "/" + name, count, &sum) : SumFile(from, count, &sum);
        !s.ok()) {
      return s;
    }
    if (sum != wanted) {
      return Status::Corruption(from + " does not have the sum in " + kSumsName +
                                ": take another backup, " + dir + " is not complete");
    }
  }
  ClusterState cluster;
  if (Status s = LoadCluster(backup, crypto, &cluster); !s.ok()) return s;
  const std::uint64_t mark =
      cluster.id_mark.value_or(std::max(meta::kFirstId, HighestId(cluster) + 1));
  std::uint64_t first_id = 0;
  if (Status s = RaiseIdMark(dir, manifest.sst_files, manifest.next_file, mark, skip_ids, crypto,
                             &first_id);
      !s.ok()) {
    return s;
  }
  GiveToOwner(dir);
  const Json contents = ReadContents(backup);
  *result = {{"first_id", first_id},
             {"id_mark_of_backup", cluster.id_mark ? Json(*cluster.id_mark) : Json()},
             {"made_at", contents.is_object() ? contents.value("made_at", "") : ""},
             {"made_at_unix_ms",
              contents.is_object() ? contents.value("made_at_unix_ms", std::int64_t{0}) : 0}};
  return {};
}

}  // namespace kandb::ctl
