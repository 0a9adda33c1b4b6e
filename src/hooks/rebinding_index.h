// Finds the rebinding that applies to a symbol's name.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "symbol_rebinding.h"

// A place in the index for one rebinding. Whoever adds the rebinding provides it and keeps it as long as the
// index is used.
struct IndexedRebinding {
  SymbolRebinding rebinding{};
  size_t length = 0;    // of the name
  uint64_t ending = 0;  // the name's last eight bytes, its NUL included, if it has so many

  // As a node of the index.
  size_t bit = 0;                                 // the one that it tests; 0: none, as the first node
  std::atomic<const IndexedRebinding*> newest{};  // of those with its name
  std::atomic<IndexedRebinding*> next[2]{};
};

// A Patricia tree over the names: a node tests one bit and leads on by it, to a node that tests a later bit
// or back to the node whose name is the only candidate. Finding one, or finding that there is none, takes one
// comparison of names and at most as many steps as the name has bits, however many rebindings there are.
//
// Any number of threads may look names up while one adds: each sees a rebinding either whole or not at all.
class RebindingIndex {
 public:
  // Adds an array of rebindings. Each replaces the one that was there for its name, if that is not one of
  // this array: among these the first one counts.
  void add(IndexedRebinding* rebindings, size_t count);

  // The rebinding for the name that starts at `name`; nullptr if there is none. At most `room` bytes are
  // read. A name that has no end in that room is none.
  const SymbolRebinding* find(const char* name, size_t room) const {
    const IndexedRebinding* const node = candidate(name, room);
    if (node == nullptr || node->length >= room || !isNamed(*node, name)) return nullptr;
    return &node->newest.load(std::memory_order_acquire)->rebinding;
  }

 private:
  // Bits are counted from 1. Bit 0, the first node's own, and any bit behind the room count as not set: a
  // name that reaches as far is the candidate of no node that asks for them.
  static bool isSet(const char* name, size_t room, size_t bit) {
    const size_t byte = (bit - 1) / 8;
    return byte < room && (static_cast<unsigned char>(name[byte]) >> (7 - (bit - 1) % 8) & 1) != 0;
  }

  // The one node whose name can be this one; nullptr while the index is empty.
  IndexedRebinding* candidate(const char* name, size_t room) const {
    IndexedRebinding* node = top_.load(std::memory_order_acquire);
    if (node == nullptr) return nullptr;
    for (size_t tested = 0; node->bit > tested;) {
      tested = node->bit;
      node = node->next[isSet(name, room, tested)].load(std::memory_order_acquire);
    }
    return node;
  }

  // Needs length < room. The last eight bytes first: names of one image often begin alike.
  static bool isNamed(const IndexedRebinding& node, const char* name) {
    const size_t size = node.length + 1;
    if (size >= sizeof node.ending) {
      uint64_t ending = 0;
      memcpy(&ending, name + size - sizeof ending, sizeof ending);
      if (ending != node.ending) return false;
    }
    return memcmp(name, node.rebinding.name, size) == 0;
  }

  void insert(IndexedRebinding& added, const IndexedRebinding* nearest);

  std::atomic<IndexedRebinding*> top_{};
};
