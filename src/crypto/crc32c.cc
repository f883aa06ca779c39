#include "crypto/crc32c.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "common/endian.h"

#if defined(__x86_64__)
#include <nmmintrin.h>
#include <wmmintrin.h>
#endif

namespace kandb::crypto {
namespace {

constexpr std::uint32_t kReflectedPolynomial = 0x82f63b78;
constexpr std::uint32_t kPreset = 0xffffffff;
constexpr std::size_t kWordSize = 8;  // bytes

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

// The register after `word` has gone through it.
constexpr std::uint32_t FeedWord(std::uint32_t crc, std::uint64_t word) {
  const std::uint64_t sum = word ^ crc;
  return kTables[7][sum & 0xff] ^ kTables[6][sum >> 8 & 0xff] ^ kTables[5][sum >> 16 & 0xff] ^
         kTables[4][sum >> 24 & 0xff] ^ kTables[3][sum >> 32 & 0xff] ^
         kTables[2][sum >> 40 & 0xff] ^ kTables[1][sum >> 48 & 0xff] ^ kTables[0][sum >> 56];
}

std::uint32_t ByTable(std::string_view bytes) {
  std::uint32_t crc = kPreset;
  const char* next = bytes.data();
  std::size_t left = bytes.size();
  for (; left >= kWordSize; left -= kWordSize, next += kWordSize) {
    crc = FeedWord(crc, LoadU64(next));
  }
  for (; left > 0; ++next, --left) {
    crc = (crc >> 8) ^ kTables[0][(crc ^ static_cast<std::uint8_t>(*next)) & 0xff];
  }
  return ~crc;
}

#if defined(__x86_64__)

// The register once `bytes` have gone through it.
[[gnu::target("sse4.2")]] inline std::uint32_t FeedBytes(std::uint32_t crc,
                                                         std::string_view bytes) {
  std::uint64_t wide_crc = crc;
  const char* next = bytes.data();
  // Two words per iteration: in short inputs the loop costs as much as the instruction.
  const std::size_t left = bytes.size() % (2 * kWordSize);
  const char* const end_of_pairs = next + (bytes.size() - left);
  for (; next != end_of_pairs; next += 2 * kWordSize) {
    wide_crc = _mm_crc32_u64(wide_crc, LoadU64(next));
    wide_crc = _mm_crc32_u64(wide_crc, LoadU64(next + kWordSize));
  }
  // At most four steps for the rest instead of eight: most WAL records are short.
  if ((left & 8) != 0) {
    wide_crc = _mm_crc32_u64(wide_crc, LoadU64(next));
    next += 8;
  }
  crc = static_cast<std::uint32_t>(wide_crc);
  if ((left & 4) != 0) {
    crc = _mm_crc32_u32(crc, LoadU32(next));
    next += 4;
  }
  if ((left & 2) != 0) {
    crc = _mm_crc32_u16(crc, LoadU16(next));
    next += 2;
  }
  if ((left & 1) != 0) crc = _mm_crc32_u8(crc, static_cast<std::uint8_t>(*next));
  return crc;
}

[[gnu::target("sse4.2")]] std::uint32_t ByInstruction(std::string_view bytes) {
  return ~FeedBytes(kPreset, bytes);
}

// Each CRC32 instruction waits three cycles for the one before, but the processor can start one in
// every cycle. So long inputs are cut into thirds, whose registers run side by side (Gopal et al.,
// "Fast CRC Computation for iSCSI Polynomial Using CRC32 Instruction", Intel, 2011).
constexpr std::size_t kMaxThird = 1024;       // words
constexpr std::size_t kMinInterleaved = 192;  // bytes; below, joining costs more than it gains

// Entry n is x^(64n + 31) modulo the polynomial: a word of zeros multiplies the register by x^64.
using Powers = std::array<std::uint32_t, 2 * kMaxThird>;

constexpr Powers BuildPowers() {
  Powers powers{1};  // reflected: bit 0 is x^31
  for (std::size_t n = 1; n < powers.size(); ++n) powers[n] = FeedWord(powers[n - 1], 0);
  return powers;
}

constexpr Powers kPowers = BuildPowers();

// `crc` after `word_count` words of zeros, at least one, in a form that one CRC32 instruction
// reduces to a register. That instruction multiplies by x^32, and the product of two reflected
// polynomials is off by one bit, which is another x: hence 31 = 64 - 33.
[[gnu::target("sse4.2,pclmul")]] inline __m128i Advance(std::uint64_t crc, std::size_t word_count) {
  return _mm_clmulepi64_si128(_mm_cvtsi64_si128(static_cast<std::int64_t>(crc)),
                              _mm_cvtsi64_si128(kPowers[word_count - 1]), 0);
}

// Out of line: most inputs are short, and need none of the registers that this function saves.
[[gnu::target("sse4.2,pclmul"), gnu::noinline]] std::uint32_t ByThirds(std::string_view bytes) {
  std::uint32_t crc = kPreset;
  while (bytes.size() >= kMinInterleaved) {
    const std::size_t third = std::min(bytes.size() / (3 * kWordSize), kMaxThird);
    const char* next = bytes.data();
    std::uint64_t crcs[3] = {crc, 0, 0};
    for (std::size_t word = 0; word < third; ++word, next += kWordSize) {
      crcs[0] = _mm_crc32_u64(crcs[0], LoadU64(next));
      crcs[1] = _mm_crc32_u64(crcs[1], LoadU64(next + third * kWordSize));
      crcs[2] = _mm_crc32_u64(crcs[2], LoadU64(next + 2 * third * kWordSize));
    }
    const __m128i sum = _mm_xor_si128(Advance(crcs[0], 2 * third), Advance(crcs[1], third));
    const auto low_sum = static_cast<std::uint64_t>(_mm_cvtsi128_si64(sum));
    crc = static_cast<std::uint32_t>(crcs[2] ^ _mm_crc32_u64(0, low_sum));
    bytes.remove_prefix(3 * third * kWordSize);
  }
  return ~FeedBytes(crc, bytes);
}

std::uint32_t ByInterleaving(std::string_view bytes) {
  return bytes.size() < kMinInterleaved ? ByInstruction(bytes) : ByThirds(bytes);
}

Crc32cMethod DetectFastestMethod() {
  // A static initialiser may run before the library's own detection.
  __builtin_cpu_init();
  if (__builtin_cpu_supports("sse4.2") == 0) return Crc32cMethod::kTable;
  if (__builtin_cpu_supports("pclmul") == 0) return Crc32cMethod::kInstruction;
  return Crc32cMethod::kInterleaved;
}

#else

Crc32cMethod DetectFastestMethod() { return Crc32cMethod::kTable; }

#endif

// Zero, which is kTable, before it is initialised: an earlier initialiser takes the tables.
const Crc32cMethod fastest_method = DetectFastestMethod();

}  // namespace

std::uint32_t Crc32c(std::string_view bytes) { return Crc32c(bytes, fastest_method); }

std::uint32_t Crc32c(std::string_view bytes, Crc32cMethod method) {
  switch (method) {
#if defined(__x86_64__)
    case Crc32cMethod::kInterleaved:
      return ByInterleaving(bytes);
    case Crc32cMethod::kInstruction:
      return ByInstruction(bytes);
#endif
    default:
      return ByTable(bytes);
  }
}

Crc32cMethod FastestCrc32cMethod() { return fastest_method; }

}  // namespace kandb::crypto
