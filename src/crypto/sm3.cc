#include "crypto/sm3.h"

#include <bit>
#include <cstddef>
#include <cstring>
#include <utility>

#include "common/endian.h"

namespace kandb::crypto {
namespace {

constexpr std::size_t kBlockSize = 64;    // bytes
constexpr std::size_t kBitCountSize = 8;  // bytes at the end of the padding
using State = std::array<std::uint32_t, 8>;
// Sixteen consecutive words of the expanded message; word j has the index j mod 16.
using Schedule = std::array<std::uint32_t, 16>;

constexpr State kInitialState = {0x7380166f, 0x4914b2b9, 0x172442d7, 0xda8a0600,
                                 0xa96f30bc, 0x163138aa, 0xe38dee4d, 0xb0fb0e4e};

inline std::uint32_t P0(std::uint32_t x) { return x ^ std::rotl(x, 9) ^ std::rotl(x, 17); }
inline std::uint32_t P1(std::uint32_t x) { return x ^ std::rotl(x, 15) ^ std::rotl(x, 23); }

// Round j of 64. The standard moves all eight variables by one after each round. Here they stay:
// the new A and E replace d and h, and the next round is called with the arguments rotated. Always
// inline: only then do the variables live in registers.
template <int j>
[[gnu::always_inline]] inline void Round(Schedule& w, std::uint32_t& a, std::uint32_t& b,
                                         std::uint32_t& c, std::uint32_t& d, std::uint32_t& e,
                                         std::uint32_t& f, std::uint32_t& g, std::uint32_t& h) {
  constexpr std::uint32_t kT = std::rotl(j < 16 ? 0x79cc4519u : 0x7a879d8au, j % 32);
  const std::uint32_t word = w[j % 16];
  const std::uint32_t rotated_a = std::rotl(a, 12);
  const std::uint32_t ss1 = std::rotl(rotated_a + e + kT, 7);
  const std::uint32_t ss2 = ss1 ^ rotated_a;
  const std::uint32_t ff = j < 16 ? a ^ b ^ c : (a & b) | (c & (a | b));
  const std::uint32_t gg = j < 16 ? e ^ f ^ g : ((f ^ g) & e) ^ g;
  d += ff + ss2 + (word ^ w[(j + 4) % 16]);
  h = P0(h + gg + ss1 + word);
  b = std::rotl(b, 9);
  f = std::rotl(f, 19);
  // The last word that any round reads is number 67.
  if constexpr (j + 16 < 68) {
    w[j % 16] = P1(word ^ w[(j + 7) % 16] ^ std::rotl(w[(j + 13) % 16], 15)) ^
                std::rotl(w[(j + 3) % 16], 7) ^ w[(j + 10) % 16];
  }
}

// After four rounds the variables are back in their places.
template <int j>
[[gnu::always_inline]] inline void FourRounds(Schedule& w, State& s) {
  auto& [a, b, c, d, e, f, g, h] = s;
  Round<j>(w, a, b, c, d, e, f, g, h);
  Round<j + 1>(w, d, a, b, c, h, e, f, g);
  Round<j + 2>(w, c, d, a, b, g, h, e, f);
  Round<j + 3>(w, b, c, d, a, f, g, h, e);
}

template <int... group>
[[gnu::always_inline]] inline void AllRounds(Schedule& w, State& s,
                                             std::integer_sequence<int, group...>) {
  (FourRounds<4 * group>(w, s), ...);
}

void Compress(const char* blocks, std::size_t block_count, State* state) {
  for (; block_count > 0; --block_count, blocks += kBlockSize) {
    Schedule w;
    for (std::size_t i = 0; i < w.size(); ++i) w[i] = LoadBigEndian<std::uint32_t>(blocks + 4 * i);
    State next = *state;
    AllRounds(w, next, std::make_integer_sequence<int, 16>());
    for (std::size_t i = 0; i < next.size(); ++i) (*state)[i] ^= next[i];
  }
}

}  // namespace

Sm3Digest Sm3(std::string_view bytes) {
  State state = kInitialState;
  const std::size_t whole_blocks = bytes.size() / kBlockSize;
  Compress(bytes.data(), whole_blocks, &state);

  // The last block or two: the rest, a one bit, zeros, and the number of bits of the message.
  const std::string_view rest = bytes.substr(whole_blocks * kBlockSize);
  char padded[2 * kBlockSize] = {};
  if (!rest.empty()) std::memcpy(padded, rest.data(), rest.size());
  padded[rest.size()] = '\x80';
  const std::size_t block_count = rest.size() + 1 + kBitCountSize <= kBlockSize ? 1 : 2;
  const std::uint64_t bit_count = std::uint64_t{bytes.size()} * 8;
  StoreBigEndian(bit_count, padded + block_count * kBlockSize - kBitCountSize);
  Compress(padded, block_count, &state);

  Sm3Digest digest;
  char* const bytes_of_digest = reinterpret_cast<char*>(digest.data());
  for (std::size_t i = 0; i < state.size(); ++i) StoreBigEndian(state[i], bytes_of_digest + 4 * i);
  return digest;
}

std::string Sm3Hex(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const std::uint8_t byte : Sm3(bytes)) {
    hex.push_back(kDigits[byte >> 4]);
    hex.push_back(kDigits[byte & 0xf]);
  }
  return hex;
}

}  // namespace kandb::crypto
