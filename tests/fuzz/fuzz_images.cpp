// Mutated Mach-O images, for the loader and for the walk over an image's tables. An input is a list of
// changes to a good image, in its load commands or its link-edit data, which is where a change can matter; an
// input that begins like an image is taken for one as it is.
#include <algorithm>
#include <cstring>

#include "../hooks/mapped_image.h"
#include "symbol_rebinding.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct GoodImage {
  explicit GoodImage(const std::string& name) : file(fileBytes(imagePath(name))) {
    const auto* const header = reinterpret_cast<const mach_header_64*>(file.data());
    commandsEnd = sizeof *header + header->sizeofcmds;
    const auto* command = file.data() + sizeof *header;
    for (uint32_t i = 0; i < header->ncmds; ++i) {
      const auto* const segment = reinterpret_cast<const segment_command_64*>(command);
      if (segment->cmd == LC_SEGMENT_64 && strcmp(segment->segname, SEG_LINKEDIT) == 0)
        linkEdit = segment->fileoff;
      command += segment->cmdsize;
    }
  }
  Bytes file;
  size_t commandsEnd = 0;
  size_t linkEdit = 0;
};

#pragma pack(push, 1)
struct Change {
  uint8_t place;  // the lowest bit: in the load commands; the next two: how many bytes, 1, 2, 4 or 8
  uint16_t offset;
  uint64_t value;
};
#pragma pack(pop)

Bytes changed(const uint8_t* data, size_t size) {
  static const GoodImage good[] = {GoodImage("fuzz_classic"), GoodImage("fuzz_chained")};
  const GoodImage& image = good[data[0] % 2];
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool whole = size >= 4 && memcmp(data, "\xcf\xfa\xed\xfe", 4) == 0;
  try {
    const auto image = platform::LoadedImage::load(
        "image", whole ? Bytes(data, data + size) : changed(data, size),
        [](const std::string&) { return address(openDoor); }, platform::LoadedImage::Processor::Any);
    void* original = nullptr;
    const SymbolRebinding rebindings[] = {{"ring_bell", address(ringBell), &original},
                                          {"open_door", address(ringBell), nullptr},
                                          {"z", address(ringBell), nullptr}};
    rebindSymbolsInImage(image->header(), image->slide(), rebindings, std::size(rebindings));
    image->symbol("table");
  } catch (const platform::ImageRefused&) {
    return 0;
  }
  return 0;
}
