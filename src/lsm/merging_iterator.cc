#include "lsm/merging_iterator.h"

#include <algorithm>
#include <cstring>

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
  losers.assign(count, {});
  std::vector<Node> winners(2 * count);
  for (std::size_t i = 0; i < count; ++i) winners[count + i] = NodeOf(i);
  for (std::size_t at = count - 1; at > 0; --at) {
    Node first = winners[2 * at];
    Node second = winners[2 * at + 1];
    const bool tie = first.head == second.head;
    if (tie ? WinsTie(second.contestant, first.contestant) : second.head < first.head) {
      std::swap(first, second);
    }
    winners[at] = first;
    losers[at] = second;
  }
  winner = count == 1 ? 0 : winners[1].contestant;
}

[[gnu::always_inline]] inline void MergingIterator::PlayAgain(std::size_t contestant) {
  Node winning = NodeOf(contestant);
  for (std::size_t at = (contestants.size() + contestant) / 2; at > 0; at /= 2) {
    const Node loser = losers[at];
    bool loses = loser.head < winning.head;
    if (loser.head == winning.head) [[unlikely]] {
      loses = WinsTie(loser.contestant, winning.contestant);
    }
    // An exchange without a branch, which would be mispredicted half of the time.
    const std::uint64_t mask = std::uint64_t{0} - std::uint64_t{loses};
    const Node change = {(loser.head ^ winning.head) & mask,
                         (loser.contestant ^ winning.contestant) & mask};
    losers[at] = {loser.head ^ change.head, loser.contestant ^ change.contestant};
    winning = {winning.head ^ change.head, winning.contestant ^ change.contestant};
  }
  winner = winning.contestant;
}

// Whether `a` comes before `b` when their heads are equal.
[[gnu::noinline]] bool MergingIterator::WinsTie(std::size_t a, std::size_t b) {
  ++ties;
  const int order = contestants[a].batch.front().key.compare(contestants[b].batch.front().key);
  if (order != 0) return order < 0;
  // Who has the smallest key has met all that have the same or lost to one that has: so each but
  // the newest is found hidden before it wins.
  contestants[std::max(a, b)].hidden = true;
  return a < b;
}

inline MergingIterator::Node MergingIterator::NodeOf(std::size_t contestant) const {
  return {Head(contestants[contestant].batch.front().key, prefix.size()), contestant};
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
    PlayAgain(winner);
  } else {
    HoldTournament();
  }
  return true;
}

// Whether the whole batch of the winner comes before all other contestants.
bool MergingIterator::WinnerIsAlone() const {
  const std::uint64_t last = Head(contestants[winner].batch.back().key, prefix.size());
  for (std::size_t at = (contestants.size() + winner) / 2; at > 0; at /= 2) {
    if (losers[at].head <= last) return false;
  }
  return true;
}

// Up to the end of a batch: the entries of the one after it may take its place.
void MergingIterator::Merge() {
  merged.clear();
  for (;;) {
    Contestant& leader = contestants[winner];
    if (!std::exchange(leader.hidden, false)) merged.push_back(leader.batch.front());
    leader.batch = leader.batch.subspan(1);
    if (leader.batch.empty()) break;
    PlayAgain(winner);
  }
  run = merged;
}

}  // namespace kandb::lsm
