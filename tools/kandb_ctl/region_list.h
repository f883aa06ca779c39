// Many regions in little memory: each is some 30 bytes and its keys. A million of them as messages
// would take 300 MB and more.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "pdpb/messages.h"

namespace kandb::ctl {

// Thread-compatible.
class RegionList {
 public:
  // A region's place in the list and its range; the keys are views into the list.
  struct Range {
    std::size_t position = 0;
    std::uint64_t id = 0;
    std::string_view start_key;
    std::string_view end_key;

    bool empty() const { return !end_key.empty() && end_key <= start_key; }
    bool ReachesBeyond(std::string_view key) const { return end_key.empty() || end_key > key; }
  };

  // Reads the regions in the order in which they were added.
  class Iterator {
   public:
    pdpb::Region operator*() const;
    Iterator& operator++();
    bool operator==(const Iterator& other) const {
      return chunk == other.chunk && rest.size() == other.rest.size();
    }

   private:
    friend class RegionList;
    Iterator(const std::deque<std::string>* list, std::size_t chunk_index);

    const std::deque<std::string>* chunks;
    std::size_t chunk;
    std::string_view rest;  // of the chunk, from the region on
  };

  RegionList() = default;
  RegionList(std::initializer_list<pdpb::Region> regions) {
    for (const pdpb::Region& region : regions) push_back(region);
  }

  void push_back(const pdpb::Region& region);
  std::size_t size() const { return count; }
  bool empty() const { return count == 0; }
  Iterator begin() const { return {&chunks, 0}; }
  Iterator end() const { return {&chunks, chunks.size()}; }

  // By start key, then by id.
  std::vector<Range> SortedRanges() const;

 private:
  std::deque<std::string> chunks;  // whole regions; a chunk does not move once it is begun
  std::size_t count = 0;
};

}  // namespace kandb::ctl
