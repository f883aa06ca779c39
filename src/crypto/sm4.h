// The SM4 block cipher of GB/T 32907-2016 (also ISO/IEC 18033-3), and its use in cipher block
// chaining mode (CBC) with the padding of PKCS #7 (RFC 5652, section 6.3).
//
// Nothing here authenticates a ciphertext. The running time depends on key and data through the
// processor's caches: meant for data at rest, not where an attacker can time the process.
// Everything here is immutable after construction: any thread may use it at any time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/status.h"

namespace kandb::crypto {

inline constexpr std::size_t kSm4BlockSize = 16;  // bytes

using Sm4Key = std::array<std::uint8_t, 16>;
using Sm4Iv = std::array<std::uint8_t, kSm4BlockSize>;

// Pads `plaintext` with n bytes of value n, 1 to 16, up to whole blocks, and encrypts these. The
// result does not contain `iv`, which must differ between any two texts under one key.
std::string Sm4CbcEncrypt(std::string_view plaintext, const Sm4Key& key, const Sm4Iv& iv);

// The inverse. InvalidArgument: "sm4: ciphertext not block-aligned" (or empty); "sm4: bad padding",
// which a wrong key gives too, though not always. `*plaintext` is written only on success.
Status Sm4CbcDecrypt(std::string_view ciphertext, const Sm4Key& key, const Sm4Iv& iv,
                     std::string* plaintext);

// The cipher under one key, block by block. `from` and `to` may be the same, but may not overlap
// otherwise.
class Sm4 {
 public:
  explicit Sm4(const Sm4Key& key);

  void EncryptBlock(const char* from, char* to) const;
  void DecryptBlock(const char* from, char* to) const;
  // Four neighbouring blocks, each as by DecryptBlock, in less than the time of two.
  void DecryptFourBlocks(const char* from, char* to) const;

 private:
  std::array<std::uint32_t, 32> round_keys;
};

}  // namespace kandb::crypto
