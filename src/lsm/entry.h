// One key-value operation, the unit of batches, WALs, tables and scans. Batches in the WAL and
// records in tables share its encoding. Numbers are little-endian.
//
//   offset   size  field
//   0        1     op: 1 put, 2 delete
//   1        4     K = key length
//   5        K     key
//   5+K      4     V = value length, 0 for a delete
//   9+K      V     value
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/endian.h"

namespace kandb::lsm {

inline constexpr std::uint8_t kPut = 1;
inline constexpr std::uint8_t kDelete = 2;

// A borrowed entry; the function that returns one says how long its bytes live.
struct EntryView {
  std::uint8_t op = kPut;  // anything but kPut marks a deletion
  std::string_view key;
  std::string_view value;  // empty in a deletion
};

struct Entry {
  std::uint8_t op = kPut;
  std::string key;
  std::string value;

  operator EntryView() const { return {op, key, value}; }
  bool operator==(const Entry&) const = default;
};

inline constexpr std::size_t kEntryOverhead =
    1 + 4 + 4;  // bytes of an encoded entry besides key and value

inline std::size_t EncodedSize(const EntryView& entry) {
  return kEntryOverhead + entry.key.size() + entry.value.size();
}

// Key and value must be shorter than 4 GiB, or the process ends. An op that is not kPut is written
// as kDelete: readers accept no other.
void AppendEntry(const EntryView& entry, std::string* out);

// The key of an encoded entry, which must be whole.
inline std::string_view KeyOfEncoded(const char* entry) { return {entry + 5, LoadU32(entry + 1)}; }

enum class EntryDefect { kNone, kTruncatedHead, kBadOp, kTruncatedKey, kTruncatedValue };

// Reads the entry at the start of `bytes` into `*entry`, which then points into them. `*size`
// becomes its encoded size; when it is truncated, the least number of bytes that lets parsing get
// further.
inline EntryDefect ParseEntry(std::string_view bytes, EntryView* entry, std::size_t* size) {
  *size = 1 + 4;
  if (bytes.size() < *size) return EntryDefect::kTruncatedHead;
  const auto op = static_cast<std::uint8_t>(bytes[0]);
  if (op != kPut && op != kDelete) return EntryDefect::kBadOp;
  const std::size_t key_length = LoadU32(bytes.data() + 1);
  *size = kEntryOverhead + key_length;
  if (bytes.size() < *size) return EntryDefect::kTruncatedKey;
  const std::size_t value_length = LoadU32(bytes.data() + 5 + key_length);
  *size += value_length;
  if (bytes.size() < *size) return EntryDefect::kTruncatedValue;
  *entry = {op, bytes.substr(5, key_length), bytes.substr(9 + key_length, value_length)};
  return EntryDefect::kNone;
}

// The start of the bytes from which ParseEntry read this entry.
inline const char* EncodedStart(const EntryView& parsed) { return parsed.key.data() - (1 + 4); }

}  // namespace kandb::lsm
