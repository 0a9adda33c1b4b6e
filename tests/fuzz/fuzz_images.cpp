// Mutated Mach-O images, for the loader and for the walk over an image's tables. An input is a list of
// changes to a good image where a change can matter: near its beginning, which holds the load commands, or
// near its end, which holds the link-edit data.
#include <algorithm>
#include <cstring>

#include "../hooks/mapped_image.h"
#include "symbol_rebinding.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kReach = 2048;

Bytes changed(const uint8_t* data, size_t size) {
  static const Bytes good[] = {fileBytes(imagePath("fuzz_classic")), fileBytes(imagePath("fuzz_chained"))};
  Bytes file = good[data[0] % 2];
  // A change's first byte says where (the lowest bit: near the end) and how much (the next two: 1, 2, 4 or 8
  // bytes). The next two bytes say where exactly, the last eight what is put there.
  for (size_t at = 1; at + 11 <= size; at += 11) {
    const uint8_t* change = data + at;
    const size_t from = (change[0] & 1) != 0 ? file.size() - kReach : 0;
    const size_t offset = from + (change[1] + size_t{256} * change[2]) % kReach;
    memcpy(&file[offset], change + 3, std::min(size_t{1} << (change[0] >> 1 & 3), file.size() - offset));
  }
  return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  try {
    const auto image = platform::LoadedImage::load(
        "image", changed(data, size), [](const std::string&) { return address(openDoor); },
        platform::LoadedImage::Processor::Any);
    void* original = nullptr;
    const SymbolRebinding rebindings[] = {{"ring_bell", address(ringBell), &original},
                                          {"open_door", address(ringBell), nullptr},
                                          {"z", address(ringBell), nullptr}};
    rebindSymbolsInImage(image->header(), image->slide(), rebindings, std::size(rebindings));
    image->symbol("table");
  } catch (const platform::ImageRefused&) {  // as it may be
  }
  return 0;
}
