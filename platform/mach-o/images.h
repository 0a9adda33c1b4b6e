// The registry behind <mach-o/dyld.h>: whoever maps a Mach-O image into the process announces it here.
#pragma once

#include <mach-o/loader.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace platform {

struct MachOImageRecord {
  const mach_header_64* header;
  intptr_t slide;
  size_t size;       // bytes from the header to the end of the image's last segment
  std::string path;  // what dladdr() gives as the file's name
};

// Adds a mapped image and calls every function registered for added images. The image's mapping must stay
// until removeMachOImage() has returned. Any thread.
void addMachOImage(MachOImageRecord image);

// Takes an image out. Nothing waits for a thread that goes over the image at that moment: the caller knows
// that there is none, before it unmaps.
void removeMachOImage(const mach_header_64* header);

}  // namespace platform
