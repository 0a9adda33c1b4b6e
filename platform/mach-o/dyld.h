// The Mach-O images of this process. On Linux these are the ones that were announced to the registry
// (mach-o/images.h), numbered in that order; the system's own libraries are no Mach-O images and not among
// them.
//
// dladdr() of <dlfcn.h> knows these images, too: linked into a program, this library puts its own in front of
// the C library's, which it asks for every address that is in no Mach-O image. For an address in one it gives
// the path and the header; it looks for no symbol.
#pragma once

#include <mach-o/loader.h>

#include <cstdint>

extern "C" {

// How many images there are. Any thread.
uint32_t _dyld_image_count();

// The header, or the slide (how far from its linked address it lies) of an image; nullptr and 0 for an index
// that is not below the count. An image that goes away moves the later ones down by one. Any thread.
const struct mach_header* _dyld_get_image_header(uint32_t image_index);
intptr_t _dyld_get_image_vmaddr_slide(uint32_t image_index);

// Calls func for every image that is there, before it returns, and from then on for each that is announced,
// on the thread that announces it: once an image, one call at a time. func may call anything in this header.
void _dyld_register_func_for_add_image(void (*func)(const struct mach_header* mh, intptr_t vmaddr_slide));
}
