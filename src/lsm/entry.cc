#include "lsm/entry.h"

namespace kandb::lsm {

void AppendEntry(const EntryView& entry, std::string* out) {
  out->push_back(static_cast<char>(entry.op));
  AppendU32(static_cast<std::uint32_t>(entry.key.size()), out);
  out->append(entry.key);
  AppendU32(static_cast<std::uint32_t>(entry.value.size()), out);
  out->append(entry.value);
}

}  // namespace kandb::lsm
