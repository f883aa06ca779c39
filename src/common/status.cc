#include "common/status.h"

#include <new>

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

// The text fits the internal buffer of the string, so that nothing is allocated.
Status OutOfMemory() noexcept { return Status::Corruption("out of memory"); }

Status CopyOrOutOfMemory(const Status& status) noexcept {
  try {
    return status;
  } catch (const std::bad_alloc&) {
    return OutOfMemory();
  }
}

}  // namespace kandb
