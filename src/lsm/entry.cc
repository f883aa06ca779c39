#include "lsm/entry.h"

#include <limits>

#include "common/check.h"

namespace kandb::lsm {

void AppendEntry(const EntryView& entry, std::string* out) {
  constexpr std::size_t kMaxLength = std::numeric_limits<std::uint32_t>::max();
  KANDB_CHECK(entry.key.size() <= kMaxLength && entry.value.size() <= kMaxLength,
              "key of " << entry.key.size() << " bytes, value of " << entry.value.size());
  out->push_back(static_cast<char>(entry.op == kPut ? kPut : kDelete));
  AppendU32(static_cast<std::uint32_t>(entry.key.size()), out);
  out->append(entry.key);
  AppendU32(static_cast<std::uint32_t>(entry.value.size()), out);
  out->append(entry.value);
}

}  // namespace kandb::lsm
