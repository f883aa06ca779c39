#include "common/status.h"

namespace kandb {

namespace {

const char* KindText(std::uint32_t code) {
  switch (code) {
    case Status::kInvalidArgument:
      return "InvalidArgument";
    case Status::kCorruption:
      return "Corruption";
    case Status::kNotFound:
      return "NotFound";
    default:
      return "Unknown";
  }
}

}  // namespace

std::string Status::ToString() const {
  if (ok()) return "OK";
  return std::string(KindText(status_code)) + ": " + status_message;
}

}  // namespace kandb
