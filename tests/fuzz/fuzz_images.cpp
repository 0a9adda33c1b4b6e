// Mutated Mach-O images, for the loader and for the walk over an image's tables. An input is a list of
// changes to a good image, in its load commands or its link-edit data, which is where a change can matter; an
// input that begins like an image is taken for one as it is.
#include <mach-o/loader.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "MachOLoader.h"
#include "symbol_rebinding.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct GoodImage {
  Bytes file;
  size_t commandsEnd;
  size_t linkEdit;
};

GoodImage read(const char* path) {
  std::ifstream stream(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  GoodImage image{{text.begin(), text.end()}, 0, 0};
  mach_header_64 header{};
  memcpy(&header, image.file.data(), sizeof header);
  image.commandsEnd = sizeof header + header.sizeofcmds;
  size_t at = sizeof header;
  for (uint32_t i = 0; i < header.ncmds; ++i) {
    segment_command_64 segment{};
    memcpy(&segment, image.file.data() + at, sizeof segment);
    if (segment.cmd == LC_SEGMENT_64 && strcmp(segment.segname, SEG_LINKEDIT) == 0)
      image.linkEdit = segment.fileoff;
    at += segment.cmdsize;
  }
  return image;
}

#pragma pack(push, 1)
struct Change {
  uint8_t place;  // the lowest bit: in the load commands; the next two: how many bytes, 1, 2, 4 or 8
  uint16_t offset;
  uint64_t value;
};
#pragma pack(pop)

Bytes changed(const uint8_t* data, size_t size) {
  static const std::vector<GoodImage> good = {read(CLASSIC_IMAGE), read(CHAINED_IMAGE)};
  const GoodImage& image = good[data[0] % good.size()];
  Bytes file = image.file;
  for (size_t at = 1; at + sizeof(Change) <= size; at += sizeof(Change)) {
    Change change{};
    memcpy(&change, data + at, sizeof change);
    const bool inCommands = (change.place & 1) != 0;
    const size_t from = inCommands ? 0 : image.linkEdit;
    const size_t to = inCommands ? image.commandsEnd : file.size();
    const size_t offset = from + change.offset % (to - from);
    memcpy(&file[offset], &change.value,
           std::min(size_t{1} << (change.place >> 1 & 3), file.size() - offset));
  }
  return file;
}

int replacement() {
  return 0;
}

void* anything(const std::string& /*name*/) {
  return reinterpret_cast<void*>(&replacement);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  constexpr uint8_t kMagic[] = {0xcf, 0xfa, 0xed, 0xfe};
  const bool whole = size >= sizeof kMagic && std::equal(std::begin(kMagic), std::end(kMagic), data);
  const Bytes file = whole ? Bytes(data, data + size) : changed(data, size);
  try {
    const auto image =
        platform::LoadedImage::load("image", file, anything, platform::LoadedImage::Processor::Any);
    void* original = nullptr;
    const SymbolRebinding rebindings[] = {{"ring_bell", reinterpret_cast<void*>(&replacement), &original},
                                          {"open_door", reinterpret_cast<void*>(&replacement), nullptr},
                                          {"z", reinterpret_cast<void*>(&replacement), nullptr}};
    rebindSymbolsInImage(image->header(), image->slide(), rebindings, std::size(rebindings));
    image->symbol("table");
  } catch (const platform::ImageRefused&) {
    return 0;
  }
  return 0;
}
