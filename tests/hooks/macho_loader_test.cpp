// The loader and the registry of images: what they tell of a good image, and what becomes of bad ones.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mach-o/dyld.h>
#include <mach-o/fixup-chains.h>
#include <mach/task_map.h>

#include <functional>
#include <thread>

#include "mapped_image.h"
#include "symbol_rebinding.h"

using platform::ImageRefused;
using platform::LoadedImage;
using testing::HasSubstr;

namespace {

using Bytes = std::vector<uint8_t>;

std::unique_ptr<LoadedImage> loadBytes(const Bytes& file) {
  return LoadedImage::load("image", file, theOriginal, LoadedImage::Processor::Any);
}

std::string refusalOf(const Bytes& file) {
  try {
    loadBytes(file);
  } catch (const ImageRefused& refused) {
    return refused.what();
  }
  return "taken";
}

vm_prot_t protectionAt(const void* address) {
  return platform::regionFromMapsText(reinterpret_cast<uintptr_t>(address))->protection;
}

TEST(MachOLoader, MapsSegmentsWithTheirProtections) {
  for (const auto& layout : kLayouts) {
    const auto image = loadDoorman(layout);
    EXPECT_EQ(protectionAt(image->header()), VM_PROT_READ | VM_PROT_EXECUTE);
    EXPECT_EQ(protectionAt(image->symbol("table")), VM_PROT_READ | VM_PROT_WRITE);
    const bool readOnly = layout == "const" || layout == "chained";
    EXPECT_EQ(protectionAt(image->symbol("constantTable")),
              readOnly ? VM_PROT_READ : VM_PROT_READ | VM_PROT_WRITE);
    EXPECT_EQ(image->symbol("open_door"), nullptr) << "imported, not exported";
    EXPECT_EQ(image->symbol("stayOutside"), nullptr) << "not exported";
  }
}

TEST(MachOLoader, FillsInThePointersOfEitherProcessor) {
  for (const auto& layout : kLayouts) {
    for (const auto& processor : {kThisProcessor, kOtherProcessor}) {
      const auto image =
          LoadedImage::load(doorman(layout, processor), theOriginal, LoadedImage::Processor::Any);
      for (const auto& slot : slotsOf(*image)) {
        if (slot.symbol == "dyld_stub_binder" || slot.symbol.empty()) continue;
        const std::string name = slot.symbol[0] == '_' ? slot.symbol.substr(1) : slot.symbol;
        EXPECT_EQ(*slot.address, theOriginal(name)) << layout << " " << processor << " " << slot.symbol;
      }
      auto** const table = static_cast<void**>(image->symbol("table"));
      EXPECT_EQ(table[0], address(openDoor));
      EXPECT_EQ(table[1], address(ringBell));
      Dl_info own{};
      ASSERT_NE(dladdr(table[2], &own), 0) << "a pointer to the image itself";
      EXPECT_EQ(own.dli_fbase, image->header());
    }
  }
}

TEST(MachOLoader, NeedsADefinitionOfEveryImport) {
  const auto unknown = [](const std::string& name) {
    return name == "bell_count" ? nullptr : theOriginal(name);
  };
  for (const auto& layout : kLayouts) {
    const uint32_t images = _dyld_image_count();
    try {
      LoadedImage::load(doorman(layout), unknown);
      ADD_FAILURE() << layout;
    } catch (const ImageRefused& refused) {
      EXPECT_THAT(refused.what(), HasSubstr("nobody has \"_bell_count\""));
    }
    EXPECT_EQ(_dyld_image_count(), images);
  }
}

TEST(Registry, KnowsImagesWhileTheyAreMapped) {
  const uint32_t before = _dyld_image_count();
  auto first = loadDoorman("lazy");
  const auto second = loadDoorman("const");
  ASSERT_EQ(_dyld_image_count(), before + 2);
  EXPECT_EQ(_dyld_get_image_header(before), reinterpret_cast<const mach_header*>(first->header()));
  EXPECT_EQ(_dyld_get_image_vmaddr_slide(before + 1), second->slide());
  EXPECT_EQ(_dyld_get_image_header(before + 2), nullptr);

  Dl_info info{};
  const auto* const firstByte = reinterpret_cast<const char*>(first->header());
  ASSERT_NE(dladdr(firstByte, &info), 0);
  EXPECT_EQ(info.dli_fbase, first->header());
  EXPECT_EQ(info.dli_fname, doorman("lazy"));
  EXPECT_EQ(dladdr(firstByte - 1, &info), 0);
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&openDoor), &info), 0) << "the system's own images";
  EXPECT_NE(info.dli_fbase, first->header());

  first.reset();
  EXPECT_EQ(_dyld_image_count(), before + 1);
  EXPECT_EQ(dladdr(firstByte, &info), 0);
}

std::map<const mach_header*, int>& timesTold() {
  static std::map<const mach_header*, int> told;
  return told;
}

TEST(Registry, TellsOfEveryImageOnce) {
  std::vector<std::unique_ptr<LoadedImage>> images(8);
  const auto load = [&](size_t first) {
    for (size_t i = first; i < images.size(); i += 2) images[i] = loadDoorman("lazy");
  };
  // Two threads load while the function is registered; it is called for one image at a time.
  std::thread even(load, 0);
  std::thread odd(load, 1);
  _dyld_register_func_for_add_image([](const mach_header* header, intptr_t) { ++timesTold()[header]; });
  even.join();
  odd.join();
  for (const auto& image : images) {
    EXPECT_EQ(timesTold()[reinterpret_cast<const mach_header*>(image->header())], 1);
  }
}

// Finds a load command in a file's bytes.
template <typename Command>
Command* find(Bytes& file, uint32_t kind, const std::string& segment = "") {
  const auto* const header = reinterpret_cast<const mach_header_64*>(file.data());
  auto* at = file.data() + sizeof *header;
  for (uint32_t i = 0; i < header->ncmds; ++i) {
    const auto* const prefix = reinterpret_cast<const load_command*>(at);
    const bool named = segment.empty() || segment == reinterpret_cast<segment_command_64*>(at)->segname;
    if (prefix->cmd == kind && named) return reinterpret_cast<Command*>(at);
    at += prefix->cmdsize;
  }
  throw std::logic_error("no such command");
}

struct Fault {
  std::string message;
  std::string layout;
  std::function<void(Bytes&)> make;
};

auto* headerOf(Bytes& file) {
  return reinterpret_cast<mach_header_64*>(file.data());
}
auto* segmentOf(Bytes& file, const char* name) {
  return find<segment_command_64>(file, LC_SEGMENT_64, name);
}
auto* classicOf(Bytes& file) {
  return find<dyld_info_command>(file, LC_DYLD_INFO_ONLY);
}
auto* chainsOf(Bytes& file) {
  const auto* const command = find<linkedit_data_command>(file, LC_DYLD_CHAINED_FIXUPS);
  return reinterpret_cast<dyld_chained_fixups_header*>(file.data() + command->dataoff);
}
// The chains of the segment that has them.
auto* startsOf(Bytes& file) {
  auto* const header = reinterpret_cast<uint8_t*>(chainsOf(file)) + chainsOf(file)->starts_offset;
  const auto* const image = reinterpret_cast<dyld_chained_starts_in_image*>(header);
  uint32_t index = 0;
  while (image->seg_info_offset[index] == 0) ++index;
  return reinterpret_cast<dyld_chained_starts_in_segment*>(header + image->seg_info_offset[index]);
}

// A stream of opcodes of the test's own, in the place of the image's.
void setRebaseOpcodes(Bytes& file, const Bytes& opcodes) {
  classicOf(file)->rebase_off = static_cast<uint32_t>(file.size());
  classicOf(file)->rebase_size = static_cast<uint32_t>(opcodes.size());
  file.insert(file.end(), opcodes.begin(), opcodes.end());
}
void setBindOpcodes(Bytes& file, const Bytes& opcodes) {
  classicOf(file)->bind_off = static_cast<uint32_t>(file.size());
  classicOf(file)->bind_size = static_cast<uint32_t>(opcodes.size());
  file.insert(file.end(), opcodes.begin(), opcodes.end());
}

const std::vector<Fault> kFaults = {
    {"not a 64-bit Mach-O file", "lazy", [](Bytes& file) { headerOf(file)->magic = 0xfeedface; }},
    {"neither a library nor a bundle", "lazy", [](Bytes& file) { headerOf(file)->filetype = 1; }},
    {"load commands: ", "lazy", [](Bytes& file) { headerOf(file)->sizeofcmds = 0xfffffff0; }},
    {"load command: ", "lazy", [](Bytes& file) { headerOf(file)->ncmds = 1000; }},
    {"load command 3: its size is 0", "lazy", [](Bytes& file) { classicOf(file)->cmdsize = 0; }},
    {"load command 3: its size is 47", "lazy", [](Bytes& file) { classicOf(file)->cmdsize = 47; }},
    {"load command: ", "lazy", [](Bytes& file) { classicOf(file)->cmdsize = 0x7ffffff8; }},
    {"segment __TEXT: 50 sections", "lazy", [](Bytes& file) { segmentOf(file, "__TEXT")->nsects = 50; }},
    {"says that it is in __X", "lazy",
     [](Bytes& file) {
       strcpy(reinterpret_cast<section_64*>(segmentOf(file, "__DATA") + 1)->segname, "__X");
     }},
    {"segment __DATA: lies outside the file", "lazy",
     [](Bytes& file) { segmentOf(file, "__DATA")->fileoff = 1 << 20; }},
    {"segment __DATA: is larger in the file", "lazy",
     [](Bytes& file) { segmentOf(file, "__DATA")->vmsize = 8; }},
    {"segment __DATA: does not start on a page", "lazy",
     [](Bytes& file) { segmentOf(file, "__DATA")->vmaddr += 8; }},
    {"segment __LINKEDIT: is empty or too large", "lazy",
     [](Bytes& file) { segmentOf(file, "__LINKEDIT")->vmsize = ~uint64_t{0}; }},
    {"segment __LINKEDIT: lies outside the address space", "lazy",
     [](Bytes& file) { segmentOf(file, "__LINKEDIT")->vmaddr = ~uint64_t{0xffff}; }},
    {"the image is too large", "lazy",
     [](Bytes& file) { segmentOf(file, "__LINKEDIT")->vmaddr = uint64_t{1} << 40; }},
    {"segment __LINKEDIT: lies in or before segment __DATA", "lazy",
     [](Bytes& file) { segmentOf(file, "__LINKEDIT")->vmaddr = segmentOf(file, "__DATA")->vmaddr; }},
    {"segment __LINKEDIT: cannot be read", "lazy",
     [](Bytes& file) { segmentOf(file, "__LINKEDIT")->initprot = 0; }},
    {"segment __TEXT: is both writable and executable", "lazy",
     [](Bytes& file) { segmentOf(file, "__TEXT")->initprot = 7; }},
    {"segment __DATA: cannot be written", "lazy",
     [](Bytes& file) { segmentOf(file, "__DATA")->initprot = 1; }},
    {"does not hold the header", "lazy", [](Bytes& file) { segmentOf(file, "__TEXT")->filesize = 64; }},

    {"rebase opcodes: ", "lazy", [](Bytes& file) { classicOf(file)->rebase_off = ~0U; }},
    {"they break off", "lazy", [](Bytes& file) { setRebaseOpcodes(file, {0x22}); }},
    {"more than 64 bits", "lazy",
     [](Bytes& file) {
       setRebaseOpcodes(file, {0x22, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 1});
     }},
    {"unknown rebase opcode 0xf0", "lazy", [](Bytes& file) { setRebaseOpcodes(file, {0xf0}); }},
    {"rebase of type 2", "lazy", [](Bytes& file) { setRebaseOpcodes(file, {0x12}); }},
    {"a fixup in no segment", "lazy", [](Bytes& file) { setRebaseOpcodes(file, {0x51}); }},
    {"fixups in segment 9", "lazy",
     [](Bytes& file) {
       setRebaseOpcodes(file, {0x29, 0x00, 0x51});
     }},
    {"segment of the load commands", "lazy",
     [](Bytes& file) {
       setRebaseOpcodes(file, {0x20, 0x00, 0x51});
     }},
    {"segment __DATA: a fixup at ", "lazy",
     [](Bytes& file) {
       setRebaseOpcodes(file, {0x21, 0xff, 0xff, 0x3f, 0x51});
     }},
    // Two to the power of 62 times, eight bytes and minus eight bytes on; and one pointer over and over.
    {"a run that leaves its segment", "lazy",
     [](Bytes& file) {
       setRebaseOpcodes(file, {0x21, 0x00, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
                               0x40, 0xf8, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01});
     }},
    {"segment __DATA: a fixup at ", "lazy",
     [](Bytes& file) {
       setRebaseOpcodes(file, {0x21, 0x00, 0x60, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x40});
     }},
    {"more fixups than the image has pointers", "lazy",
     [](Bytes& file) {
       Bytes opcodes;
       for (int i = 0; i < 20'000; ++i) opcodes.insert(opcodes.end(), {0x21, 0x00, 0x51});
       setRebaseOpcodes(file, opcodes);
     }},
    {"the string at 1 does not end", "lazy",
     [](Bytes& file) {
       setBindOpcodes(file, {0x40, 'x', 'y'});
     }},
    {"unknown bind opcode 0xd0", "lazy", [](Bytes& file) { setBindOpcodes(file, {0xd0}); }},
    {"nobody has \"_x\"", "lazy",
     [](Bytes& file) {
       setBindOpcodes(file, {0x40, '_', 'x', 0, 0x71, 0x00, 0x90});
     }},

    {"chained fixups: ", "chained",
     [](Bytes& file) { find<linkedit_data_command>(file, LC_DYLD_CHAINED_FIXUPS)->datasize = ~0U; }},
    {"chained fixups: version 7", "chained", [](Bytes& file) { chainsOf(file)->fixups_version = 7; }},
    {"chained fixups: imports: ", "chained", [](Bytes& file) { chainsOf(file)->imports_count = ~0U; }},
    {"chained fixups: imports of format 9", "chained",
     [](Bytes& file) { chainsOf(file)->imports_format = 9; }},
    {"compressed symbol names", "chained", [](Bytes& file) { chainsOf(file)->symbols_format = 1; }},
    {"chained fixups: symbol name: ", "chained",
     [](Bytes& file) { chainsOf(file)->symbols_offset = 1 << 30; }},
    {"chained fixups: starts: ", "chained", [](Bytes& file) { chainsOf(file)->starts_offset = 1 << 30; }},
    {"chained fixups: import 1 of 1", "chained", [](Bytes& file) { chainsOf(file)->imports_count = 1; }},
    {"chained fixups: pointers of format 1", "chained",
     [](Bytes& file) { startsOf(file)->pointer_format = 1; }},
    {"chained fixups: pages of 3 bytes", "chained", [](Bytes& file) { startsOf(file)->page_size = 3; }},
    {"its chains are elsewhere", "chained", [](Bytes& file) { startsOf(file)->segment_offset += 8; }},
    {"a chain starts outside its page", "chained",
     [](Bytes& file) { startsOf(file)->page_start[0] = 0x8000; }},
    {"segment __DATA_CONST: a fixup at ", "chained",
     [](Bytes& file) {
       startsOf(file)->page_start[0] = static_cast<uint16_t>(startsOf(file)->page_size - 4);
     }},
};

TEST(HostileImages, AreRefusedWithTheirFault) {
  for (const auto& fault : kFaults) {
    Bytes file = fileBytes(doorman(fault.layout, "x86_64"));
    fault.make(file);
    EXPECT_THAT(refusalOf(file), HasSubstr(fault.message));
  }
  EXPECT_THAT(refusalOf({}), HasSubstr("header"));
  EXPECT_THROW(LoadedImage::load(doorman("lazy", kOtherProcessor), theOriginal), ImageRefused);
  EXPECT_THROW(LoadedImage::load(imagePath("nothing"), theOriginal), ImageRefused);
}

// Loads an image, and rebinds in it if it is taken. Whatever is wrong with it, nothing else is touched:
// around the image lie pages that nobody may read.
bool loadAndRebind(const Bytes& file) {
  try {
    const auto image = loadBytes(file);
    const SymbolRebinding rebindings[] = {{"ring_bell", address(openDoor), nullptr},
                                          {"z", address(openDoor), nullptr}};
    rebindSymbolsInImage(image->header(), image->slide(), rebindings, std::size(rebindings));
    image->symbol("table");
    return true;
  } catch (const ImageRefused&) {
    return false;
  }
}

TEST(HostileImages, NoSingleFaultDoesHarm) {
  for (const std::string layout : {"const", "chained"}) {
    const Bytes good = fileBytes(doorman(layout, "x86_64"));
    Bytes file = good;
    const uint32_t commandsEnd = sizeof(mach_header_64) + headerOf(file)->sizeofcmds;
    const auto linkEdit = static_cast<size_t>(segmentOf(file, "__LINKEDIT")->fileoff);
    int taken = 0;
    int refused = 0;
    for (size_t at = 0; at + 4 <= good.size(); at += 4) {
      if (at == commandsEnd) at = linkEdit;
      uint32_t word = 0;
      memcpy(&word, &good[at], sizeof word);
      for (const uint32_t wrong : {0U, ~0U, word - 1, word + 8, word ^ 0x80000000U}) {
        memcpy(&file[at], &wrong, sizeof wrong);
        ++(loadAndRebind(file) ? taken : refused);
      }
      memcpy(&file[at], &word, sizeof word);
    }
    EXPECT_GT(taken, 100) << layout;
    EXPECT_GT(refused, 100) << layout;

    for (size_t size = 0; size < good.size(); size += size < commandsEnd ? 8 : 111) {
      loadAndRebind({good.begin(), good.begin() + static_cast<ptrdiff_t>(size)});
    }
  }
}

}  // namespace
