#include "crypto/sm4.h"

#include <bit>
#include <utility>

#include "common/endian.h"

namespace kandb::crypto {
namespace {

// clang-format off
constexpr std::array<std::uint8_t, 256> kSbox = {
    0xd6, 0x90, 0xe9, 0xfe, 0xcc, 0xe1, 0x3d, 0xb7, 0x16, 0xb6, 0x14, 0xc2, 0x28, 0xfb, 0x2c, 0x05,
    0x2b, 0x67, 0x9a, 0x76, 0x2a, 0xbe, 0x04, 0xc3, 0xaa, 0x44, 0x13, 0x26, 0x49, 0x86, 0x06, 0x99,
    0x9c, 0x42, 0x50, 0xf4, 0x91, 0xef, 0x98, 0x7a, 0x33, 0x54, 0x0b, 0x43, 0xed, 0xcf, 0xac, 0x62,
    0xe4, 0xb3, 0x1c, 0xa9, 0xc9, 0x08, 0xe8, 0x95, 0x80, 0xdf, 0x94, 0xfa, 0x75, 0x8f, 0x3f, 0xa6,
    0x47, 0x07, 0xa7, 0xfc, 0xf3, 0x73, 0x17, 0xba, 0x83, 0x59, 0x3c, 0x19, 0xe6, 0x85, 0x4f, 0xa8,
    0x68, 0x6b, 0x81, 0xb2, 0x71, 0x64, 0xda, 0x8b, 0xf8, 0xeb, 0x0f, 0x4b, 0x70, 0x56, 0x9d, 0x35,
    0x1e, 0x24, 0x0e, 0x5e, 0x63, 0x58, 0xd1, 0xa2, 0x25, 0x22, 0x7c, 0x3b, 0x01, 0x21, 0x78, 0x87,
    0xd4, 0x00, 0x46, 0x57, 0x9f, 0xd3, 0x27, 0x52, 0x4c, 0x36, 0x02, 0xe7, 0xa0, 0xc4, 0xc8, 0x9e,
    0xea, 0xbf, 0x8a, 0xd2, 0x40, 0xc7, 0x38, 0xb5, 0xa3, 0xf7, 0xf2, 0xce, 0xf9, 0x61, 0x15, 0xa1,
    0xe0, 0xae, 0x5d, 0xa4, 0x9b, 0x34, 0x1a, 0x55, 0xad, 0x93, 0x32, 0x30, 0xf5, 0x8c, 0xb1, 0xe3,
    0x1d, 0xf6, 0xe2, 0x2e, 0x82, 0x66, 0xca, 0x60, 0xc0, 0x29, 0x23, 0xab, 0x0d, 0x53, 0x4e, 0x6f,
    0xd5, 0xdb, 0x37, 0x45, 0xde, 0xfd, 0x8e, 0x2f, 0x03, 0xff, 0x6a, 0x72, 0x6d, 0x6c, 0x5b, 0x51,
    0x8d, 0x1b, 0xaf, 0x92, 0xbb, 0xdd, 0xbc, 0x7f, 0x11, 0xd9, 0x5c, 0x41, 0x1f, 0x10, 0x5a, 0xd8,
    0x0a, 0xc1, 0x31, 0x88, 0xa5, 0xcd, 0x7b, 0xbd, 0x2d, 0x74, 0xd0, 0x12, 0xb8, 0xe5, 0xb4, 0xb0,
    0x89, 0x69, 0x97, 0x4a, 0x0c, 0x96, 0x77, 0x7e, 0x65, 0xb9, 0xf1, 0x09, 0xc5, 0x6e, 0xc6, 0x84,
    0x18, 0xf0, 0x7d, 0xec, 0x3a, 0xdc, 0x4d, 0x20, 0x79, 0xee, 0x5f, 0x3e, 0xd7, 0xcb, 0x39, 0x48,
};
// clang-format on

constexpr std::array<std::uint32_t, 4> kFk = {0xa3b1bac6, 0x56aa3350, 0x677d9197, 0xb27022dc};

// Byte n of CK, counted through all its words from the most significant byte on, is 7n mod 256.
constexpr std::uint32_t Ck(std::uint32_t round) {
  std::uint32_t word = 0;
  for (std::uint32_t n = 4 * round; n < 4 * round + 4; ++n) word = word << 8 | (7 * n & 0xff);
  return word;
}

// The S-box followed by the linear map L, for each of the four positions of a byte in the word;
// position 0 is the most significant one. L commutes with rotation.
using RoundTables = std::array<std::array<std::uint32_t, 256>, 4>;

constexpr RoundTables BuildRoundTables() {
  RoundTables tables{};
  for (std::size_t byte = 0; byte < 256; ++byte) {
    const std::uint32_t b = std::uint32_t{kSbox[byte]} << 24;
    const std::uint32_t l =
        b ^ std::rotl(b, 2) ^ std::rotl(b, 10) ^ std::rotl(b, 18) ^ std::rotl(b, 24);
    for (std::size_t position = 0; position < 4; ++position) {
      tables[position][byte] = std::rotr(l, static_cast<int>(8 * position));
    }
  }
  return tables;
}

constexpr RoundTables kRoundTables = BuildRoundTables();

inline std::uint32_t T(std::uint32_t x) {
  return kRoundTables[0][x >> 24] ^ kRoundTables[1][(x >> 16) & 0xff] ^
         kRoundTables[2][(x >> 8) & 0xff] ^ kRoundTables[3][x & 0xff];
}

// The map of the key schedule: the same S-box, another linear map.
inline std::uint32_t KeyT(std::uint32_t x) {
  std::uint32_t b = 0;
  for (int shift = 24; shift >= 0; shift -= 8) b = b << 8 | kSbox[(x >> shift) & 0xff];
  return b ^ std::rotl(b, 13) ^ std::rotl(b, 23);
}

using RoundKeys = std::array<std::uint32_t, 32>;
enum class Direction { kEncrypt, kDecrypt };

struct Block {
  std::uint32_t x0, x1, x2, x3;
};

inline Block LoadBlock(const char* from) {
  return {LoadBigEndian<std::uint32_t>(from), LoadBigEndian<std::uint32_t>(from + 4),
          LoadBigEndian<std::uint32_t>(from + 8), LoadBigEndian<std::uint32_t>(from + 12)};
}

// The words leave in reverse order, by the last step of the cipher.
inline void StoreBlock(const Block& block, char* to) {
  StoreBigEndian(block.x3, to);
  StoreBigEndian(block.x2, to + 4);
  StoreBigEndian(block.x1, to + 8);
  StoreBigEndian(block.x0, to + 12);
}

// Runs the 32 rounds over independent blocks, interleaved: the processor works on one while it
// waits for the table lookups of another. Each sum ends with the word that is ready last.
template <Direction direction, class... Blocks>
inline void RunRounds(const RoundKeys& round_keys, Blocks&... b) {
  for (std::size_t round = 0; round < 32; round += 4) {
    const auto key = [&](std::size_t i) {
      return round_keys[direction == Direction::kEncrypt ? round + i : 31 - round - i];
    };
    ((b.x0 ^= T(key(0) ^ b.x1 ^ b.x2 ^ b.x3)), ...);
    ((b.x1 ^= T(key(1) ^ b.x2 ^ b.x3 ^ b.x0)), ...);
    ((b.x2 ^= T(key(2) ^ b.x3 ^ b.x0 ^ b.x1)), ...);
    ((b.x3 ^= T(key(3) ^ b.x0 ^ b.x1 ^ b.x2)), ...);
  }
}

// Word by word, as the cipher stores them: a wider load soon after the stores would stall.
inline void XorBlock(const char* with, char* block) {
  for (std::size_t i = 0; i < kSm4BlockSize; i += 4) {
    StoreLittleEndian(LoadU32(block + i) ^ LoadU32(with + i), block + i);
  }
}

}  // namespace

Sm4::Sm4(const Sm4Key& key) {
  std::array<std::uint32_t, 4> k;
  const char* const bytes = reinterpret_cast<const char*>(key.data());
  for (std::size_t i = 0; i < 4; ++i) k[i] = LoadBigEndian<std::uint32_t>(bytes + 4 * i) ^ kFk[i];
  for (std::uint32_t i = 0; i < 32; ++i) {
    k[i % 4] ^= KeyT(k[(i + 1) % 4] ^ k[(i + 2) % 4] ^ k[(i + 3) % 4] ^ Ck(i));
    round_keys[i] = k[i % 4];
  }
}

void Sm4::EncryptBlock(const char* from, char* to) const {
  Block block = LoadBlock(from);
  RunRounds<Direction::kEncrypt>(round_keys, block);
  StoreBlock(block, to);
}

void Sm4::DecryptBlock(const char* from, char* to) const {
  Block block = LoadBlock(from);
  RunRounds<Direction::kDecrypt>(round_keys, block);
  StoreBlock(block, to);
}

void Sm4::DecryptFourBlocks(const char* from, char* to) const {
  Block a = LoadBlock(from);
  Block b = LoadBlock(from + kSm4BlockSize);
  Block c = LoadBlock(from + 2 * kSm4BlockSize);
  Block d = LoadBlock(from + 3 * kSm4BlockSize);
  RunRounds<Direction::kDecrypt>(round_keys, a, b, c, d);
  StoreBlock(a, to);
  StoreBlock(b, to + kSm4BlockSize);
  StoreBlock(c, to + 2 * kSm4BlockSize);
  StoreBlock(d, to + 3 * kSm4BlockSize);
}

std::string Sm4CbcEncrypt(std::string_view plaintext, const Sm4Key& key, const Sm4Iv& iv) {
  const std::size_t padding = kSm4BlockSize - plaintext.size() % kSm4BlockSize;
  std::string text;
  text.reserve(plaintext.size() + padding);
  text.append(plaintext);
  text.append(padding, static_cast<char>(padding));

  const Sm4 cipher(key);
  const char* previous = reinterpret_cast<const char*>(iv.data());
  for (std::size_t offset = 0; offset < text.size(); offset += kSm4BlockSize) {
    char* const block = text.data() + offset;
    XorBlock(previous, block);
    cipher.EncryptBlock(block, block);
    previous = block;
  }
  return text;
}

Status Sm4CbcDecrypt(std::string_view ciphertext, const Sm4Key& key, const Sm4Iv& iv,
                     std::string* plaintext) {
  const std::size_t size = ciphertext.size();
  if (size == 0 || size % kSm4BlockSize != 0) {
    return Status::InvalidArgument("sm4: ciphertext not block-aligned");
  }

  const Sm4 cipher(key);
  std::string text(size, '\0');
  std::size_t offset = 0;
  for (; size - offset >= 4 * kSm4BlockSize; offset += 4 * kSm4BlockSize) {
    cipher.DecryptFourBlocks(ciphertext.data() + offset, text.data() + offset);
  }
  for (; offset < size; offset += kSm4BlockSize) {
    cipher.DecryptBlock(ciphertext.data() + offset, text.data() + offset);
  }
  for (std::size_t i = 0; i < kSm4BlockSize; ++i) text[i] = static_cast<char>(text[i] ^ iv[i]);
  for (std::size_t i = kSm4BlockSize; i < size; ++i) {
    text[i] = static_cast<char>(text[i] ^ ciphertext[i - kSm4BlockSize]);
  }

  const std::size_t padding = static_cast<std::uint8_t>(text.back());
  if (padding == 0 || padding > kSm4BlockSize) return Status::InvalidArgument("sm4: bad padding");
  if (text.find_first_not_of(text.back(), size - padding) != std::string::npos) {
    return Status::InvalidArgument("sm4: bad padding");
  }
  text.resize(size - padding);
  *plaintext = std::move(text);
  return {};
}

}  // namespace kandb::crypto
