// A window over a stream of bytes: what has been read and not yet consumed, and free space behind
// it. Sockets, logs and table files are read through it in large pieces. Not thread-safe.
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

  // Makes room for at least `size` bytes behind the unread ones, moving these to the front or into
  // larger memory when it has to, and returns where that room begins.
  char* Reserve(std::size_t size);
  // All the room that the memory held has behind the unread bytes, once Reserve has tidied it.
  std::size_t free_size() const { return capacity - end; }
  // `size` bytes were read into the reserved room.
  void Commit(std::size_t size) {
    assert(size <= free_size());
    end += size;
  }

  void Clear() { begin = end = 0; }
  // Gives memory above `keep_capacity` bytes back, provided that nothing is unread.
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
