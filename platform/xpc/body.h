// A message's body: a GVariant of type a{sv}, little-endian and in normal form, written and read in place.
//
// GLib's own GVariant makes several objects for every value, which cost more than everything else that is
// done to a frame's message together; so the serialisation is done here, and GLib is what the tests compare
// it with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "object.h"

namespace platform::xpc {

using Descriptors = std::pmr::vector<Ref<Descriptor>>;

// Appends the body to bytes, whose length is a multiple of 8, and the descriptors of its values to
// descriptors. What it needs meanwhile it takes from the memory of bytes. Answers what is wrong with the
// dictionary, or null.
const char* writeBody(const Dictionary& dictionary, Bytes& bytes, Descriptors& descriptors);

// Reads a body, which is not trusted. Every descriptor of the span is moved into the value that names it.
// Answers null and sets problem if the body is not what it should be.
Ref<Dictionary> readBody(std::span<const uint8_t> body, std::span<FileDescriptor> descriptors,
                         const char*& problem);

}  // namespace platform::xpc
