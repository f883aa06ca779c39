// An ordered set of entries in memory, the newest for each key: a B+-tree whose nodes and entries
// are in one arena. An entry is never changed or moved; a newer one replaces it in the tree, and
// the memory of the old one is not reused. So a view of an entry lives as long as the tree.
//
// Any number of threads may read while none inserts. One thread at a time may insert or reserve.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "lsm/arena.h"
#include "lsm/entry.h"

namespace kandb::lsm {

class EntryTree {
 private:
  struct Leaf;

 public:
  // An entry in the tree.
  struct Record;
  // Replaces `*entries` by views of these records. Reading a record is mostly a cache miss; those
  // of one call overlap.
  static void Decode(std::span<const Record* const> records, std::vector<EntryView>* entries);

  EntryTree() = default;
  EntryTree(const EntryTree&) = delete;
  EntryTree& operator=(const EntryTree&) = delete;

  // Allocates in advance what inserting `count` entries with `size` bytes of keys and values in all
  // needs at most. Throws std::bad_alloc, and nothing has changed.
  void Reserve(std::size_t count, std::size_t size);

  // Adds a copy of the entry, or replaces the one with its key. Cannot fail when memory was
  // reserved for it; without, the process ends when it is out of memory.
  void Insert(const EntryView& entry) noexcept;

  // The position of an entry in the tree, or the end.
  class Position {
   public:
    Position() = default;
    bool valid() const { return leaf != nullptr; }
    EntryView entry() const;
    void Next();
    // Appends the next `limit` entries, or as many as there are, to `*out` and moves past them.
    // Does not read the records.
    void Take(std::size_t limit, std::vector<const Record*>* out);

   private:
    friend class EntryTree;
    Position(const Leaf* entry_leaf, std::size_t entry_index);
    void NextLeaf();

    const Leaf* leaf = nullptr;
    std::size_t index = 0;
  };

  // The first entry whose key is not less than `key`.
  Position LowerBound(std::string_view key) const;

 private:
  struct SortedRecords;
  struct Inner;
  // Enough for as many entries as fit into memory: each level multiplies them by 16 at least.
  static constexpr std::size_t kMaxHeight = 16;
  // The inner nodes from the root to a leaf, and the child taken in each.
  struct Path {
    Inner* nodes[kMaxHeight];
    std::size_t children[kMaxHeight];
  };

  Leaf* FindLeaf(std::string_view key, Path* path) const;
  const Record* Copy(const EntryView& entry);
  template <class Node>
  Node* NewNode();
  void AddToParent(const Path& path, std::size_t level, const Record* separator, void* right);

  Arena arena;
  void* root = nullptr;    // a Leaf when the height is 0, else an Inner
  std::size_t height = 0;  // inner nodes above each leaf
  std::size_t leaf_count = 0;
};

}  // namespace kandb::lsm
