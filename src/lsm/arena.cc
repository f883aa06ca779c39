#include "lsm/arena.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

namespace kandb::lsm {

namespace {

constexpr std::size_t kHugePageSize = std::size_t{2} << 20;  // bytes
constexpr std::size_t kMaxChunkSize = 2 * kHugePageSize;     // unless one piece is larger
constexpr std::size_t kAlignment = 64;                       // bytes, a cache line

}  // namespace

void Arena::AddChunk(std::size_t size) {
  const std::size_t wanted = std::max(size, chunk_size);
  const std::size_t alignment = wanted < kHugePageSize ? kAlignment : kHugePageSize;
  const std::size_t capacity = (wanted + alignment - 1) / alignment * alignment;
  // Not initialised: a page that is never used never becomes resident.
  std::unique_ptr<char, Free> chunk(static_cast<char*>(std::aligned_alloc(alignment, capacity)));
  if (chunk == nullptr) throw std::bad_alloc();
  // Accesses are random: with small pages nearly each one would also miss the TLB. When the system
  // refuses, they are only slower.
  if (alignment == kHugePageSize) (void)::madvise(chunk.get(), capacity, MADV_HUGEPAGE);
  chunks.push_back(std::move(chunk));
  next = chunks.back().get();
  left = capacity;
  chunk_size = std::min(2 * chunk_size, kMaxChunkSize);
}

}  // namespace kandb::lsm
