#include "pdpb/wire.h"

namespace kandb::pdpb {

void AppendField(std::uint16_t tag, std::string_view value, std::string* out) {
  AppendFieldHeader(tag, value.size(), out);
  out->append(value);
}

void AppendInteger(std::uint16_t tag, std::uint64_t value, std::string* out) {
  AppendFieldHeader(tag, sizeof(value), out);
  AppendU64(value, out);
}

}  // namespace kandb::pdpb
