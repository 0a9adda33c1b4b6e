#include "rebinding_index.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <new>

namespace {

uint64_t mixed(uint64_t hash, uint64_t word) {
  const uint64_t product = (hash ^ word) * 0x9e3779b97f4a7c15U;
  return product ^ product >> 32;
}

// The lowest byte of `word` that is zero has its highest bit set in the result; so may have some above it.
uint64_t zeroBytes(uint64_t word) {
  return (word - 0x0101010101010101U) & ~word & 0x8080808080808080U;
}

struct HashedName {
  uint64_t hash;
  size_t length;  // `room` or more for a name without an end in that room
};

HashedName hashed(const char* name, size_t room) {
  static_assert(std::endian::native == std::endian::little, "a word's lowest byte is the first one");
  uint64_t hash = 0;
  for (size_t read = 0; read < room; read += sizeof hash) {
    uint64_t word = ~uint64_t{0};
    if (room - read >= sizeof word) {
      memcpy(&word, name + read, sizeof word);
    } else {
      for (size_t i = room; i-- > read;) word = word << 8 | static_cast<unsigned char>(name[i]);
    }
    if (const uint64_t ends = zeroBytes(word); ends != 0) {
      const int bits = std::countr_zero(ends) - 7;
      return {mixed(hash, word & ((uint64_t{1} << bits) - 1)), read + static_cast<size_t>(bits) / 8};
    }
    hash = mixed(hash, word);
  }
  return {hash, room};
}

}  // namespace

void NameSieve::add(const char* name) {
  const size_t size = strlen(name) + 1;
  Ending& ending = endings_[count_++];
  ending = {.offset = size - std::min(size, sizeof ending.bytes), .mask = 0, .bytes = 0};
  memcpy(&ending.bytes, name + ending.offset, size - ending.offset);
  memset(&ending.mask, 0xff, size - ending.offset);
}

bool RebindingIndex::reserve(size_t count) {
  Table* const old = table_.load(std::memory_order_relaxed);
  const size_t size = std::bit_ceil(2 * std::max(used_ + count, NameSieve::kFew));
  if (old != nullptr && old->size >= size) return true;

  auto* const places = new (std::nothrow) Place[size];
  if (places == nullptr) return false;
  auto* const table = new (std::nothrow) Table{size, places, old};
  if (table == nullptr) {
    delete[] places;
    return false;
  }
  for (size_t i = 0; old != nullptr && i < old->size; ++i) {
    const Place& from = old->places[i];
    const SymbolRebinding* const rebinding = from.rebinding.load(std::memory_order_relaxed);
    if (rebinding == nullptr) continue;
    const uint64_t hash = from.hash.load(std::memory_order_relaxed);
    Place& to = placeOf(*table, rebinding->name, strlen(rebinding->name), hash);
    to.hash.store(hash, std::memory_order_relaxed);
    to.rebinding.store(rebinding, std::memory_order_relaxed);
  }
  table_.store(table, std::memory_order_release);
  return true;
}

void RebindingIndex::add(const SymbolRebinding* rebindings, size_t count) {
  const std::less<const SymbolRebinding*> before;
  for (const SymbolRebinding* added = rebindings; added != rebindings + count; ++added) {
    const size_t length = strlen(added->name);
    if (length == 0) continue;  // a symbol of one character takes no part
    const uint64_t hash = hashed(added->name, length + 1).hash;
    Place& place = placeOf(*table_.load(std::memory_order_relaxed), added->name, length, hash);
    const SymbolRebinding* const older = place.rebinding.load(std::memory_order_relaxed);
    if (older == nullptr) {
      place.hash.store(hash, std::memory_order_relaxed);
      ++used_;
    } else if (!before(older, rebindings) && before(older, added)) {
      continue;
    }
    place.rebinding.store(added, std::memory_order_release);
  }
}

void RebindingIndex::clear() {
  for (Table* table = table_.exchange(nullptr, std::memory_order_relaxed); table != nullptr;) {
    Table* const smaller = table->smaller;
    delete[] table->places;
    delete table;
    table = smaller;
  }
  used_ = 0;
}

RebindingIndex::Place& RebindingIndex::placeOf(const Table& table, const char* name, size_t length,
                                               uint64_t hash) {
  for (size_t i = hash;; ++i) {
    Place& place = table.places[i & (table.size - 1)];
    const SymbolRebinding* const rebinding = place.rebinding.load(std::memory_order_acquire);
    if (rebinding == nullptr || (place.hash.load(std::memory_order_relaxed) == hash &&
                                 strncmp(name, rebinding->name, length + 1) == 0)) {
      return place;
    }
  }
}

const SymbolRebinding* RebindingIndex::find(const char* name, size_t room) const {
  const Table* const table = table_.load(std::memory_order_acquire);
  const auto [hash, length] = hashed(name, room);
  if (table == nullptr || length >= room) return nullptr;
  return placeOf(*table, name, length, hash).rebinding.load(std::memory_order_acquire);
}

NameSieve RebindingIndex::sieve() const {
  NameSieve sieve;
  const Table* const table = table_.load(std::memory_order_acquire);
  if (table == nullptr) return sieve;
  sieve.all_ = table->size > 2 * NameSieve::kFew;
  for (size_t i = 0; i < table->size && !sieve.all_; ++i) {
    const SymbolRebinding* const rebinding = table->places[i].rebinding.load(std::memory_order_acquire);
    if (rebinding != nullptr) sieve.add(rebinding->name);
  }
  return sieve;
}
