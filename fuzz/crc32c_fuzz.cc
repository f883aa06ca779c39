// CRC-32C: both implementations agree at any address and for any length.

#include "crypto/crc32c.h"
#include "target.h"

namespace kandb::fuzz {

void TryInput(std::string_view input) {
  for (std::size_t start = 0; start < 8 && start <= input.size(); ++start) {
    const std::string_view bytes = input.substr(start);
    const std::uint32_t crc = crypto::Crc32cTable(bytes);
    Claim(crypto::Crc32c(bytes) == crc);
    if (crypto::Crc32cHasHardware()) Claim(crypto::Crc32cHardware(bytes) == crc);
  }
}

}  // namespace kandb::fuzz
