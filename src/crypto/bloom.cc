#include "crypto/bloom.h"

#include <algorithm>
#include <utility>

#include "common/endian.h"

namespace kandb::crypto {
namespace {

constexpr std::size_t kHeaderSize = 4 + 1;  // bytes before the bits
constexpr std::uint64_t kMinBits = 64;

int ProbesFor(std::uint32_t bits_per_key) {
  // ln 2 probes for each bit of a key admit the fewest absent keys.
  constexpr double kLn2 = 0.69;
  return static_cast<int>(std::clamp(bits_per_key * kLn2, 1.0, 30.0));
}

std::size_t BytesFor(std::uint64_t num_bits) { return (num_bits + 7) / 8; }

}  // namespace

BloomHash HashForBloom(std::string_view key) {
  constexpr std::uint64_t kFnvPrime = 0x100000001b3;
  BloomHash hash = {0xcbf29ce484222325, 0x55c5e55dfb685f30};
  for (const char c : key) {
    const auto byte = static_cast<std::uint8_t>(c);
    hash.h1 = (hash.h1 ^ byte) * kFnvPrime;
    hash.h2 = (hash.h2 ^ byte) * kFnvPrime;
  }
  return hash;
}

BloomFilter::BloomFilter(std::size_t num_keys, std::uint32_t bits_per_key)
    : num_probes(ProbesFor(bits_per_key)),
      bits(BytesFor(std::max(std::uint64_t{bits_per_key} * num_keys, kMinBits)), '\0'),
      num_bits(static_cast<std::uint32_t>(bits.size() * 8)) {}

void BloomFilter::Add(const BloomHash& hash) {
  if (num_bits == 0) return;  // a multiple of 2^32, cut to its low 32 bits
  std::uint64_t sum = hash.h1;
  for (int i = 0; i < num_probes; ++i, sum += hash.h2) {
    const std::uint64_t bit = sum % num_bits;
    bits[bit / 8] = static_cast<char>(bits[bit / 8] | (1 << (bit % 8)));
  }
}

std::string BloomFilter::Serialize() const {
  std::string out;
  out.reserve(kHeaderSize + bits.size());
  AppendU32(num_bits, &out);
  out.push_back(static_cast<char>(num_probes));
  out.append(bits);
  return out;
}

BloomFilterView::BloomFilterView(std::string serialised_filter)
    : serialised(std::move(serialised_filter)) {
  if (serialised.size() < kHeaderSize) return;
  const std::uint32_t claimed_bits = LoadU32(serialised.data());
  // In 64 bits: a claim just below 2^32 must not wrap round to a short filter.
  if (BytesFor(claimed_bits) != serialised.size() - kHeaderSize) return;
  num_bits = claimed_bits;
  num_probes = static_cast<std::uint8_t>(serialised[4]);
}

bool BloomFilterView::MayContain(std::string_view key) const {
  if (num_bits == 0) return true;
  const BloomHash hash = HashForBloom(key);
  std::uint64_t sum = hash.h1;
  for (int i = 0; i < num_probes; ++i, sum += hash.h2) {
    const std::uint64_t bit = sum % num_bits;
    if ((serialised[kHeaderSize + bit / 8] >> (bit % 8) & 1) == 0) return false;
  }
  return true;
}

}  // namespace kandb::crypto
