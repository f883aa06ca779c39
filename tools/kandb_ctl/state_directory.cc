#include "kandb_ctl/state_directory.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <utility>

#include "common/endian.h"
#include "kandb_ctl/command.h"
#include "kandb_ctl/key_text.h"
#include "lsm/directory_lock.h"
#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "lsm/read_view.h"
#include "lsm/recovery.h"
#include "meta/keys.h"
#include "tools/common/exit_status.h"

namespace kandb::ctl {

namespace {

bool Contains(const meta::KeyRange& range, std::string_view key) {
  return range.begin <= key && key < range.end;
}

const char* KindOf(std::string_view key) {
  if (key == meta::kBootstrappedKey) return "bootstrapped";
  if (key == meta::kIdAllocKey) return "id_mark";
  if (Contains(meta::kStoreKeys, key)) return "store";
  if (Contains(meta::kRegionKeys, key)) return "region";
  return "unknown";
}

// The service reads every record in the key range and does not compare its id with its key.
template <class Record>
std::string ForeignId(std::string_view key, const std::string& own_key, const Record& record) {
  return key == own_key ? "" : "holds the record of id " + std::to_string(record.id);
}

}  // namespace

Status DecodeStored(std::string_view key, std::string_view stored, const store::StoreCrypto& crypto,
                    StoredRecord* record) {
  record->kind = KindOf(key);
  std::string value;
  if (Status s = OpenValue(crypto, stored, &value); !s.ok()) return s;
  if (key == meta::kIdAllocKey) {
    if (value.size() != sizeof(std::uint64_t)) {
      return Status::Corruption(std::to_string(value.size()) +
                                " bytes, not 8: the next start hands out identifiers from 0 on");
    }
    record->content = LoadU64(value.data());
  } else if (Contains(meta::kStoreKeys, key)) {
    if (!Decode(value, &record->content.emplace<pdpb::Store>())) {
      return Status::Corruption("no store record");
    }
  } else if (Contains(meta::kRegionKeys, key)) {
    if (!Decode(value, &record->content.emplace<pdpb::Region>())) {
      return Status::Corruption("no region record");
    }
  } else {
    record->content = std::move(value);
  }
  return {};
}

std::string AddToCluster(std::string_view key, std::string_view stored,
                         const store::StoreCrypto& crypto, ClusterState* cluster) {
  StoredRecord record;
  if (Status s = DecodeStored(key, stored, crypto, &record); !s.ok()) return s.message();
  if (key == meta::kBootstrappedKey) {
    cluster->bootstrapped = true;
  } else if (const auto* id_mark = std::get_if<std::uint64_t>(&record.content)) {
    cluster->id_mark = *id_mark;
  } else if (auto* store = std::get_if<pdpb::Store>(&record.content)) {
    cluster->stores.push_back(std::move(*store));
    return ForeignId(key, meta::StoreKey(cluster->stores.back().id), cluster->stores.back());
  } else if (auto* region = std::get_if<pdpb::Region>(&record.content)) {
    cluster->regions.push_back(*region);
    return ForeignId(key, meta::RegionKey(region->id), *region);
  } else {
    return "unknown key";
  }
  return {};
}

Status LoadCluster(const std::string& dir, const store::StoreCrypto& crypto,
                   ClusterState* cluster) {
  lsm::ReadView view;
  if (Status s = lsm::LoadReadOnly(dir, &view); !s.ok()) return s;
  return LoadCluster(view, crypto, cluster);
}

Status LoadCluster(const lsm::ReadView& view, const store::StoreCrypto& crypto,
                   ClusterState* cluster) {
  ClusterState loaded;
  const auto take = [&](std::string_view key, std::string_view stored) {
    const std::string warning = AddToCluster(key, stored, crypto, &loaded);
    if (!warning.empty()) loaded.warnings.push_back(KeyText(key) + ": " + warning);
    return true;
  };
  if (Status s = ForEachRecord(view, take); !s.ok()) return s;
  *cluster = std::move(loaded);
  return {};
}

Status ForEachRecord(const lsm::ReadView& view, const lsm::PairVisitor& visit) {
  constexpr std::uint32_t kNoLimit = std::numeric_limits<std::uint32_t>::max();
  return lsm::ForEachLive(view, "", "", kNoLimit, visit);
}

std::string NameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// The lock is released at once, so that a server can start meanwhile.
Status RefuseRunningServer(const std::string& dir) {
  lsm::DirectoryLock lock;
  return lsm::LockDirectory(dir, &lock);
}

Status RequireState(const std::string& dir) {
  lsm::FileNumbers numbers;
  if (Status s = lsm::ListFileNumbers(dir, &numbers); !s.ok()) return s;
  std::error_code ignored;
  if (!numbers.logs.empty() || !numbers.tables.empty() ||
      std::filesystem::exists(lsm::ManifestFileName(dir), ignored)) {
    return {};
  }
  return Status::NotFound(dir + " has no state: no MANIFEST, no WAL, no table");
}

int FailToRead(const Status& status) {
  (void)Fail(status);
  return tools::kExitUnreachable;
}

Status ReadPassphraseFile(const std::string& path, store::StoreCrypto* crypto) {
  if (path.empty()) {
    *crypto = {};
    return {};
  }
  std::ifstream file(path, std::ios::binary);
  std::string passphrase(std::istreambuf_iterator<char>(file), {});
  if (passphrase.ends_with('\n')) passphrase.pop_back();
  // An empty passphrase seals nothing; naming a file cannot mean that.
  if (passphrase.empty()) return Status::InvalidArgument(path + " holds no passphrase");
  *crypto = store::CryptoFor(passphrase);
  return {};
}

Status OpenTable(const std::string& path, std::shared_ptr<lsm::SstReader>* table,
                 std::optional<std::uint64_t>* damage_offset) {
  damage_offset->reset();
  Status opened = lsm::SstReader::Open(path, table);
  if (opened.ok()) return {};
  std::ifstream file(path, std::ios::binary);
  char bytes[lsm::kFooterSize];
  file.seekg(-static_cast<std::streamoff>(lsm::kFooterSize), std::ios::end);
  const auto footer_offset = static_cast<std::uint64_t>(file.tellg());
  if (!file.read(bytes, sizeof(bytes))) return opened;
  *damage_offset = footer_offset;
  // A sound footer whose blocks fit the file: then it is the index that does not decode.
  lsm::TableFooter footer;
  const bool fits = lsm::DecodeFooter({bytes, sizeof(bytes)}, &footer).ok() &&
                    footer.index_size <= footer_offset &&
                    footer.index_offset <= footer_offset - footer.index_size;
  if (fits) *damage_offset = footer.index_offset;
  return opened;
}

}  // namespace kandb::ctl
