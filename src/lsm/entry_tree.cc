#include "lsm/entry_tree.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>

#include "common/endian.h"

namespace kandb::lsm {

namespace {

constexpr std::size_t kCapacity = 32;         // entries of a leaf, separators of an inner node
constexpr std::size_t kMaxPrefixLength = 24;  // bytes
constexpr std::size_t kCacheLine = 64;        // bytes
// The part of a record that a scan is likely to read, in bytes.
constexpr std::size_t kRecordFront = 2 * kCacheLine;

void Prefetch(const void* memory, std::size_t size) {
  const auto* const bytes = static_cast<const char*>(memory);
  for (std::size_t at = 0; at < size; at += kCacheLine) __builtin_prefetch(bytes + at);
}

std::size_t CommonPrefixLength(std::string_view a, std::string_view b) {
  const std::size_t limit = std::min(a.size(), b.size());
  std::size_t length = 0;
  while (length < limit && a[length] == b[length]) ++length;
  return length;
}

// The 8 bytes of `key` after its first `skip` ones, as a number with the order of the bytes.
std::uint64_t Head(std::string_view key, std::size_t skip) {
  if (key.size() == skip) return 0;  // an empty view may have no address to copy from
  char head[sizeof(std::uint64_t)] = {};
  std::memcpy(head, key.data() + skip, std::min(key.size() - skip, sizeof(head)));
  return LoadBigEndian<std::uint64_t>(head);
}

}  // namespace

// An entry in the arena. The bytes of its key and then its value follow.
struct EntryTree::Record {
  std::uint32_t key_length;
  std::uint32_t value_length;
  std::uint8_t op;

  const char* bytes() const { return reinterpret_cast<const char*>(this + 1); }
  std::string_view key() const { return {bytes(), key_length}; }
  EntryView entry() const { return {op, key(), {bytes() + key_length, value_length}}; }
};

// The records of a node, by ascending keys. Records are spread over the memory, and reading one is
// a cache miss. So a node also has an array of key heads, which mostly decide a comparison: the 8
// bytes of each key after the prefix that all of its keys share.
struct EntryTree::SortedRecords {
  // The position of a key, or the one it would get, and whether it is there.
  struct Place {
    std::size_t index;
    bool exact;
  };

  std::uint32_t count = 0;
  std::uint32_t prefix_length = 0;
  char prefix[kMaxPrefixLength];
  std::uint64_t heads[kCapacity];
  const Record* records[kCapacity];

  std::string_view key(std::size_t index) const { return records[index]->key(); }
  bool full() const { return count == kCapacity; }

  Place Find(std::string_view target) const {
    const int order = target.substr(0, prefix_length).compare({prefix, prefix_length});
    if (order != 0) return {.index = order < 0 ? 0 : count, .exact = false};
    const std::uint64_t head = Head(target, prefix_length);
    const std::uint64_t* const first = std::lower_bound(heads, heads + count, head);
    const std::uint64_t* last = first;
    while (last != heads + count && *last == head) ++last;
    const auto* const found =
        std::partition_point(records + (first - heads), records + (last - heads),
                             [&](const Record* record) { return record->key() < target; });
    const auto index = static_cast<std::size_t>(found - records);
    return {.index = index, .exact = found != records + (last - heads) && key(index) == target};
  }

  // Not when full.
  void Insert(std::size_t index, const Record* record) {
    const std::size_t shared = count == 0
                                   ? std::min<std::size_t>(record->key_length, kMaxPrefixLength)
                                   : CommonPrefixLength({prefix, prefix_length}, record->key());
    std::copy_backward(records + index, records + count, records + count + 1);
    records[index] = record;
    ++count;
    if (shared == prefix_length && count > 1) {
      std::copy_backward(heads + index, heads + count - 1, heads + count);
      heads[index] = Head(record->key(), prefix_length);
    } else {
      SetPrefix(shared);
    }
  }

  // Moves the records from `index` on to `right`, which is empty.
  void MoveTail(std::size_t index, SortedRecords* right) {
    std::copy(records + index, records + count, right->records);
    std::copy(heads + index, heads + count, right->heads);
    std::copy(prefix, prefix + prefix_length, right->prefix);
    right->prefix_length = prefix_length;
    right->count = count - static_cast<std::uint32_t>(index);
    count = static_cast<std::uint32_t>(index);
    ExtendPrefix();
    right->ExtendPrefix();
  }

  // Takes a longer prefix when half of each head is the same: not earlier, because that reads every
  // record.
  void ExtendPrefix() {
    if (count == 0 || std::countl_zero(heads[0] ^ heads[count - 1]) < 32) return;
    const std::size_t shared = CommonPrefixLength(key(0), key(count - 1));
    if (prefix_length < kMaxPrefixLength) SetPrefix(std::min(shared, kMaxPrefixLength));
  }

  void SetPrefix(std::size_t length) {
    prefix_length = static_cast<std::uint32_t>(length);
    std::copy_n(key(0).begin(), length, prefix);
    for (std::size_t i = 0; i < count; ++i) heads[i] = Head(key(i), length);
  }
};

struct EntryTree::Leaf : SortedRecords {
  Leaf* next = nullptr;
};

// Child i + 1 has the keys from that of record i on, child 0 those before.
struct EntryTree::Inner : SortedRecords {
  void* children[kCapacity + 1];

  std::size_t ChildFor(std::string_view target) const {
    const Place place = Find(target);
    return place.exact ? place.index + 1 : place.index;
  }
};

void EntryTree::Reserve(std::size_t count, std::size_t size) {
  // Level by level: a node splits when it was full before, or after insertions of half of its
  // capacity; a split at the very end leaves a full node and one that takes more than that. Every
  // split is an insertion on the level above, which has fewer nodes by the same factor.
  constexpr std::size_t kHalf = kCapacity / 2;
  std::size_t insertions = count;
  std::size_t existing = leaf_count;
  std::size_t nodes = 1;  // a root above the present one
  for (std::size_t level = 0; level <= height; ++level) {
    insertions = std::min(insertions, existing) + 2 * insertions / kHalf + 2;
    nodes += insertions;
    existing = existing / kHalf + 1;
  }
  arena.Reserve(nodes * (sizeof(Inner) + alignof(Inner)) +
                count * (sizeof(Record) + alignof(Record)) + size);
}

void EntryTree::Insert(const EntryView& entry) noexcept {
  const Record* record = Copy(entry);
  if (root == nullptr) root = NewNode<Leaf>();
  Path path;
  Leaf* leaf = FindLeaf(entry.key, &path);
  const SortedRecords::Place place = leaf->Find(entry.key);
  std::size_t index = place.index;
  if (place.exact) {
    leaf->records[index] = record;
    return;
  }
  if (leaf->full()) {
    Leaf* right = NewNode<Leaf>();
    // When the new key is the greatest of all, the left leaf stays full: ascending keys fill every
    // leaf.
    const bool at_end = leaf->next == nullptr && index == kCapacity;
    const std::size_t middle = at_end ? kCapacity : kCapacity / 2;
    right->next = leaf->next;
    leaf->next = right;
    leaf->MoveTail(middle, right);
    AddToParent(path, height, at_end ? record : right->records[0], right);
    if (index >= middle && (at_end || index > middle)) {
      leaf = right;
      index -= middle;
    }
  }
  leaf->Insert(index, record);
}

// Adds a node that was split off to the inner node above it: number `level` - 1 of the path.
void EntryTree::AddToParent(const Path& path, std::size_t level, const Record* separator,
                            void* right) {
  while (level > 0) {
    --level;
    Inner* node = path.nodes[level];
    std::size_t index = path.children[level];
    Inner* split = nullptr;
    const Record* middle_record = nullptr;
    if (node->full()) {
      // The record in the middle goes up and separates the halves.
      split = NewNode<Inner>();
      constexpr std::size_t kMiddle = kCapacity / 2;
      middle_record = node->records[kMiddle];
      node->MoveTail(kMiddle + 1, split);
      std::copy(node->children + kMiddle + 1, node->children + kCapacity + 1, split->children);
      --node->count;
      if (index > kMiddle) {
        node = split;
        index -= kMiddle + 1;
      }
    }
    node->Insert(index, separator);
    std::copy_backward(node->children + index + 1, node->children + node->count,
                       node->children + node->count + 1);
    node->children[index + 1] = right;
    if (split == nullptr) return;
    separator = middle_record;
    right = split;
  }
  Inner* above = NewNode<Inner>();
  above->Insert(0, separator);
  above->children[0] = root;
  above->children[1] = right;
  root = above;
  ++height;
  assert(height < kMaxHeight);
}

EntryTree::Leaf* EntryTree::FindLeaf(std::string_view key, Path* path) const {
  void* node = root;
  for (std::size_t level = 0; level < height; ++level) {
    auto* inner = static_cast<Inner*>(node);
    const std::size_t child = inner->ChildFor(key);
    path->nodes[level] = inner;
    path->children[level] = child;
    node = inner->children[child];
    // All that a search may read, at once: one cache miss instead of a chain of them.
    Prefetch(node, sizeof(Leaf));
  }
  return static_cast<Leaf*>(node);
}

const EntryTree::Record* EntryTree::Copy(const EntryView& entry) {
  char* memory =
      arena.Allocate(sizeof(Record) + entry.key.size() + entry.value.size(), alignof(Record));
  const auto* record =
      new (memory) Record{static_cast<std::uint32_t>(entry.key.size()),
                          static_cast<std::uint32_t>(entry.value.size()), entry.op};
  char* bytes = memory + sizeof(Record);
  std::copy(entry.key.begin(), entry.key.end(), bytes);
  std::copy(entry.value.begin(), entry.value.end(), bytes + entry.key.size());
  return record;
}

template <class Node>
Node* EntryTree::NewNode() {
  static_assert(std::is_trivially_destructible_v<Node>, "an arena destroys nothing");
  if constexpr (std::is_same_v<Node, Leaf>) ++leaf_count;
  return new (arena.Allocate(sizeof(Node), alignof(Node))) Node;
}

EntryTree::Position EntryTree::LowerBound(std::string_view key) const {
  if (root == nullptr) return {nullptr, 0};
  Path path;
  const Leaf* leaf = FindLeaf(key, &path);
  return {leaf, leaf->Find(key).index};
}

EntryTree::Position::Position(const Leaf* entry_leaf, std::size_t entry_index)
    : leaf(entry_leaf), index(entry_index) {
  if (leaf != nullptr && index == leaf->count) NextLeaf();
}

EntryView EntryTree::Position::entry() const { return leaf->records[index]->entry(); }

void EntryTree::Position::Next() {
  if (++index == leaf->count) NextLeaf();
}

void EntryTree::Position::Take(std::size_t limit, std::vector<const Record*>* out) {
  std::size_t left = limit;
  while (valid() && left > 0) {
    const std::size_t count = std::min<std::size_t>(leaf->count - index, left);
    const Record* const* const first = leaf->records + index;
    out->insert(out->end(), first, first + count);
    left -= count;
    index += count;
    if (index == leaf->count) NextLeaf();
  }
}

void EntryTree::Position::NextLeaf() {
  leaf = leaf->next;
  index = 0;
  // Without prefetching, a walk over the leaves is a chain of cache misses.
  if (leaf != nullptr && leaf->next != nullptr) Prefetch(leaf->next, sizeof(Leaf));
}

void EntryTree::Decode(std::span<const Record* const> records, std::vector<EntryView>* entries) {
  for (const Record* record : records) Prefetch(record, kRecordFront);
  entries->resize(records.size());
  std::transform(records.begin(), records.end(), entries->begin(),
                 [](const Record* record) { return record->entry(); });
}

}  // namespace kandb::lsm
