// Ranges of numbers that a server hands out, such as ids and timestamps, none of them twice.
// Thread-compatible.
#pragma once

#include <cstdint>
#include <map>

namespace kandb::tools {

class DisjointRanges {
 public:
  // Adds the range of `count` numbers from `first` on. False, and nothing is added, when it is
  // empty, exceeds 64 bits or shares a number with a range that was added.
  bool Add(std::uint64_t first, std::uint64_t count);

  // One past the largest number; 0 when there is none.
  std::uint64_t end() const { return ends.empty() ? 0 : ends.rbegin()->second; }

 private:
  std::map<std::uint64_t, std::uint64_t> ends;  // by first; ranges that touch are one
};

}  // namespace kandb::tools
