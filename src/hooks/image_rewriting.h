// Rewrites the symbol pointers of one image.
#pragma once

#include <mach-o/loader.h>

#include <cstdint>

#include "rebinding_index.h"

// Puts the replacements of `rebindings` into the image's lazy and non-lazy symbol pointers. An image without
// symbol tables or imports is left alone. The loader's word is taken for where the image's segments lie;
// whatever else the image says of itself is held against them, and what lies outside is left alone. Any
// thread.
void rewriteImage(const RebindingIndex& rebindings, const mach_header_64* header, intptr_t slide);
