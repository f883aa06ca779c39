// Bloom filters (Bloom, 1970) over the keys of a table file. The k probes of a key come from two
// hashes by double hashing (Kirsch and Mitzenmacher, 2006); the hashes are 64-bit FNV-1a (Fowler,
// Noll, Vo), h1 from the published offset basis and h2 from 0x55c5e55dfb685f30.
//
//   offset  size            field
//   0       4               num_bits, little-endian; 8 times the number of bytes that follow
//   4       1               num_probes, 1 to 30
//   5       num_bits / 8    bits; bit b is byte b / 8, position b mod 8 from the least significant
//
// Probe i of a key, 0 <= i < num_probes, is bit (h1 + i * h2 mod 2^64) mod num_bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kandb::crypto {

// All that a filter needs of a key.
struct BloomHash {
  std::uint64_t h1;
  std::uint64_t h2;
};
BloomHash HashForBloom(std::string_view key);

// Builds a filter. Not thread-safe.
class BloomFilter {
 public:
  // `bits_per_key` for each of `num_keys` keys, at least 64 bits in total; more or fewer keys may
  // be added. Ten bits for each key admit about one absent key in a hundred. From 2^32 bits on
  // num_bits is cut to 32 bits, and a reader takes such a filter for malformed.
  BloomFilter(std::size_t num_keys, std::uint32_t bits_per_key);

  void Add(const BloomHash& hash);
  void Add(std::string_view key) { Add(HashForBloom(key)); }

  std::string Serialize() const;

 private:
  int num_probes;
  std::string bits;
  std::uint32_t num_bits;
};

// Asks a filter. Immutable: any thread may use it at any time.
class BloomFilterView {
 public:
  // Takes any bytes. Malformed ones make a view that admits every key. num_bits need not be a
  // multiple of 8 here, as long as the last byte has at least one of them.
  explicit BloomFilterView(std::string serialised_filter);

  // False: `key` was certainly not added.
  bool MayContain(std::string_view key) const;

 private:
  std::string serialised;
  std::uint32_t num_bits = 0;  // 0: not a filter
  int num_probes = 0;
};

}  // namespace kandb::crypto
