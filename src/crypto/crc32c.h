// CRC-32C: the 32-bit cyclic redundancy check over Castagnoli's polynomial (Castagnoli, Braeuer,
// Herrmann 1993; reflected form 0x82f63b78, preset and complement 0xffffffff), as RFC 3720 uses it.
// The values are stored in files and sent in frames as they are: no mask, no offset.
// Pure functions of their input: any thread may call them at any time.
#pragma once

#include <cstdint>
#include <string_view>

namespace kandb::crypto {

// The checksum of `bytes`, by the fastest method of this processor; 0 for no bytes. Safe to call
// from static initialisers.
std::uint32_t Crc32c(std::string_view bytes);

// The methods give the same value, each faster than the one before it; they can be chosen so that
// they can be compared. A processor that supports one supports those before it.
enum class Crc32cMethod {
  kTable,        // on any processor
  kInstruction,  // the CRC32 instruction of SSE4.2
  kInterleaved,  // the same three times side by side, joined with PCLMULQDQ
};
Crc32cMethod FastestCrc32cMethod();

// The checksum by `method`. One beyond FastestCrc32cMethod() may end the process with an illegal
// instruction.
std::uint32_t Crc32c(std::string_view bytes, Crc32cMethod method);

}  // namespace kandb::crypto
