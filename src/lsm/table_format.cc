#include "lsm/table_format.h"

#include "common/endian.h"
#include "crypto/crc32c.h"

namespace kandb::lsm {

namespace {

constexpr std::uint64_t kMagic = 0x6B616E646273737;
constexpr std::size_t kCheckedSize = 5 * sizeof(std::uint64_t);
constexpr std::size_t kCrcOffset = kCheckedSize;
constexpr std::size_t kMagicOffset = kCrcOffset + sizeof(std::uint32_t);
static_assert(kMagicOffset + sizeof(kMagic) == kFooterSize);

constexpr std::size_t kIndexOverhead = 4 + 8;  // bytes of an element besides its key

}  // namespace

void AppendFooter(const TableFooter& footer, std::string* out) {
  const std::size_t start = out->size();
  AppendU64(footer.index_offset, out);
  AppendU64(footer.index_size, out);
  AppendU64(footer.filter_offset, out);
  AppendU64(footer.filter_size, out);
  AppendU64(footer.entry_count, out);
  AppendU32(crypto::Crc32c(std::string_view(*out).substr(start)), out);
  AppendU64(kMagic, out);
}

Status DecodeFooter(std::string_view bytes, TableFooter* footer) {
  if (LoadU64(bytes.data() + kMagicOffset) != kMagic) return Status::Corruption("sst bad magic");
  if (LoadU32(bytes.data() + kCrcOffset) != crypto::Crc32c(bytes.substr(0, kCheckedSize))) {
    return Status::Corruption("sst footer crc mismatch");
  }
  *footer = {LoadU64(bytes.data()), LoadU64(bytes.data() + 8), LoadU64(bytes.data() + 16),
             LoadU64(bytes.data() + 24), LoadU64(bytes.data() + 32)};
  return {};
}

void AppendIndexElement(const IndexElement& element, std::string* out) {
  AppendU32(static_cast<std::uint32_t>(element.key.size()), out);
  out->append(element.key);
  AppendU64(element.offset, out);
}

Status DecodeIndex(std::string_view block, std::vector<IndexElement>* index) {
  index->clear();
  while (!block.empty()) {
    if (block.size() < 4) return Status::Corruption("sst index truncated");
    const std::size_t key_length = LoadU32(block.data());
    if (block.size() < kIndexOverhead + key_length) {
      return Status::Corruption("sst index truncated");
    }
    index->push_back({block.substr(4, key_length), LoadU64(block.data() + 4 + key_length)});
    block.remove_prefix(kIndexOverhead + key_length);
  }
  return {};
}

}  // namespace kandb::lsm
