// Checksums, hashes and ciphers against published values and an independent library.

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "crypto/bloom.h"
#include "crypto/crc32c.h"
#include "crypto/sm3.h"
#include "crypto/sm4.h"
#include "support/hex.h"

namespace kandb::crypto {
namespace {

using kandb::testing::Hex;

// The bytes 0, 1, 2, ..., 255, 0, ...
std::string Ascending(std::size_t size) {
  std::string bytes(size, '\0');
  std::iota(bytes.begin(), bytes.end(), '\0');
  return bytes;
}

// Those that this processor supports.
std::vector<Crc32cMethod> Methods() {
  using enum Crc32cMethod;
  std::vector<Crc32cMethod> methods = {kTable, kInstruction, kInterleaved};
  methods.resize(static_cast<std::size_t>(FastestCrc32cMethod()) + 1);
  return methods;
}

TEST(Crc32c, PublishedValue) { EXPECT_EQ(Crc32c("123456789"), 0xe3069283); }

// Against the definition, bit by bit: lengths around the least that the interleaved method takes
// (192 bytes), around the most that it takes in one pass (24576), and a large one.
TEST(Crc32c, AnyLengthAtAnyAlignmentByAnyMethod) {
  std::mt19937 random(1);
  std::string all_bytes((1 << 20) + 8, '\0');
  for (char& byte : all_bytes) byte = static_cast<char>(random());
  const std::vector<Crc32cMethod> methods = Methods();
  for (std::size_t start = 0; start <= 8; ++start) {
    const std::string_view bytes = std::string_view(all_bytes).substr(start);
    std::uint32_t crc = 0xffffffff;
    for (std::size_t size = 0; size <= bytes.size(); ++size) {
      if (size < 1100 || (size > 24560 && size < 24860) || size == bytes.size()) {
        for (const Crc32cMethod method : methods) {
          ASSERT_EQ(Crc32c(bytes.substr(0, size), method), ~crc)
              << size << " bytes from " << start << " by method " << static_cast<int>(method);
        }
      }
      if (size < bytes.size()) crc ^= static_cast<std::uint8_t>(bytes[size]);
      for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0x82f63b78 : 0);
    }
  }
}

TEST(Sm3, PublishedDigest) {
  EXPECT_EQ(Sm3Hex("abc"), "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0");
}

TEST(Sm3, AgreesWithOpenSsl) {
  const std::string all_bytes = Ascending(260);
  for (std::size_t size = 0; size <= all_bytes.size(); ++size) {
    Sm3Digest expected;
    ASSERT_EQ(EVP_Digest(all_bytes.data(), size, expected.data(), nullptr, EVP_sm3(), nullptr), 1);
    ASSERT_EQ(Sm3(all_bytes.substr(0, size)), expected) << size << " bytes";
  }
}

TEST(Sm4Cbc, AgreesWithOpenSsl) {
  const Sm4Key key = {0x80, 0xff, 0x7f, 0x01, 0xa5};
  const Sm4Iv iv = {0xf0, 0x0f, 0x00, 0xff, 0x5a};
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(
      EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  const std::string all_bytes = Ascending(200);
  for (std::size_t size = 0; size <= all_bytes.size(); ++size) {
    SCOPED_TRACE(size);
    std::vector<std::uint8_t> expected(size + kSm4BlockSize);
    int length = 0;
    int last_length = 0;
    EVP_EncryptInit_ex(context.get(), EVP_sm4_cbc(), nullptr, key.data(), iv.data());
    EVP_EncryptUpdate(context.get(), expected.data(), &length,
                      reinterpret_cast<const std::uint8_t*>(all_bytes.data()),
                      static_cast<int>(size));
    ASSERT_EQ(EVP_EncryptFinal_ex(context.get(), expected.data() + length, &last_length), 1);
    expected.resize(static_cast<std::size_t>(length) + static_cast<std::size_t>(last_length));

    const std::string plaintext = all_bytes.substr(0, size);
    const std::string ciphertext = Sm4CbcEncrypt(plaintext, key, iv);
    ASSERT_EQ(ciphertext, std::string(expected.begin(), expected.end()));
    std::string decrypted = "old";
    ASSERT_EQ(Sm4CbcDecrypt(ciphertext, key, iv, &decrypted).ToString(), "OK");
    ASSERT_EQ(decrypted, plaintext);
  }
}

TEST(Sm4Cbc, RefusesBadPadding) {
  constexpr char kBad[] = "InvalidArgument: sm4: bad padding";
  const struct {
    std::string padded, result, plaintext;
  } cases[] = {
      {std::string(15, 'x') + '\1', "OK", std::string(15, 'x')},
      {std::string(16, '\x10'), "OK", ""},
      {std::string(32, '\0'), kBad, "untouched"},
      {std::string(32, '\x11'), kBad, "untouched"},  // 17 times 17, and more
      {'x' + std::string(15, '\x10'), kBad, "untouched"},
      {std::string(13, 'x') + "\2\3\3", kBad, "untouched"},
  };
  for (const auto& c : cases) {
    const Sm4Key key = {1};
    const Sm4Iv iv = {2};
    // The block of padding that follows whole blocks is cut off here.
    const std::string ciphertext = Sm4CbcEncrypt(c.padded, key, iv).substr(0, c.padded.size());
    std::string plaintext = "untouched";
    EXPECT_EQ(Sm4CbcDecrypt(ciphertext, key, iv, &plaintext).ToString(), c.result);
    EXPECT_EQ(plaintext, c.plaintext);
  }
}

// The expected bits were computed independently, with integers of unlimited size.
TEST(Bloom, SerialisedBytes) {
  const struct {
    std::vector<std::string> keys;
    std::uint32_t bits_per_key;
    std::string serialised;
  } cases[] = {
      {{"a"}, 10, Hex("40000000 06 0010040100802008")},
      {{""}, 10, Hex("40000000 06 2000200020002000")},
      {{"a", "b", "c", "d", "e", "f", Hex("ff 00 80")}, 10, Hex("48000000 06 60080c44a3a8bb0fb8")},
      {{}, 1, Hex("40000000 01 0000000000000000")},
      {{}, 4000000000, Hex("40000000 1e 0000000000000000")},
  };
  for (const auto& c : cases) {
    BloomFilter filter(c.keys.size(), c.bits_per_key);
    for (const std::string& key : c.keys) filter.Add(key);
    EXPECT_EQ(filter.Serialize(), c.serialised);
    const BloomFilterView view(c.serialised);
    for (const std::string& key : c.keys) EXPECT_TRUE(view.MayContain(key));
  }
}

// A filter of 61 bits with the key "a", and damaged copies of it.
TEST(BloomView, OnlyASoundFilterExcludes) {
  EXPECT_TRUE(BloomFilterView(Hex("3d000000 03 0000020010000002")).MayContain("a"));
  EXPECT_FALSE(BloomFilterView(Hex("3d000000 03 0000000010000002")).MayContain("a"));
  EXPECT_TRUE(BloomFilterView(Hex("3d000000 03 00000000100000")).MayContain("a"));
  // The number of bytes wraps to 0 in 32 bits.
  EXPECT_TRUE(BloomFilterView(Hex("ffffffff 06")).MayContain("a"));
}

}  // namespace
}  // namespace kandb::crypto
