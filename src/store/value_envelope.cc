#include "store/value_envelope.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "common/endian.h"
#include "common/posix_file.h"
#include "crypto/sm3.h"

namespace kandb::store {

namespace {

constexpr std::size_t kIvSize = std::tuple_size_v<crypto::Sm4Iv>;

struct IvSource {
  std::uint64_t random_prefix = 0;
  std::atomic<std::uint64_t> counter = 0;

  // Sealing must not fail because there is no random source: the prefix then stays 0.
  IvSource() {
    const UniqueFd random(::open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (!random.valid()) return;
    char bytes[sizeof(random_prefix)] = {};
    (void)!::read(random.get(), bytes, sizeof(bytes));
    random_prefix = LoadU64(bytes);
  }

  crypto::Sm4Iv Next() {
    char bytes[kIvSize];
    StoreLittleEndian(random_prefix, bytes);
    // Only distinctness matters, so no order with other memory is asked for.
    StoreLittleEndian(counter.fetch_add(1, std::memory_order_relaxed), bytes + 8);
    return LoadLittleEndian<crypto::Sm4Iv>(bytes);
  }
};

}  // namespace

StoreCrypto CryptoFor(std::string_view passphrase) {
  StoreCrypto store_crypto;
  if (passphrase.empty()) return store_crypto;
  const crypto::Sm3Digest digest = crypto::Sm3(passphrase);
  store_crypto.encrypted = true;
  std::copy_n(digest.begin(), store_crypto.key.size(), store_crypto.key.begin());
  return store_crypto;
}

std::string SealValue(const StoreCrypto& store_crypto, std::string plaintext) {
  if (!store_crypto.encrypted) return plaintext;
  static IvSource iv_source;
  const crypto::Sm4Iv iv = iv_source.Next();
  std::string sealed(iv.begin(), iv.end());
  sealed += crypto::Sm4CbcEncrypt(plaintext, store_crypto.key, iv);
  return sealed;
}

Status OpenValue(const StoreCrypto& store_crypto, std::string_view stored, std::string* plaintext) {
  if (!store_crypto.encrypted) {
    *plaintext = stored;
    return {};
  }
  if (stored.size() < kIvSize) return Status::Corruption("tde: ciphertext too short");
  const auto iv = LoadLittleEndian<crypto::Sm4Iv>(stored.data());
  return crypto::Sm4CbcDecrypt(stored.substr(kIvSize), store_crypto.key, iv, plaintext);
}

}  // namespace kandb::store
