// Sealed values and the cipher below: every value comes back, a value that opens is the one that
// seals to those bytes, and only padding is accepted as padding.

#include <algorithm>

#include "common/endian.h"
#include "store/value_envelope.h"
#include "target.h"

namespace kandb::fuzz {

void TryInput(std::string_view input) {
  static const store::StoreCrypto sealing = store::CryptoFor("fuzz");
  std::string opened;
  for (const store::StoreCrypto& mode : {sealing, store::StoreCrypto()}) {
    Claim(OpenValue(mode, SealValue(mode, std::string(input)), &opened).ok() && opened == input);
  }
  if (OpenValue(sealing, input, &opened).ok()) {
    const auto iv = LoadLittleEndian<crypto::Sm4Iv>(input.data());
    Claim(crypto::Sm4CbcEncrypt(opened, sealing.key, iv) == input.substr(iv.size()));
  }

  // Without the blocks that hold its padding, the ciphertext is that of text without any.
  const std::string_view text = input.substr(0, input.size() & ~(crypto::kSm4BlockSize - 1));
  if (text.empty()) return;
  const std::string unpadded = crypto::Sm4CbcEncrypt(text, sealing.key, {}).substr(0, text.size());
  const auto padding = static_cast<std::uint8_t>(text.back());
  const bool padded = padding >= 1 && padding <= crypto::kSm4BlockSize &&
                      std::count(text.end() - padding, text.end(), text.back()) == padding;
  Claim(crypto::Sm4CbcDecrypt(unpadded, sealing.key, {}, &opened).ok() == padded);
  Claim(!padded || opened == text.substr(0, text.size() - padding));
}

}  // namespace kandb::fuzz
