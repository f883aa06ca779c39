#include "lsm/table_writer.h"

#include <fcntl.h>

#include <string_view>

#include "common/check.h"
#include "common/posix_file.h"
#include "lsm/table_format.h"

namespace kandb::lsm {

namespace {

Status WriteAndSync(const std::string& path, const UniqueFd& file,
                    std::initializer_list<std::string_view> pieces) {
  if (!file.valid()) return Status::Corruption("sst create: " + path);
  for (const std::string_view piece : pieces) {
    if (const int error = WriteFully(file.get(), piece); error != 0) {
      return Status::Corruption("sst write: " + ErrnoText(error));
    }
  }
  if (file_calls.fsync(file.get()) != 0) return Status::Corruption("sst fsync failed");
  return {};
}

}  // namespace

void TableBuilder::Add(const EntryView& entry) {
  KANDB_CHECK(data.empty() || KeyOfEncoded(data.data() + last_entry) < entry.key,
              "entry " << hashes.size() << " of a table has the key \"" << entry.key
                       << "\" after \"" << KeyOfEncoded(data.data() + last_entry) << '"');
  last_entry = data.size();
  if (hashes.size() % kIndexInterval == 0) AppendIndexElement({entry.key, data.size()}, &index);
  AppendEntry(entry, &data);
  hashes.push_back(crypto::HashForBloom(entry.key));
}

Status WriteTable(const std::string& path, const TableBuilder& table) {
  crypto::BloomFilter bloom(table.hashes.size(), kFilterBitsPerKey);
  for (const crypto::BloomHash& hash : table.hashes) bloom.Add(hash);
  const std::string filter = bloom.Serialize();

  const std::uint64_t filter_offset = table.data.size() + table.index.size();
  std::string footer;
  AppendFooter({.index_offset = table.data.size(),
                .index_size = table.index.size(),
                .filter_offset = filter_offset,
                .filter_size = filter.size(),
                .entry_count = table.hashes.size()},
               &footer);

  const std::string temporary = path + ".tmp";
  UniqueFd file(file_calls.open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  Status status = WriteAndSync(temporary, file, {table.data, table.index, filter, footer});
  file.Reset();
  if (status.ok() && file_calls.rename(temporary.c_str(), path.c_str()) != 0) {
    status = Status::Corruption("sst rename failed");
  }
  // A flush is retried forever: on a full disk the files of failed ones must not pile up.
  if (!status.ok()) (void)file_calls.unlink(temporary.c_str());
  return status;
}

}  // namespace kandb::lsm
