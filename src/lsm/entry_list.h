// A list of entries whose bytes stand in one buffer: filling it again allocates nothing once it has
// grown. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lsm/entry.h"

namespace kandb::lsm {

class EntryList {
 public:
  void Clear() {
    bytes.clear();
    places.clear();
  }

  void Add(const EntryView& entry) {
    places.push_back({entry.op, bytes.size(), entry.key.size(), entry.value.size()});
    bytes.append(entry.key).append(entry.value);
  }

  std::size_t size() const { return places.size(); }

  // Valid until the list changes.
  EntryView operator[](std::size_t index) const {
    const Place& place = places[index];
    const std::string_view key_and_value(bytes.data() + place.offset,
                                         place.key_length + place.value_length);
    return {place.op, key_and_value.substr(0, place.key_length),
            key_and_value.substr(place.key_length)};
  }

 private:
  struct Place {
    std::uint8_t op;
    std::size_t offset;
    std::size_t key_length;
    std::size_t value_length;
  };

  std::string bytes;
  std::vector<Place> places;
};

}  // namespace kandb::lsm
