#include "common/input_buffer.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace kandb {

char* InputBuffer::Reserve(std::size_t size) {
  if (begin == end) Clear();
  if (free_size() >= size) return bytes.get() + end;

  const std::size_t kept = end - begin;
  if (begin > 0) std::memmove(bytes.get(), bytes.get() + begin, kept);
  begin = 0;
  end = kept;
  if (free_size() < size) {
    // realloc remaps the pages of a large block: no second copy becomes resident.
    void* larger = std::realloc(bytes.get(), kept + size);
    if (larger == nullptr) throw std::bad_alloc();
    (void)bytes.release();
    bytes.reset(static_cast<char*>(larger));
    capacity = kept + size;
  }
  return bytes.get() + end;
}

void InputBuffer::Release(std::size_t keep_capacity) {
  if (begin != end || capacity <= keep_capacity) return;
  bytes.reset();
  capacity = 0;
  Clear();
}

}  // namespace kandb
