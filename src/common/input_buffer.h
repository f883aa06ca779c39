// A buffer over a stream of bytes: those read and not yet consumed, then free space. Sockets, WALs
// and table files are read through it in large pieces. Not thread-safe.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace kandb {

class InputBuffer {
 public:
  // The bytes read and not yet consumed; valid until the next Reserve, Release or Clear.
  std::string_view unread() const { return {bytes.get() + begin, end - begin}; }

  void Consume(std::size_t size) {
    assert(size <= end - begin);
    begin += size;
  }

  // Makes room for at least `size` bytes after the unread ones and returns its address. May move
  // the unread bytes to the front or into a larger allocation. Throws std::bad_alloc, with nothing
  // changed for the reader.
  char* Reserve(std::size_t size);
  // Bytes of free space after the unread ones. Reserve may increase it beyond what was asked for.
  std::size_t free_size() const { return capacity - end; }
  // `size` bytes were read into the free space.
  void Commit(std::size_t size) {
    assert(size <= free_size());
    end += size;
  }

  void Clear() { begin = end = 0; }
  // Frees the memory when it exceeds `keep_capacity` bytes and nothing is unread.
  void Release(std::size_t keep_capacity);

 private:
  struct Free {
    void operator()(char* block) const { std::free(block); }
  };

  std::unique_ptr<char, Free> bytes;
  std::size_t capacity = 0;
  std::size_t begin = 0;
  std::size_t end = 0;
};

}  // namespace kandb
