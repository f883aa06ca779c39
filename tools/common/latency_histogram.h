// Latencies counted in buckets, so that a long run takes no more memory than a short one. A bucket
// is at most 1/32 of its values wide. Thread-compatible.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>

namespace kandb::tools {

class LatencyHistogram {
 public:
  void Add(std::uint64_t latency_ns) {
    ++buckets[BucketOf(latency_ns)];
    ++total;
    largest_ns = std::max(largest_ns, latency_ns);
  }

  void Merge(const LatencyHistogram& other) {
    for (std::size_t i = 0; i < buckets.size(); ++i) buckets[i] += other.buckets[i];
    total += other.total;
    largest_ns = std::max(largest_ns, other.largest_ns);
  }

  // The latency that `share` of all, 0 to 1, do not exceed, rounded up to the end of its bucket; 0
  // when there are none.
  std::uint64_t PercentileNs(double share) const {
    const auto rank = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(total)));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < buckets.size(); ++i) {
      seen += buckets[i];
      if (seen > 0 && seen >= rank) return std::min(LastOf(i), largest_ns);
    }
    return 0;
  }

  std::uint64_t count() const { return total; }
  std::uint64_t max_ns() const { return largest_ns; }

 private:
  // Values below 64 have a bucket each; from there on every doubling is divided into 32.
  static constexpr unsigned kBits = 6;
  static constexpr std::size_t kStep = 1u << (kBits - 1);
  static constexpr std::size_t kBucketCount = kStep * (64 - kBits + 2);

  static std::size_t BucketOf(std::uint64_t value) {
    const auto width = static_cast<unsigned>(std::bit_width(value));
    const unsigned shift = width > kBits ? width - kBits : 0;
    return kStep * shift + static_cast<std::size_t>(value >> shift);
  }
  static std::uint64_t LastOf(std::size_t bucket) {
    const std::size_t shift = bucket < 2 * kStep ? 0 : bucket / kStep - 1;
    const std::uint64_t first = static_cast<std::uint64_t>(bucket - kStep * shift) << shift;
    return first + ((std::uint64_t{1} << shift) - 1);
  }

  std::array<std::uint64_t, kBucketCount> buckets{};
  std::uint64_t total = 0;
  std::uint64_t largest_ns = 0;
};

}  // namespace kandb::tools
