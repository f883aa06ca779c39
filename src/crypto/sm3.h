// The SM3 hash of GB/T 32905-2016 (also ISO/IEC 10118-3:2018): 256 bits over any number of bytes.
// Pure functions of their input: any thread may call them at any time.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace kandb::crypto {

// The eight words of the result, each most significant byte first.
using Sm3Digest = std::array<std::uint8_t, 32>;

Sm3Digest Sm3(std::string_view bytes);

// The same digest as 64 lower-case hexadecimal digits.
std::string Sm3Hex(std::string_view bytes);

}  // namespace kandb::crypto
