#include "rebinding_index.h"

#include <functional>

namespace {

// The number of the first bit in which two names differ, their ends included.
size_t firstDifference(const char* one, const char* other) {
  size_t byte = 0;
  while (one[byte] == other[byte]) ++byte;
  const auto difference = static_cast<unsigned char>(one[byte] ^ other[byte]);
  size_t bit = byte * 8 + 1;
  for (unsigned mask = 0x80; (difference & mask) == 0; mask >>= 1) ++bit;
  return bit;
}

}  // namespace

void RebindingIndex::add(IndexedRebinding* rebindings, size_t count) {
  const std::less<const IndexedRebinding*> before;
  for (IndexedRebinding* added = rebindings; added != rebindings + count; ++added) {
    const char* const name = added->rebinding.name;
    if (name[0] == '\0') continue;  // a symbol of one character takes no part
    added->length = strlen(name);
    if (const size_t size = added->length + 1; size >= sizeof added->ending) {
      memcpy(&added->ending, name + size - sizeof added->ending, sizeof added->ending);
    }
    added->newest.store(added, std::memory_order_relaxed);
    IndexedRebinding* const nearest = candidate(name, added->length + 1);
    if (nearest == nullptr || nearest->length != added->length || !isNamed(*nearest, name)) {
      insert(*added, nearest);
    } else if (before(nearest->newest.load(std::memory_order_relaxed), rebindings) ||
               !before(nearest->newest.load(std::memory_order_relaxed), added)) {
      nearest->newest.store(added, std::memory_order_release);
    }
  }
}

void RebindingIndex::insert(IndexedRebinding& added, const IndexedRebinding* nearest) {
  if (nearest == nullptr) {
    top_.store(&added, std::memory_order_release);
    return;
  }
  const char* const name = added.rebinding.name;
  const size_t room = added.length + 1;
  added.bit = firstDifference(name, nearest->rebinding.name);

  std::atomic<IndexedRebinding*>* link = &top_;
  IndexedRebinding* below = link->load(std::memory_order_relaxed);
  for (size_t tested = 0; below->bit > tested && below->bit < added.bit;) {
    tested = below->bit;
    link = &below->next[isSet(name, room, tested)];
    below = link->load(std::memory_order_relaxed);
  }
  const bool side = isSet(name, room, added.bit);
  added.next[side].store(&added, std::memory_order_relaxed);
  added.next[!side].store(below, std::memory_order_relaxed);
  link->store(&added, std::memory_order_release);
}
