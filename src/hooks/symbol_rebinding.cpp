#include "symbol_rebinding.h"

#include <mach-o/dyld.h>
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <new>

#include "image_rewriting.h"
#include "rebinding_index.h"

static_assert(sizeof(std::atomic<bool>) == sizeof(bool), "hosts set the flag as a plain bool");
std::atomic<bool> dontRebindImages{false};

namespace {

// The rebindings of one call.
struct RebindingSet {
  SymbolRebinding* rebindings;
  size_t count;
  RebindingSet* next;
};

// The sets, newest first, and the index that holds their order: for each name the record that comes first.
struct RebindingList {
  RebindingSet* head = nullptr;
  RebindingIndex index;
};

// Never destroyed, like what it holds: images may be loaded while the process exits.
constinit RebindingList allRebindings;

// Taken to add a set. Those who rewrite images do not ask for it.
pthread_mutex_t addingSets = PTHREAD_MUTEX_INITIALIZER;

// nullptr if there is no memory.
RebindingSet* makeSet(const SymbolRebinding rebindings[], size_t count) {
  if (count > PTRDIFF_MAX / sizeof(SymbolRebinding)) return nullptr;
  auto* const set = new (std::nothrow) RebindingSet{nullptr, count, nullptr};
  if (set == nullptr) return nullptr;
  set->rebindings = new (std::nothrow) SymbolRebinding[count];
  if (set->rebindings == nullptr) {
    delete set;
    return nullptr;
  }
  std::copy_n(rebindings, count, set->rebindings);
  return set;
}

void freeSet(RebindingSet* set) {
  delete[] set->rebindings;
  delete set;
}

// False, and nothing has changed, if there is no memory.
bool add(RebindingSet* set, RebindingList& list) {
  if (!list.index.reserve(set->count)) return false;
  set->next = list.head;
  list.head = set;
  list.index.add(set->rebindings, set->count);
  return true;
}

void rewrite(const RebindingList& list, const mach_header_64* header, intptr_t slide) {
  if (!dontRebindImages.load(std::memory_order_relaxed)) rewriteImage(list.index, header, slide);
}

void rewriteAddedImage(const mach_header* header, intptr_t slide) {
  rewrite(allRebindings, reinterpret_cast<const mach_header_64*>(header), slide);
}

}  // namespace

int32_t rebindSymbols(const SymbolRebinding rebindings[], size_t count) {
  RebindingSet* const set = makeSet(rebindings, count);
  if (set == nullptr) return -1;
  pthread_mutex_lock(&addingSets);
  const bool added = add(set, allRebindings);
  pthread_mutex_unlock(&addingSets);
  if (!added) {
    freeSet(set);
    return -1;
  }

  if (set->next == nullptr) {
    _dyld_register_func_for_add_image(rewriteAddedImage);
    return 0;
  }
  for (uint32_t i = 0; i < _dyld_image_count(); ++i) {
    // An image may have gone since it was counted.
    const mach_header* const header = _dyld_get_image_header(i);
    if (header != nullptr) rewriteAddedImage(header, _dyld_get_image_vmaddr_slide(i));
  }
  return 0;
}

int32_t rebindSymbolsInImage(const mach_header_64* header, intptr_t slide, const SymbolRebinding rebindings[],
                             size_t count) {
  RebindingSet* const set = makeSet(rebindings, count);
  if (set == nullptr) return -1;
  RebindingList list;
  const bool added = add(set, list);
  if (added) rewrite(list, header, slide);
  list.index.clear();
  freeSet(set);
  return added ? 0 : -1;
}
