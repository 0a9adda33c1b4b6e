// Redirects calls of imported functions, in every Mach-O image of the process, to replacements.
#pragma once

#include <mach-o/loader.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

// One redirection: wherever an image imports `name`, it gets `replacement`.
struct SymbolRebinding {
  const char* name;   // without the leading underscore; must stay as it is for good
  void* replacement;  // the function
  void** replaced;    // where the address that was there before is stored; may be nullptr
};

// While true, no image is rewritten; rebindings are still recorded. False unless a host sets it.
extern "C" __attribute__((visibility("default"))) std::atomic<bool> dontRebindImages;

// Records a copy of the `count` rebindings and applies them to every image that is loaded or will be. They
// come before all that were recorded earlier; among themselves the first one of a name counts. Where a slot
// already holds the replacement nothing is stored. Returns 0, or -1 if there was no memory, when nothing has
// changed. Any thread, at any time.
int32_t rebindSymbols(const SymbolRebinding rebindings[], size_t count);

// Applies these rebindings to one image, now and only once, and nothing that rebindSymbols() recorded.
// `slide` is the difference between the header's address and the one it was linked at. Result as above.
int32_t rebindSymbolsInImage(const mach_header_64* header, intptr_t slide, const SymbolRebinding rebindings[],
                             size_t count);
