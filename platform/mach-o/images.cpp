#include "images.h"

#include <dlfcn.h>
#include <mach-o/dyld.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace {

using AddImage = void (*)(const mach_header*, intptr_t);

// Never destroyed: threads may look images up while the process exits.
struct Registry {
  // Held while functions are told of images, so that each is told once of each; a function may load an image.
  std::recursive_mutex announcing;
  std::vector<AddImage> functions;

  // Held for a look at the lists only, never while anything is called.
  std::mutex lists;
  std::vector<std::shared_ptr<const platform::MachOImageRecord>> inOrder;
  std::map<uintptr_t, std::shared_ptr<const platform::MachOImageRecord>> byAddress;
};

Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

std::shared_ptr<const platform::MachOImageRecord> imageAt(uint32_t index) {
  Registry& images = registry();
  const std::lock_guard lock(images.lists);
  return index < images.inOrder.size() ? images.inOrder[index] : nullptr;
}

const mach_header* headerOf(const platform::MachOImageRecord& image) {
  return reinterpret_cast<const mach_header*>(image.header);
}

}  // namespace

namespace platform {

void addMachOImage(MachOImageRecord record) {
  Registry& images = registry();
  const std::lock_guard announcing(images.announcing);
  const auto image = std::make_shared<const MachOImageRecord>(std::move(record));
  {
    const std::lock_guard lock(images.lists);
    images.inOrder.push_back(image);
    images.byAddress[reinterpret_cast<uintptr_t>(image->header)] = image;
  }
  // By index: a function may register another.
  for (size_t i = 0; i < images.functions.size(); ++i) images.functions[i](headerOf(*image), image->slide);
}

void removeMachOImage(const mach_header_64* header) {
  Registry& images = registry();
  const std::lock_guard announcing(images.announcing);
  const std::lock_guard lock(images.lists);
  std::erase_if(images.inOrder, [&](const auto& image) { return image->header == header; });
  images.byAddress.erase(reinterpret_cast<uintptr_t>(header));
}

}  // namespace platform

uint32_t _dyld_image_count() {
  Registry& images = registry();
  const std::lock_guard lock(images.lists);
  return static_cast<uint32_t>(images.inOrder.size());
}

const mach_header* _dyld_get_image_header(uint32_t image_index) {
  const auto image = imageAt(image_index);
  return image ? headerOf(*image) : nullptr;
}

intptr_t _dyld_get_image_vmaddr_slide(uint32_t image_index) {
  const auto image = imageAt(image_index);
  return image ? image->slide : 0;
}

void _dyld_register_func_for_add_image(AddImage func) {
  Registry& images = registry();
  const std::lock_guard announcing(images.announcing);
  // Told of those that are there first, then entered: an image that func itself loads is told by neither
  // twice.
  for (uint32_t i = 0; const auto image = imageAt(i); ++i) func(headerOf(*image), image->slide);
  images.functions.push_back(func);
}

int dladdr(const void* address, Dl_info* info) noexcept {
  {
    Registry& images = registry();
    const std::lock_guard lock(images.lists);
    const auto wanted = reinterpret_cast<uintptr_t>(address);
    auto next = images.byAddress.upper_bound(wanted);
    if (next != images.byAddress.begin()) {
      const auto& [start, image] = *std::prev(next);
      if (wanted - start < image->size) {
        *info = {.dli_fname = image->path.c_str(),
                 .dli_fbase = const_cast<mach_header_64*>(image->header),
                 .dli_sname = nullptr,
                 .dli_saddr = nullptr};
        return 1;
      }
    }
  }
  using Dladdr = int (*)(const void*, Dl_info*);
  static const auto theSystems = reinterpret_cast<Dladdr>(dlsym(RTLD_NEXT, "dladdr"));
  return theSystems != nullptr ? theSystems(address, info) : 0;
}
