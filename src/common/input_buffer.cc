#include "common/input_buffer.h"

#include <cstring>

namespace kandb {

char* InputBuffer::Reserve(std::size_t size) {
  if (begin == end) Clear();
  if (free_size() >= size) return bytes.get() + end;

  const std::size_t kept = end - begin;
  if (capacity - kept >= size) {
    std::memmove(bytes.get(), bytes.get() + begin, kept);
  } else {
    auto larger = std::make_unique_for_overwrite<char[]>(kept + size);
    if (kept > 0) std::memcpy(larger.get(), bytes.get() + begin, kept);
    bytes = std::move(larger);
    capacity = kept + size;
  }
  begin = 0;
  end = kept;
  return bytes.get() + end;
}

void InputBuffer::Release(std::size_t keep_capacity) {
  if (begin != end || capacity <= keep_capacity) return;
  bytes.reset();
  capacity = 0;
  Clear();
}

}  // namespace kandb
