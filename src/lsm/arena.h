// Allocates small pieces of memory and frees all of them at once. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

namespace kandb::lsm {

class Arena {
 public:
  // Allocates in advance: the next `size` bytes of pieces, padding included, cannot fail. Throws
  // std::bad_alloc, and nothing has changed.
  void Reserve(std::size_t size) {
    if (size > left) AddChunk(size);
  }

  // A piece that lives as long as the arena; `alignment` is a power of two. Throws std::bad_alloc.
  char* Allocate(std::size_t size, std::size_t alignment) {
    std::size_t padding = -reinterpret_cast<std::uintptr_t>(next) & (alignment - 1);
    if (size + padding > left) {
      AddChunk(size);
      padding = 0;  // a chunk is aligned for everything
    }
    char* piece = next + padding;
    next += padding + size;
    left -= padding + size;
    return piece;
  }

 private:
  void AddChunk(std::size_t size);

  struct Free {
    void operator()(char* chunk) const { std::free(chunk); }
  };

  std::vector<std::unique_ptr<char, Free>> chunks;
  std::size_t chunk_size = 4096;  // bytes; doubles, so that a small arena stays small
  char* next = nullptr;
  std::size_t left = 0;  // bytes from `next` to the end of the last chunk
};

}  // namespace kandb::lsm
