// Finds the rebinding that applies to a symbol's name.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "symbol_rebinding.h"

// Lets those names pass that may have a rebinding. While few names have one, that takes one comparison for
// each of these, of the eight bytes that they end in, whatever the length of the name that is asked for:
// names of one image often begin alike. Once they are many all names pass.
class NameSieve {
 public:
  // Whether the name at strings[start] passes. Nothing behind the `size` bytes at `strings` is read: a name
  // so near their end that it cannot be judged passes.
  bool passes(const char* strings, size_t size, size_t start) const {
    for (size_t i = 0; i < count_; ++i) {
      const Ending& ending = endings_[i];
      const size_t at = start + ending.offset;
      uint64_t bytes = 0;
      if (at + sizeof bytes > size) return true;
      memcpy(&bytes, strings + at, sizeof bytes);
      if ((bytes & ending.mask) == ending.bytes) return true;
    }
    return all_;
  }

 private:
  friend class RebindingIndex;

  static constexpr size_t kFew = 4;

  // The last eight bytes of a name, its NUL included; of a shorter one all.
  struct Ending {
    size_t offset;
    uint64_t mask;
    uint64_t bytes;
  };

  void add(const char* name);

  Ending endings_[kFew];
  size_t count_ = 0;
  bool all_ = false;
};

// A hash table of the names.
//
// Any number of threads may look names up while one adds: each sees a rebinding either whole or not at all.
// The index has no destructor, since the process's own is used until the very end.
class RebindingIndex {
 public:
  // Makes room for so many more rebindings; false, and nothing has changed, if there is no memory.
  bool reserve(size_t count);

  // Adds an array of rebindings, for which there must be room and which stays as long as the index is used.
  // Each replaces the one that was there for its name, if that is not one of this array: among these the
  // first one counts.
  void add(const SymbolRebinding* rebindings, size_t count);

  // Frees what reserve() took. Nobody may be using the index.
  void clear();

  // The rebinding for the name that starts at `name`; nullptr if there is none. At most `room` bytes are
  // read. A name that has no end in that room is none.
  const SymbolRebinding* find(const char* name, size_t room) const;

  // For the names that the index has now.
  NameSieve sieve() const;

 private:
  struct Place {
    std::atomic<uint64_t> hash{};                     // of the name
    std::atomic<const SymbolRebinding*> rebinding{};  // the newest of its name; nullptr: the place is free
  };

  // A name has the first free place from where its hash leads to. Never more than half full.
  struct Table {
    size_t size;  // a power of two
    Place* places;
    Table* smaller;  // the one before it, which others may still be reading
  };

  // The place of a name, or else the free one for it.
  static Place& placeOf(const Table& table, const char* name, size_t length, uint64_t hash);

  std::atomic<Table*> table_{};
  size_t used_ = 0;  // places that are taken
};
