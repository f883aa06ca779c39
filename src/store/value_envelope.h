// Seals the values of a store, so that they are not readable on disk. Keys stay plain.
//
//   offset   size  field
//   0        16    initialisation vector
//   16       16k   SM4-CBC ciphertext of the value with block padding, k >= 1
//
// Vectors are a random prefix of the process (8 bytes) and a counter (8 bytes, little-endian), so
// none occurs twice in a process. There is no authentication tag. Thread-safe.
#pragma once

#include <string>
#include <string_view>

#include "common/status.h"
#include "crypto/sm4.h"

namespace kandb::store {

// Whether a store seals its values, and with which key.
struct StoreCrypto {
  bool encrypted = false;
  crypto::Sm4Key key{};  // unused when not encrypted
};

// Sealing under a key derived from the passphrase; no sealing with an empty one.
StoreCrypto CryptoFor(std::string_view passphrase);

// The sealed value, or a copy of it when the store is not encrypted.
std::string SealValue(const StoreCrypto& store_crypto, std::string plaintext);

// Corruption "tde: ciphertext too short", or InvalidArgument "sm4: ciphertext not block-aligned" or
// "sm4: bad padding", which is also the usual result of a wrong key. `*plaintext` is written on
// success.
Status OpenValue(const StoreCrypto& store_crypto, std::string_view stored, std::string* plaintext);

}  // namespace kandb::store
