#include "lsm/compaction.h"

#include <cstddef>
#include <utility>

#include "lsm/merging_iterator.h"
#include "lsm/table_writer.h"

namespace kandb::lsm {

namespace {

// What a compaction reads of each table at once: the disk may have to seek between them.
constexpr std::size_t kMergeReadSize = 262144;  // bytes

Status WriteAndOpen(const std::string& path, const TableBuilder& builder,
                    std::shared_ptr<SstReader>* table) {
  if (Status s = WriteTable(path, builder); !s.ok()) return s;
  return SstReader::Open(path, table);
}

}  // namespace

Status FlushToTable(const MemTable& memtable, const std::string& path,
                    std::shared_ptr<SstReader>* table) {
  TableBuilder builder(memtable.ApproximateBytes());
  memtable.ForEach([&](const EntryView& entry) { builder.Add(entry); });
  return WriteAndOpen(path, builder, table);
}

Status MergeTables(const std::vector<std::shared_ptr<SstReader>>& tables, const std::string& path,
                   std::shared_ptr<SstReader>* merged) {
  std::vector<std::unique_ptr<EntrySource>> sources;
  sources.reserve(tables.size());
  std::size_t data_size = 0;  // the new table has no more
  for (const auto& table : tables) {
    data_size += table->DataSize();
    sources.push_back(std::make_unique<SstReader::Iterator>(table.get(), kMergeReadSize));
  }
  MergingIterator entries(std::move(sources), "");
  TableBuilder builder(data_size);
  for (entries.Seek(""); entries.valid(); entries.Next()) {
    if (entries.entry().op == kPut) builder.Add(entries.entry());
  }
  if (!entries.status().ok()) return entries.status();
  return WriteAndOpen(path, builder, merged);
}

}  // namespace kandb::lsm
