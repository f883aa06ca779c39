#include "kandb_ctl/salvage.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <utility>

#include "common/endian.h"
#include "common/posix_file.h"
#include "crypto/crc32c.h"
#include "kandb_ctl/backup.h"
#include "kandb_ctl/cluster_check.h"
#include "kandb_ctl/file_copy.h"
#include "kandb_ctl/state_directory.h"
#include "lsm/entry.h"
#include "lsm/file_names.h"
#include "lsm/manifest.h"
#include "lsm/table_format.h"
#include "lsm/table_writer.h"
#include "lsm/wal.h"
#include "lsm/write_batch.h"
#include "meta/keys.h"

namespace kandb::ctl {

namespace {

constexpr std::size_t kNowhere = std::string_view::npos;

// An entry of a table with its place.
struct PlacedEntry {
  std::size_t begin;
  std::size_t end;
  lsm::EntryView entry;
};

bool ParseAt(std::string_view data, std::size_t begin, PlacedEntry* placed) {
  std::size_t size = 0;
  if (begin >= data.size() ||
      lsm::ParseEntry(data.substr(begin), &placed->entry, &size) != lsm::EntryDefect::kNone) {
    return false;
  }
  placed->begin = begin;
  placed->end = begin + size;
  return true;
}

// Whether entries begin here: some in a row with ascending keys above `last_key`, or up to the end.
bool BeginsEntries(std::string_view data, std::size_t begin, std::string_view last_key) {
  constexpr int kEnough = 4;
  PlacedEntry placed{};
  for (int count = 0; count < kEnough; ++count) {
    if (begin == data.size()) return count > 0;
    if (!ParseAt(data, begin, &placed) || placed.entry.key <= last_key) return false;
    last_key = placed.entry.key;
    begin = placed.end;
  }
  return true;
}

std::size_t FindEntries(std::string_view data, std::size_t from, std::size_t to,
                        std::string_view last_key) {
  for (std::size_t at = from; at < to; ++at) {
    if (BeginsEntries(data, at, last_key)) return at;
  }
  return kNowhere;
}

// Whether a WAL record begins here, sound as a whole.
bool RecordAt(std::string_view log, std::size_t begin, std::vector<lsm::EntryView>* batch,
              std::size_t* end) {
  constexpr std::size_t kHeader = 8;
  if (log.size() - begin < kHeader) return false;
  const std::size_t length = LoadU32(log.data() + begin + 4);
  if (length > lsm::kMaxLogPayloadSize || length > log.size() - begin - kHeader) return false;
  const std::string_view payload = log.substr(begin + kHeader, length);
  *end = begin + kHeader + length;
  return lsm::DecodeBatch(payload, batch).ok() &&
         crypto::Crc32c(payload) == LoadU32(log.data() + begin);
}

// Whether the file ends before the record that begins here, as its length says.
bool EndsWithin(std::string_view log, std::size_t begin) {
  return log.size() - begin < 8 || LoadU32(log.data() + begin + 4) > log.size() - begin - 8;
}

class Salvager {
 public:
  Salvager(const std::string& dir, const store::StoreCrypto& store_crypto, Salvaged* result)
      : directory(dir), crypto(store_crypto), salvaged(result) {}

  Status Read() {
    if (Status s = lsm::ListFileNumbers(directory, &files); !s.ok()) return s;
    // The oldest first: what is newer replaces it.
    for (const std::uint64_t number : TablesOldestFirst()) {
      std::string bytes;
      if (ReadBytes(lsm::TableFileName(directory, number), &bytes)) {
        ReadTable(NameOf(lsm::TableFileName(directory, number)), bytes);
      }
    }
    for (const std::uint64_t number : files.logs) {
      std::string bytes;
      if (ReadBytes(lsm::LogFileName(directory, number), &bytes)) {
        ReadLog(NameOf(lsm::LogFileName(directory, number)), bytes);
      }
    }
    return {};
  }

  Status WriteTo(const std::string& out, std::uint64_t skip_ids) {
    lsm::TableBuilder table;
    ClusterState cluster;
    for (const auto& [key, operation] : operations) {
      if (operation.op != lsm::kPut) continue;
      ++salvaged->records;
      table.Add(operation);
      (void)AddToCluster(key, operation.value, crypto, &cluster);
    }
    if (Status s = lsm::WriteTable(lsm::TableFileName(out, 1), table); !s.ok()) return s;
    // The mark may be an older one.
    const std::uint64_t mark = std::max(NextId(cluster), HighestId(cluster) + 1);
    return RaiseIdMark(out, {1}, 2, mark, skip_ids, crypto, &salvaged->first_id);
  }

 private:
  void Lose(Loss loss) { salvaged->losses.push_back(std::move(loss)); }
  void LoseFile(const std::string& name, const std::string& text) {
    Lose({.file = name, .text = text});
  }

  // The manifest's order is that of the numbers, newest first, in every directory that an engine
  // wrote: it flushes and compacts in one thread. So a manifest that does not tell all is replaced
  // by the numbers of the tables that are there.
  std::vector<std::uint64_t> TablesOldestFirst() {
    const std::string path = lsm::ManifestFileName(directory);
    std::vector<std::uint64_t> named;
    bool trusted = true;
    const auto take = [&](const lsm::ManifestRecord& record) {
      if (record.word == "sst") {
        trusted = trusted && std::find(named.begin(), named.end(), record.number) == named.end();
        named.push_back(record.number);
      } else if (record.word != "next_file") {
        trusted = false;
      }
    };
    bool exists = false;
    std::optional<std::uint64_t> damage_offset;
    const Status status = lsm::ForEachManifestRecord(path, take, &exists, &damage_offset);
    trusted = trusted && status.ok() && exists && !damage_offset;
    std::vector<std::uint64_t> present;
    for (const std::uint64_t number : files.tables) {
      std::error_code ignored;
      if (std::filesystem::exists(lsm::TableFileName(directory, number), ignored)) {
        present.push_back(number);
      }
    }
    for (const std::uint64_t number : named) {
      if (std::find(present.begin(), present.end(), number) != present.end()) continue;
      trusted = false;
      LoseFile(NameOf(lsm::TableFileName(directory, number)), "missing, named by the manifest");
    }
    for (const std::uint64_t number : present) {
      if (!trusted || std::find(named.begin(), named.end(), number) != named.end()) continue;
      // A leftover of a flush or compaction, mostly; or the manifest has lost its line.
      LoseFile(NameOf(lsm::TableFileName(directory, number)),
               "left out: the manifest does not name it");
    }
    if (trusted) return {named.rbegin(), named.rend()};
    LoseFile(NameOf(path),
             "missing or damaged: all tables are read, so that deleted records may come back");
    return present;
  }

  // Up to the first byte that cannot be read.
  bool ReadBytes(const std::string& path, std::string* bytes) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    int error = file.valid() ? 0 : errno;
    if (error == ENOENT) return false;  // listed under another name
    constexpr std::size_t kPiece = 4096;
    while (error == 0) {
      const std::size_t size = bytes->size();
      bytes->resize(size + kPiece);
      const std::size_t count = ReadFully(file.get(), bytes->data() + size, kPiece, &error);
      bytes->resize(size + count);
      if (count < kPiece) break;
    }
    if (error != 0) {
      Lose({.file = NameOf(path),
            .begin = bytes->size(),
            .end = bytes->size(),
            .text = "not read from here on: " + ErrnoText(error)});
    }
    return true;
  }

  // Where the data of a table ends. Without a sound footer it is where the index begins: with the
  // first key and its offset.
  std::size_t DataEnd(const std::string& name, std::string_view bytes) {
    lsm::TableFooter footer;
    const std::size_t before_footer = bytes.size() - std::min(bytes.size(), lsm::kFooterSize);
    if (bytes.size() >= lsm::kFooterSize &&
        lsm::DecodeFooter(bytes.substr(before_footer), &footer).ok() &&
        footer.index_offset <= before_footer) {
      return footer.index_offset;
    }
    Lose({.file = name, .begin = before_footer, .end = bytes.size(), .text = "the footer"});
    PlacedEntry first{};
    if (!ParseAt(bytes, 0, &first)) return bytes.size();
    std::string index;
    lsm::AppendIndexElement({first.entry.key, 0}, &index);
    return std::min(bytes.find(index), bytes.size());
  }

  void ReadTable(const std::string& name, std::string_view bytes) {
    const std::string_view data = bytes.substr(0, DataEnd(name, bytes));
    std::vector<PlacedEntry> entries;
    for (std::size_t at = 0; at < data.size();) {
      PlacedEntry placed{};
      if (ParseAt(data, at, &placed)) {
        // A length that is too great takes the entries after it for its value.
        const std::size_t inside =
            Decodes(placed.entry)
                ? kNowhere
                : FindEntries(data, placed.begin + 1, placed.end, placed.entry.key);
        if (inside == kNowhere) {
          entries.push_back(placed);
          at = placed.end;
          continue;
        }
        LoseBetween(name, entries, at, data, inside);
        at = inside;
        continue;
      }
      // The entry before may be the damaged one: then the next one begins within it.
      std::size_t from = at + 1;
      std::string_view last_key;
      if (!entries.empty()) {
        from = entries.back().begin + 1;
        if (entries.size() > 1) last_key = entries[entries.size() - 2].entry.key;
      }
      std::size_t next = FindEntries(data, from, data.size(), last_key);
      if (next == kNowhere) next = data.size();
      while (!entries.empty() && entries.back().end > next) {
        at = entries.back().begin;
        entries.pop_back();
      }
      LoseBetween(name, entries, at, data, next);
      at = std::max(next, at);
    }
    TakeInOrder(name, entries);
  }

  void LoseBetween(const std::string& name, const std::vector<PlacedEntry>& entries,
                   std::size_t begin, std::string_view data, std::size_t end) {
    PlacedEntry next{};
    const bool more = ParseAt(data, end, &next);
    Lose({.file = name,
          .begin = begin,
          .end = end,
          .after_key = entries.empty() ? "" : std::string(entries.back().entry.key),
          .before_key = more ? std::string(next.entry.key) : "",
          .text = "no entries here"});
  }

  // A key out of order is a damaged one. When the first two are out of order, the first one is,
  // unless it fits before the third.
  void TakeInOrder(const std::string& name, const std::vector<PlacedEntry>& entries) {
    std::string_view last_key;
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const std::string_view key = entries[i].entry.key;
      const bool has_next = i + 1 < entries.size();
      const std::string_view next_key = has_next ? entries[i + 1].entry.key : "";
      const bool below_last = i > 0 && key <= last_key;
      const bool fits_before_third = i + 2 < entries.size() && key < entries[i + 2].entry.key;
      const bool above_next =
          has_next && next_key <= key && (i == 0 ? !fits_before_third : next_key > last_key);
      if (below_last || above_next) {
        Lose({.file = name,
              .begin = entries[i].begin,
              .end = entries[i].end,
              .after_key = std::string(last_key),
              .before_key = std::string(next_key),
              .text = "the key is out of order"});
        continue;
      }
      last_key = key;
      Take(name, entries[i].begin, entries[i].end, entries[i].entry);
    }
  }

  void ReadLog(const std::string& name, std::string_view log) {
    std::vector<lsm::EntryView> batch;
    for (std::size_t at = 0; at < log.size();) {
      std::size_t end = 0;
      if (RecordAt(log, at, &batch, &end)) {
        for (const lsm::EntryView& entry : batch) Take(name, at, end, entry);
        at = end;
        continue;
      }
      std::size_t next = at + 1;
      while (next < log.size() && !RecordAt(log, next, &batch, &end)) ++next;
      Lose({.file = name,
            .begin = at,
            .end = next,
            .text = EndsWithin(log, at) && next == log.size()
                        ? "torn record at the end: an unacknowledged write"
                        : "a damaged record"});
      at = next;
    }
  }

  bool Decodes(const lsm::EntryView& entry) const {
    if (entry.op != lsm::kPut) return entry.value.empty();
    ClusterState unused;
    return AddToCluster(entry.key, entry.value, crypto, &unused).empty();
  }

  void Take(const std::string& name, std::size_t begin, std::size_t end,
            const lsm::EntryView& entry) {
    if (!Decodes(entry)) {
      return Lose({.file = name,
                   .begin = begin,
                   .end = end,
                   .after_key = std::string(entry.key),
                   .before_key = std::string(entry.key),
                   .text = "the record does not decode"});
    }
    operations[std::string(entry.key)] = {entry.op, std::string(entry.key),
                                          std::string(entry.value)};
  }

  const std::string& directory;
  const store::StoreCrypto& crypto;
  Salvaged* const salvaged;
  lsm::FileNumbers files;
  std::map<std::string, lsm::Entry> operations;
};

}  // namespace

Status Salvage(const std::string& dir, const std::string& out, std::uint64_t skip_ids,
               const store::StoreCrypto& crypto, Salvaged* salvaged) {
  std::error_code error;
  if (std::filesystem::exists(out, error)) return Status::InvalidArgument(out + " exists already");
  Salvager salvager(dir, crypto, salvaged);
  if (Status s = salvager.Read(); !s.ok()) return s;
  std::string partial = out + ".partial-XXXXXX";
  if (::mkdtemp(partial.data()) == nullptr) {
    return Status::Corruption("cannot create " + partial + ": " + ErrnoText(errno));
  }
  Status status = salvager.WriteTo(partial, skip_ids);
  if (status.ok() && ::rename(partial.c_str(), out.c_str()) != 0) {
    status = Status::Corruption("cannot rename " + partial + ": " + ErrnoText(errno));
  }
  if (!status.ok()) std::filesystem::remove_all(partial, error);
  return status;
}

}  // namespace kandb::ctl
