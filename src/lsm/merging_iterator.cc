#include "lsm/merging_iterator.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "common/check.h"
#include "common/endian.h"

namespace kandb::lsm {

namespace {

// So many ties are worth looking for a longer prefix.
constexpr std::size_t kMaxTies = 64;

// The 8 bytes of `key` after its first `skip` ones, zeros after its end, as a number with the order
// of the bytes.
[[gnu::always_inline]] inline std::uint64_t Head(std::string_view key, std::size_t skip) {
  constexpr std::size_t kSize = sizeof(std::uint64_t);
  if (key.size() >= skip + kSize) return LoadBigEndian<std::uint64_t>(key.data() + skip);
  if (key.size() <= skip) return 0;
  const std::size_t missing = skip + kSize - key.size();
  if (key.size() >= kSize) {
    return LoadBigEndian<std::uint64_t>(key.data() + key.size() - kSize) << (8 * missing);
  }
  char head[kSize] = {};
  std::memcpy(head, key.data() + skip, key.size() - skip);
  return LoadBigEndian<std::uint64_t>(head);
}

std::size_t CommonPrefixLength(std::string_view a, std::string_view b) {
  const auto [in_a, in_b] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  return static_cast<std::size_t>(in_a - a.begin());
}

}  // namespace

void MergingIterator::Seek(std::string_view target) {
  run = {};
  contestants.clear();
  for (const auto& source : sources) {
    source->Seek(target);
    Contestant contestant{source.get()};
    if (TakeBatch(&contestant)) contestants.push_back(contestant);
    if (!failure.ok()) return;
  }
  HoldTournament();
  NextRun();
}

bool MergingIterator::TakeBatch(Contestant* contestant) {
  failure = contestant->source->status();
  contestant->batch = contestant->source->batch();
  if (contestant->batch.empty()) return false;
  if (!end.empty() && contestant->batch.back().key >= end) {
    const auto cut = std::partition_point(contestant->batch.begin(), contestant->batch.end(),
                                          [&](const EntryView& entry) { return entry.key < end; });
    contestant->batch = {contestant->batch.begin(), cut};
    contestant->at_end = true;
  }
  return !contestant->batch.empty();
}

// --- The tournament ---

// Everything from the start, with the longest prefix.
void MergingIterator::HoldTournament() {
  const std::size_t count = contestants.size();
  if (count == 0) return;
  ties = 0;
  prefix = contestants.front().batch.front().key;
  for (const Contestant& contestant : contestants) {
    const std::string_view first = contestant.batch.front().key;
    const std::string_view last = contestant.batch.back().key;
    // The keys between them have it too.
    prefix.resize(std::min(CommonPrefixLength(prefix, first), CommonPrefixLength(prefix, last)));
  }
  // With as many leaves as a power of two every path to the root is equally long: a loop of varying
  // length is mispredicted.
  const std::size_t leaf_count = std::bit_ceil(count);
  KANDB_CHECK(leaf_count <= kIndexMask, leaf_count);
  losers.assign(leaf_count, kNobody);
  std::vector<Node> winners(2 * leaf_count, kNobody);
  for (std::size_t i = 0; i < count; ++i) {
    winners[leaf_count + i] = NodeOf(contestants[i].batch.front().key, i);
    FindNext(i);
  }
  for (std::size_t at = leaf_count - 1; at > 0; --at) {
    winners[at] = winners[2 * at];
    losers[at] = winners[2 * at + 1];
    Play(&winners[at], &losers[at]);
  }
  winner = winners[1] & kIndexMask;
}

[[gnu::always_inline]] inline std::size_t MergingIterator::PlayAgain(std::size_t contestant,
                                                                     Node node) {
  for (std::size_t at = (losers.size() + contestant) / 2; at > 0; at /= 2) Play(&node, &losers[at]);
  return node & kIndexMask;
}

[[gnu::always_inline]] inline void MergingIterator::Play(Node* winning, Node* losing) {
  Node first = *winning;
  Node second = *losing;
  if ((first | kIndexMask) == (second | kIndexMask)) [[unlikely]] {
    if (WinsTie(second, first)) std::swap(first, second);
    *winning = first;
    *losing = second;
    return;
  }
  // Without a branch, which would be mispredicted half of the time.
  *winning = second < first ? second : first;
  *losing = second < first ? first : second;
}

// Whether `a` comes before `b` when their keys have the same bits there.
[[gnu::noinline]] bool MergingIterator::WinsTie(Node a, Node b) {
  if (a == kNobody || b == kNobody) return b == kNobody;
  ++ties;
  const std::size_t of_a = a & kIndexMask;
  const std::size_t of_b = b & kIndexMask;
  const int order =
      contestants[of_a].batch.front().key.compare(contestants[of_b].batch.front().key);
  if (order != 0) return order < 0;
  // Who has the smallest key has met all that have the same or lost to one that has: so each but
  // the newest is found hidden before it wins.
  contestants[std::max(of_a, of_b)].hidden = true;
  return of_a < of_b;
}

inline MergingIterator::Node MergingIterator::NodeOf(std::string_view key,
                                                     std::size_t contestant) const {
  return (Head(key, prefix.size()) & ~kIndexMask) | contestant;
}

// Before the contestant needs it: to get there from the winner's index takes three loads, and the
// matches would wait for them.
[[gnu::always_inline]] inline void MergingIterator::FindNext(std::size_t contestant) {
  Contestant& of = contestants[contestant];
  if (of.batch.size() > 1) of.next = NodeOf(of.batch[1].key, contestant);
}

// --- What it is for ---

void MergingIterator::NextRun() {
  run = {};
  while (run.empty() && !contestants.empty()) {
    Contestant& leader = contestants[winner];
    if (leader.batch.empty()) {
      if (!Refill()) return;
    } else if (WinnerIsAlone()) {
      // Neighbouring keys are mostly in one source.
      run = std::exchange(leader.batch, {}).subspan(std::exchange(leader.hidden, false) ? 1 : 0);
    } else {
      Merge();
    }
  }
}

bool MergingIterator::Refill() {
  Contestant& last = contestants[winner];
  bool has_more = false;
  if (!last.at_end) {
    last.source->Skip(last.source->batch().size());
    has_more = TakeBatch(&last);
    if (!failure.ok()) return false;
  }
  if (!has_more) contestants.erase(contestants.begin() + static_cast<std::ptrdiff_t>(winner));
  if (has_more && ties < kMaxTies && last.batch.front().key.starts_with(prefix) &&
      last.batch.back().key.starts_with(prefix)) {
    FindNext(winner);
    winner = PlayAgain(winner, NodeOf(last.batch.front().key, winner));
  } else {
    HoldTournament();
  }
  return true;
}

// Whether the whole batch of the winner comes before all other contestants.
bool MergingIterator::WinnerIsAlone() const {
  const Node last = NodeOf(contestants[winner].batch.back().key, winner) | kIndexMask;
  for (std::size_t at = (losers.size() + winner) / 2; at > 0; at /= 2) {
    if (losers[at] <= last && losers[at] != kNobody) return false;
  }
  return true;
}

// Up to the end of a batch: the entries of the one after it may take its place.
void MergingIterator::Merge() {
  merged.clear();
  for (;;) {
    const std::size_t leading = winner;
    Contestant& leader = contestants[leading];
    if (leader.hidden) [[unlikely]] {
      leader.hidden = false;
    } else {
      merged.push_back(leader.batch.front());
    }
    leader.batch = leader.batch.subspan(1);
    if (leader.batch.empty()) break;
    winner = PlayAgain(leading, leader.next);
    FindNext(leading);
  }
  run = merged;
}

}  // namespace kandb::lsm
