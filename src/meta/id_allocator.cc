#include "meta/id_allocator.h"

#include <optional>
#include <string>

#include "common/endian.h"
#include "meta/keys.h"

namespace kandb::meta {

namespace {

// How far the mark is ahead of the identifiers, so that most calls need no write.
constexpr std::uint64_t kIdMargin = 1000;
constexpr std::size_t kMarkSize = 8;  // bytes

// Nothing when there is no mark or it cannot be read; 0 when it is damaged.
std::optional<std::uint64_t> ReadMark(const store::MetaStore& metadata) {
  std::string mark;
  bool found = false;
  if (!metadata.Get(kIdAllocKey, &mark, &found).ok() || !found) return std::nullopt;
  return mark.size() == kMarkSize ? LoadU64(mark.data()) : 0;
}

}  // namespace

IdAllocator::IdAllocator(store::MetaStore* metadata_store)
    : metadata(metadata_store), next_id(ReadMark(*metadata_store).value_or(kFirstId)) {}

Status IdAllocator::Allocate(std::uint32_t count, std::uint64_t* first_id) {
  MutexLock lock(&id_mutex);
  const std::uint64_t end = next_id + count;
  // A mark that cannot be read is written again.
  if (ReadMark(*metadata).value_or(0) < end) {
    std::string mark;
    AppendU64(end + kIdMargin, &mark);
    if (Status s = metadata->Put({{std::string(kIdAllocKey), mark}}); !s.ok()) return s;
  }
  *first_id = next_id;
  next_id = end;
  return {};
}

}  // namespace kandb::meta
