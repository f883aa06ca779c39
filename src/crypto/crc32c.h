// CRC-32C: the 32-bit cyclic redundancy check over Castagnoli's polynomial (Castagnoli, Braeuer,
// Herrmann 1993; reflected form 0x82f63b78, preset and complement 0xffffffff), as RFC 3720 uses it.
// The values are stored in files and sent in frames as they are: no mask, no offset.
// Pure functions of their input: any thread may call them at any time.
#pragma once

#include <cstdint>
#include <string_view>

namespace kandb::crypto {

// The checksum of `bytes`, by the fastest means that this processor offers; of no bytes it is 0.
// Safe to call from static initialisers.
std::uint32_t Crc32c(std::string_view bytes);

// The two ways to the same value, apart so that they can be compared. The hardware one may only be
// called where Crc32cHasHardware() holds; elsewhere it ends the process with an illegal
// instruction.
std::uint32_t Crc32cTable(std::string_view bytes);
std::uint32_t Crc32cHardware(std::string_view bytes);
bool Crc32cHasHardware();

}  // namespace kandb::crypto
