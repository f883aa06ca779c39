#include "lsm/arena.h"

#include <algorithm>
#include <utility>

namespace kandb::lsm {

namespace {

constexpr std::size_t kMaxChunkSize = std::size_t{1} << 20;  // bytes, unless one piece is larger

}  // namespace

void Arena::AddChunk(std::size_t size) {
  const std::size_t capacity = std::max(size, chunk_size);
  // Not initialised: a page that is never used never becomes resident.
  std::unique_ptr<char[]> chunk(new char[capacity]);
  chunks.push_back(std::move(chunk));
  next = chunks.back().get();
  left = capacity;
  chunk_size = std::min(2 * chunk_size, kMaxChunkSize);
}

}  // namespace kandb::lsm
