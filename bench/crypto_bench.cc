// Are the checksum, the hash and the cipher as fast as those of an established library? SM3 and SM4
// run against OpenSSL, CRC-32C against ISA-L and against its own simpler methods. Both sides
// run alternately, and the fastest turn of each counts, since other load only makes a turn slower.
// `ours` and `other` are bytes per second of input; above a `ratio` of 1, ours is faster. Trust the
// ratios rather than the rates. The time of an iteration, a turn of both, means nothing.

#include <benchmark/benchmark.h>
#include <isa-l/crc.h>
#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "crypto/crc32c.h"
#include "crypto/sm3.h"
#include "crypto/sm4.h"

namespace kandb::crypto {
namespace {

// Seconds that `call_count` calls take.
template <class Function>
double TimeCalls(Function function, std::size_t call_count) {
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < call_count; ++i) benchmark::DoNotOptimize(function());
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Calls `ours` and `other` alternately; each call reads `size` bytes, and both give the same
// result.
template <class Ours, class Other>
void Compare(benchmark::State& state, std::size_t size, Ours ours, Other other) {
  if (ours() != other()) throw std::runtime_error("the results differ");
  constexpr std::size_t kTurnSize = 1 << 16;  // bytes; so many that reading the clock costs nothing
  const std::size_t calls = std::max(kTurnSize / size, std::size_t{1});
  double our_time = std::numeric_limits<double>::infinity();
  double other_time = our_time;
  for (auto _ : state) {
    our_time = std::min(our_time, TimeCalls(ours, calls));
    other_time = std::min(other_time, TimeCalls(other, calls));
  }
  const double turn_size = static_cast<double>(calls * size);
  state.counters["ours"] = turn_size / our_time;
  state.counters["other"] = turn_size / other_time;
  state.counters["ratio"] = other_time / our_time;
}

// No algorithm here branches on what it reads, so any text will do.
std::string Text(const benchmark::State& state) {
  return std::string(static_cast<std::size_t>(state.range(0)), 'x');
}

void CrcSizes(benchmark::internal::Benchmark* b) {
  for (const int size : {16, 64, 256, 1024, 4096, 1 << 20}) b->Arg(size);
}

// The argument is the method that Crc32c chooses is compared with.
void Crc32cOver(benchmark::State& state, Crc32cMethod method) {
  const std::string bytes = Text(state);
  Compare(
      state, bytes.size(), [&] { return Crc32c(bytes); },
      [&] { return Crc32c(bytes, std::min(method, FastestCrc32cMethod())); });
}
BENCHMARK_CAPTURE(Crc32cOver, Table, Crc32cMethod::kTable)->Apply(CrcSizes);
BENCHMARK_CAPTURE(Crc32cOver, Instruction, Crc32cMethod::kInstruction)->Apply(CrcSizes);

void Crc32cOverIsaL(benchmark::State& state) {
  std::string bytes = Text(state);
  // Takes and gives the register, which the checksum complements at the end, and asks for bytes
  // that it could write to.
  const auto isa_l = [&] {
    auto* const from = reinterpret_cast<unsigned char*>(bytes.data());
    return ~crc32_iscsi(from, static_cast<int>(bytes.size()), ~0u);
  };
  Compare(
      state, bytes.size(), [&] { return Crc32c(bytes); }, isa_l);
}
BENCHMARK(Crc32cOverIsaL)->Apply(CrcSizes);

void Check(int openssl_result) {
  if (openssl_result != 1) throw std::runtime_error("OpenSSL failed");
}

// OpenSSL looks the algorithm up by its name once, not for each message; also below.
void Sm3OverOpenSsl(benchmark::State& state) {
  const std::string bytes = Text(state);
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
  Check(EVP_DigestInit_ex(context.get(), EVP_sm3(), nullptr));
  const auto openssl_sm3 = [&] {
    Sm3Digest digest;
    Check(EVP_DigestInit_ex(context.get(), nullptr, nullptr));
    Check(EVP_DigestUpdate(context.get(), bytes.data(), bytes.size()));
    Check(EVP_DigestFinal_ex(context.get(), digest.data(), nullptr));
    return digest;
  };
  Compare(
      state, bytes.size(), [&] { return Sm3(bytes); }, openssl_sm3);
}
BENCHMARK(Sm3OverOpenSsl)->Arg(16)->Arg(256)->Arg(8192);

constexpr Sm4Key kKey = {0xc0, 0xff, 0xee};
constexpr Sm4Iv kIv = {0xab, 0xad};

// Whole messages: each time both sides expand the key, pad, and make a string.
void Sm4CbcOverOpenSsl(benchmark::State& state, bool encrypt) {
  const std::string plain = Text(state);
  const std::string text = encrypt ? plain : Sm4CbcEncrypt(plain, kKey, kIv);
  const auto ours = [&] {
    if (encrypt) return Sm4CbcEncrypt(text, kKey, kIv);
    std::string out;
    (void)Sm4CbcDecrypt(text, kKey, kIv, &out);  // the text is sound
    return out;
  };

  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(
      EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  Check(EVP_CipherInit_ex(context.get(), EVP_sm4_cbc(), nullptr, nullptr, nullptr, encrypt));
  const auto openssl = [&] {
    std::string out(text.size() + kSm4BlockSize, '\0');
    auto* const to = reinterpret_cast<std::uint8_t*>(out.data());
    const auto* const from = reinterpret_cast<const std::uint8_t*>(text.data());
    int size = 0;
    int last_size = 0;
    Check(EVP_CipherInit_ex(context.get(), nullptr, nullptr, kKey.data(), kIv.data(), -1));
    Check(EVP_CipherUpdate(context.get(), to, &size, from, static_cast<int>(text.size())));
    Check(EVP_CipherFinal_ex(context.get(), to + size, &last_size));
    out.resize(static_cast<std::size_t>(size) + static_cast<std::size_t>(last_size));
    return out;
  };
  Compare(state, plain.size(), ours, openssl);
}
BENCHMARK_CAPTURE(Sm4CbcOverOpenSsl, Encrypt, true)->Arg(16)->Arg(256)->Arg(8192);
BENCHMARK_CAPTURE(Sm4CbcOverOpenSsl, Decrypt, false)->Arg(16)->Arg(256)->Arg(8192);

}  // namespace
}  // namespace kandb::crypto
