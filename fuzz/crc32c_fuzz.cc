// CRC-32C: all implementations agree at any address and for any length.

#include "crypto/crc32c.h"
#include "target.h"

namespace kandb::fuzz {

using crypto::Crc32cMethod;

void TryInput(std::string_view input) {
  for (std::size_t start = 0; start < 8 && start <= input.size(); ++start) {
    const std::string_view bytes = input.substr(start);
    const std::uint32_t crc = crypto::Crc32c(bytes, Crc32cMethod::kTable);
    for (const auto method : {Crc32cMethod::kInstruction, Crc32cMethod::kInterleaved}) {
      if (method <= crypto::FastestCrc32cMethod()) Claim(crypto::Crc32c(bytes, method) == crc);
    }
  }
}

}  // namespace kandb::fuzz
