#include "crypto/crc32c.h"

#include <array>
#include <cassert>
#include <cstddef>

#include "common/endian.h"

#if defined(__x86_64__)
#include <nmmintrin.h>
#endif

namespace kandb::crypto {
namespace {

constexpr std::uint32_t kReflectedPolynomial = 0x82f63b78;
constexpr std::uint32_t kPreset = 0xffffffff;

// Slice-by-eight (Kounavis and Berry, 2005): entry [n][b] is what the byte b contributes to the
// register once n more bytes have gone through it.
using Tables = std::array<std::array<std::uint32_t, 256>, 8>;

constexpr Tables BuildTables() {
  Tables tables{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) * kReflectedPolynomial);
    tables[0][byte] = crc;
  }
  for (std::size_t n = 1; n < 8; ++n) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const std::uint32_t crc = tables[n - 1][byte];
      tables[n][byte] = (crc >> 8) ^ tables[0][crc & 0xff];
    }
  }
  return tables;
}

constexpr Tables kTables = BuildTables();

bool DetectHardware() {
#if defined(__x86_64__)
  // A static initialiser may run before the library has asked the processor itself.
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse4.2") != 0;
#else
  return false;
#endif
}

// Zero before it is initialised, so that an initialiser that runs earlier takes the tables.
const bool has_hardware = DetectHardware();

}  // namespace

std::uint32_t Crc32c(std::string_view bytes) {
  return has_hardware ? Crc32cHardware(bytes) : Crc32cTable(bytes);
}

bool Crc32cHasHardware() { return has_hardware; }

std::uint32_t Crc32cTable(std::string_view bytes) {
  std::uint32_t crc = kPreset;
  const char* next = bytes.data();
  std::size_t left = bytes.size();
  for (; left >= 8; next += 8, left -= 8) {
    const std::uint64_t group = LoadU64(next) ^ crc;
    crc = kTables[7][group & 0xff] ^ kTables[6][group >> 8 & 0xff] ^
          kTables[5][group >> 16 & 0xff] ^ kTables[4][group >> 24 & 0xff] ^
          kTables[3][group >> 32 & 0xff] ^ kTables[2][group >> 40 & 0xff] ^
          kTables[1][group >> 48 & 0xff] ^ kTables[0][group >> 56];
  }
  for (; left > 0; ++next, --left) {
    crc = (crc >> 8) ^ kTables[0][(crc ^ static_cast<std::uint8_t>(*next)) & 0xff];
  }
  return ~crc;
}

#if defined(__x86_64__)

__attribute__((target("sse4.2"))) std::uint32_t Crc32cHardware(std::string_view bytes) {
  std::uint64_t wide_crc = kPreset;
  const char* next = bytes.data();
  std::size_t left = bytes.size();
  for (; left >= 8; next += 8, left -= 8) wide_crc = _mm_crc32_u64(wide_crc, LoadU64(next));
  auto crc = static_cast<std::uint32_t>(wide_crc);
  // At most three steps for the rest instead of seven: most log records are short.
  if ((left & 4) != 0) {
    crc = _mm_crc32_u32(crc, LoadU32(next));
    next += 4;
  }
  if ((left & 2) != 0) {
    crc = _mm_crc32_u16(crc, LoadU16(next));
    next += 2;
  }
  if ((left & 1) != 0) crc = _mm_crc32_u8(crc, static_cast<std::uint8_t>(*next));
  return ~crc;
}

#else

std::uint32_t Crc32cHardware(std::string_view bytes) {
  assert(false && "Crc32cHasHardware() is false on this processor");
  return Crc32cTable(bytes);
}

#endif

}  // namespace kandb::crypto
