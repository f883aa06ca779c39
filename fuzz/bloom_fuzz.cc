// Bloom filters: any bytes answer as the definition says, and a filter admits what was added.

#include "common/endian.h"
#include "crypto/bloom.h"
#include "target.h"

namespace kandb::fuzz {

using namespace crypto;

static bool AdmitsByDefinition(std::string_view filter, std::string_view key) {
  if (filter.size() < 5) return true;
  const std::uint64_t num_bits = LoadU32(filter.data());
  if (num_bits == 0 || (num_bits + 7) / 8 != filter.size() - 5) return true;
  const BloomHash hash = HashForBloom(key);
  for (std::uint64_t i = 0; i < static_cast<std::uint8_t>(filter[4]); ++i) {
    const std::uint64_t bit = (hash.h1 + i * hash.h2) % num_bits;
    if ((filter[5 + bit / 8] & (1 << (bit % 8))) == 0) return false;
  }
  return true;
}

// A filter by its bytes, and one that is built from the same bytes as keys.
void TryInput(std::string_view input) {
  const BloomFilterView view{std::string(input)};
  BloomFilter builder(input.size() / 4, static_cast<std::uint8_t>(input.size()));
  for (std::size_t i = 0; i < input.size(); i += 4) builder.Add(input.substr(i, 4));
  const BloomFilterView built(builder.Serialize());
  for (std::size_t i = 0; i < input.size(); i += 4) {
    const std::string_view key = input.substr(i, 4);
    Claim(view.MayContain(key) == AdmitsByDefinition(input, key));
    Claim(built.MayContain(key) && AdmitsByDefinition(builder.Serialize(), key));
  }
}

}  // namespace kandb::fuzz
