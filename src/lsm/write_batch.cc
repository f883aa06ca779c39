#include "lsm/write_batch.h"

#include <algorithm>
#include <cstdint>

#include "common/endian.h"

namespace kandb::lsm {

namespace {

constexpr std::size_t kCountSize = 4;

Status DefectStatus(EntryDefect defect) {
  switch (defect) {
    case EntryDefect::kNone:
      return {};
    case EntryDefect::kTruncatedHead:
      return Status::Corruption("batch: truncated entry");
    case EntryDefect::kBadOp:
      return Status::Corruption("batch: bad op");
    case EntryDefect::kTruncatedKey:
      return Status::Corruption("batch: truncated key");
    case EntryDefect::kTruncatedValue:
      break;
  }
  return Status::Corruption("batch: truncated value");
}

}  // namespace

std::size_t BatchSize(const std::vector<Entry>& batch) {
  std::size_t size = kCountSize;
  for (const Entry& entry : batch) size += EncodedSize(entry);
  return size;
}

void AppendBatch(const std::vector<Entry>& batch, std::string* out) {
  AppendU32(static_cast<std::uint32_t>(batch.size()), out);
  for (const Entry& entry : batch) AppendEntry(entry, out);
}

Status DecodeBatch(std::string_view bytes, std::vector<EntryView>* entries) {
  entries->clear();
  if (bytes.size() < kCountSize) return Status::Corruption("batch: too short");
  const std::size_t count = LoadU32(bytes.data());
  bytes.remove_prefix(kCountSize);
  // Reserve no memory for a count that is too large for the bytes: it ends as a truncated entry
  // below.
  entries->reserve(std::min(count, bytes.size() / kEntryOverhead));
  for (std::size_t i = 0; i < count; ++i) {
    EntryView entry;
    std::size_t size = 0;
    const EntryDefect defect = ParseEntry(bytes, &entry, &size);
    if (defect != EntryDefect::kNone) return DefectStatus(defect);
    entries->push_back(entry);
    bytes.remove_prefix(size);
  }
  return {};
}

}  // namespace kandb::lsm
